#include <tests/faults/FileOperations.h>

#include <istream>
#include <memory>
#include <ostream>

#include <unistd.h>

namespace ovra::faults {

namespace {

using fs::FileHandle;

std::string readAll(std::istream& stream) {
    char piece[700];
    std::size_t length = 0;
    bool isRight = true;
    while (stream.read(piece, sizeof piece) || stream.gcount() > 0) {
        auto const got = static_cast<std::size_t>(stream.gcount());
        isRight = isRight && contents().compare(length, got, piece, got) == 0;
        length += got;
    }
    isRight = isRight && length == contents().size() && !stream.bad();
    return shown(isRight ? "all" : "failed");
}

}  // namespace

std::vector<Operation> changeOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const memoryPartly = any(Call::NEW, OUT_OF_MEMORY, PARTLY);
    return {
        {"FileHandle::CreateDirectory",
         "true",
         {memory, any(Call::MKDIR, "false")},
         on("new", [](FileHandle& handle) { return shown(handle.CreateDirectory()); }),
         {"new"},
         "false"},
        // What cannot be seen counts as removed.
        {"FileHandle::RemoveDirectory",
         "true",
         {memory, any(Call::LSTAT, "true"), any(Call::REMOVE, "false")},
         on("empty", [](FileHandle& handle) { return shown(handle.RemoveDirectory()); }),
         {"empty"},
         "true"},
        {"FileHandle::Remove, of a file",
         "true",
         {memory, nth(Call::LSTAT, 1, "false"), any(Call::REMOVE, "false")},
         on("file", [](FileHandle& handle) { return shown(handle.Remove()); }),
         {"file"},
         "false"},
        // Asked twice, whether it is a file and whether it is a link.
        {"FileHandle::Remove, of a link",
         "true",
         {memory, nth(Call::LSTAT, 2, "false"), nth(Call::STAT, 2, "false"),
          any(Call::REMOVE, "false")},
         on("directoryLink", [](FileHandle& handle) { return shown(handle.Remove()); }),
         {"directoryLink"},
         "false"},
        {"FileHandle::CreateSymbolicLink",
         "true",
         {memory, nth(Call::LSTAT, 1, "false"), any(Call::SYMLINK, "false")},
         onTwo("file", "newLink",
               [](FileHandle& handle, FileHandle& target) {
                   return shown(handle.CreateSymbolicLink(target));
               }),
         {"newLink"},
         "false"},
        {"FileHandle::CreateSymbolicLink, inside",
         "true",
         // Not seen to be a directory, its own place is taken.
         {memory, any(Call::LSTAT, "false"), any(Call::SYMLINK, "false")},
         onTwo("file", "empty",
               [](FileHandle& handle, FileHandle& target) {
                   return shown(handle.CreateSymbolicLink(target));
               }),
         {"empty"},
         "false"},
        {"FileHandle::Copy",
         "true",
         {memoryPartly, nth(Call::LSTAT, 1, "false"), nth(Call::OPEN, 1, "false", PARTLY),
          nth(Call::OPEN, 2, "false"), any(Call::MALLOC, "false", PARTLY),
          any(Call::READ, "true", PARTLY), any(Call::WRITE, "true", PARTLY)},
         onTwo("file", "new",
               [](FileHandle& handle, FileHandle& target) { return shown(handle.Copy(target)); }),
         {"new"},
         "true"},
        {"FileHandle::Copy, inside",
         "true",
         {memoryPartly, any(Call::LSTAT, "false"), nth(Call::OPEN, 1, "false", PARTLY),
          nth(Call::OPEN, 2, "false"), any(Call::MALLOC, "false", PARTLY),
          any(Call::READ, "true", PARTLY), any(Call::WRITE, "true", PARTLY)},
         onTwo("file", "empty",
               [](FileHandle& handle, FileHandle& target) { return shown(handle.Copy(target)); }),
         {"empty"},
         "true"},
        {"FileHandle::Move",
         "true",
         {memory, nth(Call::LSTAT, 1, "false"), any(Call::RENAME, "false")},
         onTwo("file", "new",
               [](FileHandle& handle, FileHandle& target) { return shown(handle.Move(target)); }),
         {"file", "new"},
         "false"},
        {"FileHandle::Move, inside",
         "true",
         // A file does not take the place of a directory.
         {memory, any(Call::LSTAT, "false"), any(Call::RENAME, "false")},
         onTwo("file", "empty",
               [](FileHandle& handle, FileHandle& target) { return shown(handle.Move(target)); }),
         {"file", "empty"},
         "false"},
        {"FileHandle::Rename",
         "true",
         {memory, any(Call::LSTAT, "false"), any(Call::RENAME, "false")},
         [] {
             auto const handle = std::make_shared<FileHandle>(tree().at("file"));
             auto const name = std::make_shared<std::string>("new");
             return Action([handle, name] { return shown(handle->Rename(*name)); });
         },
         {"file", "new"},
         "true"},
        {"FileHandle::SetPermissions",
         "set",
         {any(Call::CHMOD, "set")},
         on("file",
            [](FileHandle& handle) {
                handle.SetPermissions(0600);
                return shown("set");
            }),
         {"file"}},
        // What cannot be read counts as the group, or the user, 0.
        {"FileHandle::SetUserId",
         "set",
         {memory, any(Call::LSTAT, "set", PARTLY), any(Call::CHOWN, "set")},
         on("file",
            [](FileHandle& handle) {
                handle.SetUserId(geteuid() == 0 ? 12345 : geteuid());
                return shown("set");
            }),
         {"file"}},
        {"FileHandle::SetGroupId",
         "set",
         {memory, any(Call::LSTAT, "set", PARTLY), any(Call::CHOWN, "set")},
         on("file",
            [](FileHandle& handle) {
                handle.SetGroupId(geteuid() == 0 ? 12345 : getegid());
                return shown("set");
            }),
         {"file"}},
        // An entry that cannot be seen, read or removed stays, and with it its directory.
        {"FileHandle::RemoveDirectoryRecursive",
         "true",
         {memoryPartly, nth(Call::LSTAT, 1, "false"), any(Call::LSTAT, "false|true", PARTLY),
          any(Call::STAT, "false|true", PARTLY), any(Call::REMOVE, "false", PARTLY),
          any(Call::OPENDIR, "false", PARTLY), any(Call::READDIR, "false|true", PARTLY),
          any(Call::MALLOC, "false", PARTLY)},
         on("directory",
            [](FileHandle& handle) { return shown(handle.RemoveDirectoryRecursive()); }),
         {"directory"},
         "false"},
    };
}

std::vector<Operation> streamOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    Rule const memoryPartly = any(Call::NEW, OUT_OF_MEMORY, PARTLY);
    return {
        {"FileHandle::CreateInputStream, read",
         "all",
         {memory, any(Call::MALLOC, "failed"), any(Call::OPEN, "failed"),
          any(Call::READ, "failed")},
         on("link",
            [](FileHandle& handle) {
                auto const stream = handle.CreateInputStream(std::ios_base::binary);
                return readAll(*stream);
            }),
         {"nothing"}},
        {"FileHandle::CreateInputStream, at its end",
         "true",
         {memory, any(Call::MALLOC, "false"), any(Call::OPEN, "false"), any(Call::SEEK, "false")},
         on("file",
            [](FileHandle& handle) {
                auto const stream =
                    handle.CreateInputStream(std::ios_base::binary | std::ios_base::ate);
                return shown(stream->good());
            }),
         {"nothing"}},
        {"FileHandle::CreateOutputStream, written",
         "all",
         {memoryPartly, any(Call::MALLOC, "failed"), any(Call::OPEN, "failed"),
          any(Call::WRITE, "failed", PARTLY)},
         on("new",
            [](FileHandle& handle) {
                auto stream = handle.CreateOutputStream(std::ios_base::binary);
                *stream << 'a' << std::flush;
                stream->write(contents().data(), 3000);
                stream->write(contents().data() + 3000, 3);
                *stream << std::flush;
                bool const isGood = stream->good();
                stream.reset();
                return shown(isGood ? "all" : "failed");
            }),
         {"new"}},
        {"FileHandle::CreateOutputStream, appended",
         "all",
         {memory, any(Call::MALLOC, "failed"), any(Call::OPEN, "failed"),
          any(Call::WRITE, "failed", PARTLY)},
         on("file",
            [](FileHandle& handle) {
                auto stream = handle.CreateOutputStream(std::ios_base::app);
                *stream << "a line" << std::flush;
                bool const isGood = stream->good();
                stream.reset();
                return shown(isGood ? "all" : "failed");
            }),
         {"file"}},
    };
}

}  // namespace ovra::faults
