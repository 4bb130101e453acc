#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <tests/fs/SystemCalls.h>
#include <tests/fs/TemporaryDirectory.h>

namespace ovra::fs::test {

using Calls = std::vector<std::string>;

/// What is asked of the system, call by call.
class SystemCallTest : public TemporaryDirectoryTest {
protected:
    SystemCallTest() {
        writeFile(at("f"), "contents");
        makeDirectory(at("d"));
        makeLink("f", at("link"));
        makeLink("d", at("link-to-d"));
        makeLink("missing", at("dangling"));
    }
};

/// The calls without those that read a directory, whose number is up to the C library.
inline Calls withoutReading(Calls calls) {
    calls.erase(std::remove(calls.begin(), calls.end(), "readdir"), calls.end());
    return calls;
}

}  // namespace ovra::fs::test
