#include <ovra/ovra.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

class CountingHandler : public ovra::log::LogHandler {
public:
    void handleLogMessage(char const*, ovra::log::LogLevel) override { ++count; }
    int count = 0;
};

}  // namespace

// Uses a little of each part of the library, so that each is compiled, linked and run.
int main() {
    using ovra::concurrent::Executable;

    ovra_xcode_target_object_glue();

    auto const handler = std::make_shared<CountingHandler>();
    ovra::log::addLogHandler(handler, "counting");
    ovra::log::setLogLevel(ovra::log::INFO);

    auto const executor = ovra::concurrent::getNoStarveTaskExecutor();
    auto const handle = executor->submitTask([] { return Executable::SUCCESS; },
                                             ovra::concurrent::NORMAL, nullptr, "consumer");
    handle->waitForCompletion();

    ovra::fs::FileHandle const here(".");
    bool const works = handle->getResult() == Executable::SUCCESS && handler->count > 0 &&
                       here.IsDirectory() && ovra::fs::FilePath("a/b.c").Extension() == ".c";
    std::printf("ovra %s: %s\n", OVRA_VERSION, works ? "works" : "does not work");
    return works ? 0 : 1;
}
