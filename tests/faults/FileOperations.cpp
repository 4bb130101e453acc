#include <tests/faults/FileOperations.h>

#include <istream>
#include <memory>
#include <ostream>

#include <unistd.h>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>

namespace ovra::faults {

namespace {

using fs::FileHandle;
using fs::FileHandleBackendImpl;
using fs::FileIterator;
using fs::FilePath;

// Too long for a string to keep within itself.
char const LONG_PATH[] = "/the/first/part of a long path/and the second.with.extension";

template <typename Use>
std::function<Action()> onPath(Use use) {
    return [use] {
        auto const path = std::make_shared<FilePath>(LONG_PATH);
        return Action([path, use] { return use(*path); });
    };
}

template <typename Use>
std::function<Action()> onIterator(char const* entry, Use use) {
    return [entry, use] {
        auto const iterator = std::make_shared<FileIterator>(tree().at(entry));
        return Action([iterator, use] { return use(*iterator); });
    };
}

std::string scan(FileIterator& entry) {
    int entries = 0;
    FileIterator const end;
    for (; entry != end; ++entry) {
        ++entries;
    }
    return shown(entries);
}

std::vector<Operation> pathOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    return {
        {"FilePath(string)",
         "true",
         {memory},
         [] {
             auto const text = std::make_shared<std::string>(LONG_PATH);
             return Action([text] {
                 FilePath const path(*text);
                 return shown(path.Path() == *text);
             });
         }},
        {"FilePath(FilePath)", "true", {memory}, onPath([](FilePath& path) {
             FilePath const copy(path);
             return shown(copy.Path() == path.Path());
         })},
        {"FilePath::operator=", "true", {memory}, onPath([](FilePath& path) {
             FilePath other;
             other = path;
             return shown(other.Path() == path.Path());
         })},
        {"FilePath::SetPath",
         "true",
         {memory},
         [] {
             auto const path = std::make_shared<FilePath>("/short");
             auto const text = std::make_shared<std::string>(LONG_PATH);
             return Action([path, text] {
                 path->SetPath(*text);
                 return shown(path->FileName() == "and the second.with.extension");
             });
         }},
        {"FilePath::Cache", "true", {memory}, onPath([](FilePath& path) {
             path.Cache();
             return shown(path.Extension() == ".with.extension");
         })},
        {"FilePath::FullPath", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.FullPath() == LONG_PATH);
         })},
        {"FilePath::FileName", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.FileName() == "and the second.with.extension");
         })},
        {"FilePath::FileBaseName", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.FileBaseName() == "and the second");
         })},
        {"FilePath::Extension", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.Extension() == ".with.extension");
         })},
        {"FilePath::DirectoryPath", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.DirectoryPath() == "/the/first/part of a long path/");
         })},
        {"FilePath::DriveLetter", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.DriveLetter().empty());
         })},
        {"FilePath::IsAbsolute", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.IsAbsolute());
         })},
        {"FilePath::IsRelative", "false", {memory}, onPath([](FilePath& path) {
             return shown(path.IsRelative());
         })},
        {"FilePath::Resolve(string)",
         "true",
         {memory},
         [] {
             auto const path = std::make_shared<FilePath>(LONG_PATH);
             auto const text = std::make_shared<std::string>("a name that is long, too");
             return Action([path, text] { return shown(!path->Resolve(*text).IsEmpty()); });
         }},
        {"FilePath::Resolve(FilePath)", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.Resolve(path).Path() == LONG_PATH);
         })},
        {"FilePath::Resolved", "true", {memory}, onPath([](FilePath& path) {
             return shown(path.Resolved() == LONG_PATH);
         })},
    };
}

// Queries of a link, which read the status twice.
Operation query(char const* name, std::string const& result, std::string const& failed,
                std::function<std::string(FileHandle&)> const& ask) {
    static std::vector<std::string> kept;  // Rules point at their results.
    kept.reserve(64);
    kept.push_back(failed);
    char const* const text = kept.back().c_str();
    return {name,
            result,
            {any(Call::NEW, OUT_OF_MEMORY), any(Call::LSTAT, text), any(Call::STAT, text)},
            on("link", ask),
            {"nothing"}};
}

std::vector<Operation> queryOperations() {
    std::string const user = std::to_string(geteuid());
    std::string const group = std::to_string(getegid());
    return {
        query("FileHandle::Exists", "true", "false",
              [](FileHandle& handle) { return shown(handle.Exists()); }),
        query("FileHandle::IsFile", "true", "false",
              [](FileHandle& handle) { return shown(handle.IsFile()); }),
        {"FileHandle::IsDirectory",
         "true",
         {any(Call::NEW, OUT_OF_MEMORY), any(Call::LSTAT, "false"), any(Call::STAT, "false")},
         on("directoryLink", [](FileHandle& handle) { return shown(handle.IsDirectory()); }),
         {"nothing"}},
        query("FileHandle::IsSymbolicLink", "true", "false",
              [](FileHandle& handle) { return shown(handle.IsSymbolicLink()); }),
        query("FileHandle::Size", std::to_string(contents().size()), "0",
              [](FileHandle& handle) { return shown(static_cast<long long>(handle.Size())); }),
        query("FileHandle::ModificationTime", "true", "false",
              [](FileHandle& handle) { return shown(handle.ModificationTime() > 0); }),
        query("FileHandle::UserId", user, "0",
              [](FileHandle& handle) { return shown(static_cast<long long>(handle.UserId())); }),
        query("FileHandle::GroupId", group, "0",
              [](FileHandle& handle) { return shown(static_cast<long long>(handle.GroupId())); }),
        query(
            "FileHandle::Permissions", std::to_string(0644), "0",
            [](FileHandle& handle) { return shown(static_cast<long long>(handle.Permissions())); }),
        {"FileHandleBackendImpl::ReadFileStatus",
         "read",
         {any(Call::NEW, OUT_OF_MEMORY)},
         [] {
             auto const backend = std::make_shared<FileHandleBackendImpl>(tree().at("link"));
             return Action([backend] {
                 backend->ReadFileStatus();
                 return shown("read");
             });
         },
         {"nothing"}},
        {"FileHandleBackendImpl::Open",
         "true",
         {},
         [] {
             auto const backend = std::make_shared<FileHandleBackendImpl>(tree().at("directory"));
             auto const name = std::make_shared<std::string>("first");
             return Action([backend, name] { return shown(backend->Open(*name) == nullptr); });
         }},
    };
}

std::vector<Operation> fileHandleOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    return {
        {"FileHandle(string)",
         "true",
         {memory},
         [] {
             auto const text = std::make_shared<std::string>(LONG_PATH);
             return Action([text] {
                 FileHandle const handle(*text);
                 return shown(handle.Path().Path() == *text);
             });
         }},
        {"FileHandle(FileHandle)",
         "true",
         {memory},
         on("file",
            [](FileHandle& handle) {
                FileHandle const copy(handle);
                return shown(copy.Path().Path() == handle.Path().Path());
            })},
        {"FileHandle::operator=",
         "true",
         {memory},
         onTwo("file", "empty",
               [](FileHandle& handle, FileHandle& other) {
                   handle = other;
                   return shown(handle.Path().Path() == other.Path().Path());
               })},
        {"FileHandle::Path",
         "false",
         {memory},
         on("file", [](FileHandle& handle) { return shown(handle.Path().IsEmpty()); })},
        {"FileHandle::FileName",
         "file",
         {memory},
         on("file", [](FileHandle& handle) { return shown(handle.FileName()); })},
        {"FileHandle::ParentDirectory",
         "true",
         {memory},
         on("file",
            [](FileHandle& handle) {
                FileHandle const parent = handle.ParentDirectory();
                return shown(parent.Path().Path() + "/file" == handle.Path().Path());
            })},
        {"FileHandle::Open(string)",
         "true",
         {memory},
         [] {
             auto const handle = std::make_shared<FileHandle>(tree().at("directory"));
             auto const name = std::make_shared<std::string>("first");
             return Action([handle, name] {
                 FileHandle const opened = handle->Open(*name);
                 disarm();
                 return shown(opened.Path().Path() == tree().at("directory/first"));
             });
         }},
        {"FileHandle::Open(FilePath)",
         "true",
         {memory},
         [] {
             auto const handle = std::make_shared<FileHandle>(tree().at("directory"));
             auto const name = std::make_shared<FilePath>("first");
             return Action([handle, name] {
                 FileHandle const opened = handle->Open(*name);
                 disarm();
                 return shown(opened.Path().Path() == tree().at("directory/first"));
             });
         }},
        {"FileHandle::UpdateFileStatus",
         "updated",
         {},
         on("file",
            [](FileHandle& handle) {
                handle.UpdateFileStatus();
                return shown("updated");
            })},
    };
}

// A reading that fails looks like the end: what was read before stays.
std::vector<Operation> iterationOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    return {
        {"FileHandle::Begin",
         "false",
         {memory, any(Call::MALLOC, "true"), any(Call::OPENDIR, "true"),
          any(Call::READDIR, "false|true")},
         on("directory",
            [](FileHandle& handle) {
                FileIterator const begin = handle.Begin();
                FileIterator const end = handle.End();
                return shown(begin == end);
            }),
         {"nothing"}},
        {"FileHandle::ListDirectory",
         "[first inner second]",
         {memory, any(Call::MALLOC, "[]"), any(Call::OPENDIR, "[]"),
          any(Call::READDIR,
              "[]|[first]|[inner]|[second]|[first inner]|[first second]|[inner second]|"
              "[first inner second]")},
         on("directory", [](FileHandle& handle) { return shown(handle.ListDirectory()); }),
         {"nothing"}},
        {"FileIterator(string), scanned",
         "3",
         {memory, any(Call::MALLOC, "0"), any(Call::OPENDIR, "0"), any(Call::READDIR, "0|1|2|3")},
         [] {
             auto const path = std::make_shared<std::string>(tree().at("directory"));
             return Action([path] {
                 FileIterator entry(*path);
                 return scan(entry);
             });
         },
         {"nothing"}},
        {"FileIterator(FileIterator), scanned",
         "3",
         {memory, any(Call::MALLOC, "0"), any(Call::OPENDIR, "0"), any(Call::READDIR, "0|1|2|3")},
         onIterator("directory",
                    [](FileIterator& entry) {
                        FileIterator copy(entry);
                        return scan(copy);
                    }),
         {"nothing"}},
        {"FileIterator::operator=",
         "3",
         {memory, any(Call::MALLOC, "0"), any(Call::OPENDIR, "0"), any(Call::READDIR, "0|1|2|3")},
         onIterator("directory",
                    [](FileIterator& entry) {
                        FileIterator other;
                        other = entry;
                        return scan(other);
                    }),
         {"nothing"}},
        {"FileIterator::operator*",
         "false",
         {memory},
         onIterator("directory", [](FileIterator& entry) { return shown((*entry).IsEmpty()); }),
         {"nothing"}},
        {"FileIterator::operator==",
         "true",
         {memory},
         onIterator("directory", [](FileIterator& entry) { return shown(entry == entry); }),
         {"nothing"}},
    };
}

}  // namespace

std::vector<Operation> fileOperations() {
    std::vector<Operation> operations;
    for (auto const& some : {pathOperations(), fileHandleOperations(), queryOperations(),
                             iterationOperations(), changeOperations(), streamOperations()}) {
        operations.insert(operations.end(), some.begin(), some.end());
    }
    return operations;
}

}  // namespace ovra::faults
