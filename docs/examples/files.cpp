#include <cstdint>
#include <iostream>

#include <ovra/fs/FileHandle.h>

using ovra::fs::FileHandle;

int main() {
    FileHandle directory("/etc");
    std::int64_t files = 0;
    std::int64_t bytes = 0;
    for (auto entry = directory.Begin(); entry != directory.End(); ++entry) {
        FileHandle const file((*entry).Path());
        if (file.IsFile()) {
            ++files;
            bytes += file.Size();
        }
    }
    std::cout << files << " files, " << bytes << " bytes in /etc\n";
    return files > 0 ? 0 : 1;
}
