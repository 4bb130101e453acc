#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <string>

#include <gtest/gtest.h>
#include <ovra/extra/MonitoredExecutor.h>

namespace ovra::extra::test {

/// What `writeTo` writes, as long as it fits into a pipe.
inline std::string written(MonitoredExecutor const& from) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_TRUE(from.writeTo(ends[1]));
    close(ends[1]);
    std::string text(10000, '\0');
    auto const length = read(ends[0], text.data(), text.size());
    close(ends[0]);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

}  // namespace ovra::extra::test
