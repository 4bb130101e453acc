#include <ovra/ovra.h>

using namespace ovra::concurrent;

int main() {
    auto const executor = getNoStarveTaskExecutor();
    auto const handle = executor->submitTask(
        [] {
            bool const there = ovra::fs::FileHandle("/etc/passwd").Size() > 0;
            return there ? Executable::SUCCESS : Executable::FAILURE;
        },
        HIGH, nullptr, "users");
    handle->waitForCompletion();
    return handle->getResult() == Executable::SUCCESS ? 0 : 1;
}
