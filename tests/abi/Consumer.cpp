// Compiled twice: as an application with the system's own widths of files and times, and as one
// that asks for 64 bits. It refers to every operation that deals with either.

#include <tests/abi/Consumer.h>

#include <sys/types.h>

#include <ctime>
#include <string>

#include <ovra/ovra.h>

namespace ovra::abi::test {

Observation OBSERVE(char const* directory, char const* name) {
    fs::FileHandle const file(std::string(directory) + "/" + name);
    fs::FileHandleBackendImpl const backend(file.Path().Path());

    Observation seen = {};
    seen.offsetBytes = sizeof(off_t);
    seen.timeBytes = sizeof(time_t);
    std::size_t const classBytes[] = {sizeof(fs::FileHandle), sizeof(fs::FileHandleBackendImpl),
                                      sizeof(fs::FileIterator), sizeof(fs::FileIteratorBackendImpl),
                                      sizeof(log::FileLogHandler)};
    std::size_t filled = 0;
    for (std::size_t const bytes : classBytes) {
        seen.classBytes[filled++] = bytes;
    }
    bool const agrees =
        backend.Size() == file.Size() && backend.ModificationTime() == file.ModificationTime();
    seen.sizeBytes = agrees ? file.Size() : -1;
    seen.modificationTime = agrees ? file.ModificationTime() : -1;
    seen.isFile = file.IsFile();
    fs::FileHandle parent{std::string(directory)};
    for (fs::FileIterator entry = parent.Begin(); entry != parent.End(); ++entry) {
        seen.isListed = seen.isListed || (*entry).FileName() == name;
    }
    return seen;
}

}  // namespace ovra::abi::test
