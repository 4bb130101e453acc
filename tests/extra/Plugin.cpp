// Uses what the library has to do with files, as a plug-in of an application that is loaded and
// unloaded with it.

#include <string>

#include <ovra/extra.h>

extern "C" __attribute__((visibility("default"))) bool useLibrary(char const* directory) {
    using namespace ovra::extra;
    std::string const path = directory;
    Space space;
    LockFile lock(path + "/lock");
    return replaceFile(path + "/file", "contents") == Outcome::DONE &&
           syncFile(path + "/file") == Outcome::DONE && lock.tryLock() == Outcome::DONE &&
           readSpace(path, space) == Outcome::DONE &&
           attempt([&] { return removeTree(path + "/file") == Outcome::DONE; }) == Outcome::DONE;
}
