#include <ovra/extra.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// Uses a little of each part of the second library.
int main() {
    using namespace ovra::extra;

    std::string directory = "/tmp/ovra-consumer-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr) {
        return 1;
    }
    std::string const file = directory + "/file";
    Space space;
    bool works;
    {
        LockFile lock(file);
        works = replaceFile(file, "contents") == Outcome::DONE && syncFile(file) == Outcome::DONE &&
                lock.tryLock() == Outcome::DONE && readSpace(file, space) == Outcome::DONE &&
                space.totalBytes > 0 && removeTree(std::string()) == Outcome::MISSING &&
                attempt([] { return false; }) == Outcome::REFUSED;
    }
    unlink(file.c_str());
    rmdir(directory.c_str());
    std::printf("ovra-extra: %s\n", works ? "works" : "does not work");
    return works ? 0 : 1;
}
