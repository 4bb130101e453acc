#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include <benchmarks/support/Run.h>

namespace ovra::bench {

/// Reports the median, and what 1 in 100 and 1 in 1 000 exceed.
inline void reportQuantiles(Run& run, std::vector<double> nanoseconds) {
    std::sort(nanoseconds.begin(), nanoseconds.end());
    auto const at = [&](double share) {
        return nanoseconds[static_cast<std::size_t>(share *
                                                    static_cast<double>(nanoseconds.size() - 1))];
    };
    run.report("p50_ns", at(0.5));
    run.report("p99_ns", at(0.99));
    run.report("p999_ns", at(0.999));
}

}  // namespace ovra::bench
