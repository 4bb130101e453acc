// Operations on queues and their tasks, against the model of a queue.

#include <tests/concurrent/QueueTrace.h>

#include <fuzz/ByteSource.h>
#include <fuzz/Fuzzer.h>

namespace ovra::concurrent::model {
namespace {

using fuzz::ByteSource;

Profile anyProfile(ByteSource& source) {
    Profile profile{"fuzzed", {}, source.below(4), 1 + source.below(32), source.oneIn(2)};
    for (int queues = source.between(1, 3); queues > 0; --queues) {
        profile.strategies.push_back(
            static_cast<StrategyKind>(source.between(NO_STRATEGY, STRATEGY_KINDS - 1)));
    }
    return profile;
}

}  // namespace
}  // namespace ovra::concurrent::model

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    using namespace ovra::concurrent::model;
    ByteSource source(data, size);
    Trace<ByteSource> trace(anyProfile(source), source);
    while (!source.isEmpty()) {
        trace.advance();
    }
    trace.drain();
    return 0;
}
