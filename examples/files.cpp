// Makes a small tree, scans it, copies, moves and links in it, and removes it again.

#include <stdlib.h>

#include <iostream>
#include <string>

#include <ovra/fs/FileHandle.h>

using ovra::fs::FileHandle;
using ovra::fs::FilePath;

namespace {

bool write(FileHandle const& file, std::string const& text) {
    auto const stream = file.CreateOutputStream(std::ios_base::binary);
    *stream << text << std::flush;
    return stream->good();
}

// Lists what is below a directory. A link is named but not entered: it could lead back up.
void list(FileHandle directory, std::string const& indent) {
    for (auto entry = directory.Begin(); entry != directory.End(); ++entry) {
        FileHandle const handle((*entry).Path());
        std::cout << indent << handle.FileName();
        if (handle.IsSymbolicLink()) {
            std::cout << " is a link\n";
        } else if (handle.IsDirectory()) {
            std::cout << "/\n";
            list(handle, indent + "  ");
        } else {
            std::cout << ", " << handle.Size() << " bytes\n";
        }
    }
}

}  // namespace

int main() {
    std::string pattern = "/tmp/example-files-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::cerr << "no scratch directory\n";
        return 1;
    }
    FileHandle scratch(pattern);

    FileHandle notes = scratch.Open("notes.txt");
    FileHandle archive = scratch.Open("archive");
    FileHandle draft = scratch.Open("draft.txt");
    FileHandle latest = scratch.Open("latest");
    // The result of each says whether it worked; nothing throws.
    bool const worked = write(notes, "remember the milk\n") &&  //
                        archive.CreateDirectory() &&            //
                        notes.Copy(draft) &&                    //
                        notes.Move(archive) &&                  // Into the directory...
                        !notes.Exists() &&                      // ...but not the handle.
                        archive.Open("notes.txt").CreateSymbolicLink(latest) &&
                        draft.Rename("final.txt") && draft.FileName() == "final.txt";
    list(scratch, "");

    FilePath const path = draft.Path();
    std::cout << path.FileBaseName() << " with " << path.Extension() << " in "
              << FilePath(path.DirectoryPath()).FileName() << '\n';

    // Links first: a link dangles once its target is removed, and would stay. The removal follows
    // links to directories, so use it only for trees of your own.
    bool const removed = latest.Remove() && scratch.RemoveDirectoryRecursive();
    std::cout << (worked && removed && !scratch.Exists() ? "done" : "failed") << '\n';
    return worked && removed ? 0 : 1;
}
