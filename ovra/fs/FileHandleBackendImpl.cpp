#include <ovra/fs/FileHandleBackendImpl.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>

namespace ovra::fs {

namespace {

constexpr unsigned long PERMISSION_BITS = 0777;
constexpr mode_t NEW_DIRECTORY_MODE = 0775;
constexpr std::int64_t SMALLEST_PIECE = 4096;  // of a copy, in bytes
constexpr std::int64_t LARGEST_PIECE = 65536;

// Where an entry lands: inside `target` under its own last component if `target` is a directory,
// and at `target` itself otherwise.
FilePath destinationOf(std::string const& path, FileHandle const& target) {
    FilePath destination = target.Path();
    if (target.IsDirectory()) {
        destination = destination.Resolve(FilePath(path).FileName());
    }
    return destination;
}

}  // namespace

FileHandleBackendImpl::FileHandleBackendImpl(std::string const& entryPath) : path(entryPath) {}

FileHandleBackendImpl::~FileHandleBackendImpl() = default;

void FileHandleBackendImpl::ReadFileStatus() const {
    if (status == nullptr) {
        status = std::make_unique<struct stat>();
    }
    if (::lstat(path.c_str(), status.get()) != 0) {
        status.reset();
        return;
    }
    symbolicLink = S_ISLNK(status->st_mode);
    if (symbolicLink && ::stat(path.c_str(), status.get()) != 0) {
        status.reset();
    }
}

void FileHandleBackendImpl::UpdateFileStatus() {
    status.reset();
}

std::string FileHandleBackendImpl::Path() const {
    return path;
}

bool FileHandleBackendImpl::Exists() const {
    ReadFileStatus();
    return status != nullptr;
}

bool FileHandleBackendImpl::IsFile() const {
    return Exists() && status != nullptr && S_ISREG(status->st_mode);
}

bool FileHandleBackendImpl::IsDirectory() const {
    return Exists() && status != nullptr && S_ISDIR(status->st_mode);
}

bool FileHandleBackendImpl::IsSymbolicLink() const {
    return Exists() && status != nullptr && symbolicLink;
}

std::vector<std::string> FileHandleBackendImpl::ListDirectory() const {
    std::vector<std::string> names;
    for (FileIteratorBackendImpl entry(path); entry.Valid(); entry.Next()) {
        names.push_back(entry.Name());
    }
    return names;
}

std::int64_t FileHandleBackendImpl::Size() const {
    return IsFile() && status != nullptr ? status->st_size : 0;
}

std::int64_t FileHandleBackendImpl::ModificationTime() const {
    return Exists() && status != nullptr ? status->st_mtim.tv_sec : 0;
}

unsigned int FileHandleBackendImpl::UserId() const {
    return Exists() && status != nullptr ? status->st_uid : 0;
}

unsigned int FileHandleBackendImpl::GroupId() const {
    return Exists() && status != nullptr ? status->st_gid : 0;
}

unsigned long FileHandleBackendImpl::Permissions() const {
    return Exists() && status != nullptr ? status->st_mode & PERMISSION_BITS : 0;
}

void FileHandleBackendImpl::SetPermissions(unsigned long permissions) {
    [[maybe_unused]] int const ignored =
        ::chmod(path.c_str(), static_cast<mode_t>(permissions & PERMISSION_BITS));
    UpdateFileStatus();
}

void FileHandleBackendImpl::SetUserId(unsigned int userId) {
    [[maybe_unused]] int const ignored = ::chown(path.c_str(), userId, GroupId());
    UpdateFileStatus();
}

void FileHandleBackendImpl::SetGroupId(unsigned int groupId) {
    [[maybe_unused]] int const ignored = ::chown(path.c_str(), UserId(), groupId);
    UpdateFileStatus();
}

std::unique_ptr<FileHandleBackend> FileHandleBackendImpl::Open(std::string const&) const {
    return nullptr;
}

bool FileHandleBackendImpl::CreateDirectory() {
    if (Exists() || ::mkdir(path.c_str(), NEW_DIRECTORY_MODE) != 0) {
        return false;
    }
    UpdateFileStatus();
    return true;
}

bool FileHandleBackendImpl::RemoveDirectory() {
    if (!Exists()) {
        return true;
    }
    if (::remove(path.c_str()) != 0) {
        return false;
    }
    UpdateFileStatus();
    return true;
}

bool FileHandleBackendImpl::Remove() {
    bool const removable = IsFile() || IsSymbolicLink();
    if (!removable || ::remove(path.c_str()) != 0) {
        return false;
    }
    UpdateFileStatus();
    return true;
}

bool FileHandleBackendImpl::CreateSymbolicLink(FileHandle const& target) {
    if (!Exists()) {
        return false;
    }
    FilePath const targetPath = target.Path();
    std::string const location = target.IsDirectory()
                                     ? targetPath.Resolve(FilePath(path).FileName()).FullPath()
                                     : targetPath.Path();
    return ::symlink(path.c_str(), location.c_str()) == 0;
}

bool FileHandleBackendImpl::Copy(FileHandle const& target) {
    if (!IsFile()) {
        return false;
    }
    std::int64_t const sizeBytes = status != nullptr ? status->st_size : 0;
    FilePath const destination = destinationOf(path, target);

    // The stream buffer reads one byte less than it is given.
    std::int64_t const bufferSize = std::clamp(sizeBytes, SMALLEST_PIECE, LARGEST_PIECE) + 1;
    std::unique_ptr<char[]> const buffer(new char[static_cast<std::size_t>(bufferSize)]);
    std::filebuf input;
    input.pubsetbuf(buffer.get(), static_cast<std::streamsize>(bufferSize));
    bool const isOpen = input.open(path, std::ios_base::in | std::ios_base::binary) != nullptr;

    std::ofstream output;
    output.rdbuf()->pubsetbuf(nullptr, 0);  // Unbuffered: pieces go straight to the file.
    output.open(destination.FullPath(), std::ios_base::out | std::ios_base::binary);

    if (!isOpen || output.fail()) {
        return false;
    }
    output << &input;
    return true;
}

bool FileHandleBackendImpl::Move(FileHandle const& target) {
    if (!Exists()) {
        return false;
    }
    if (::rename(path.c_str(), destinationOf(path, target).FullPath().c_str()) != 0) {
        return false;
    }
    UpdateFileStatus();
    return true;
}

bool FileHandleBackendImpl::Rename(std::string const& name) {
    if (!Exists()) {
        return false;
    }
    std::string newPath = FilePath(path).DirectoryPath() + "/" + name;
    if (::rename(path.c_str(), newPath.c_str()) != 0) {
        return false;
    }
    path = std::move(newPath);
    UpdateFileStatus();
    return true;
}

std::unique_ptr<std::istream> FileHandleBackendImpl::CreateInputStream(
    std::ios_base::openmode mode) const {
    auto stream = std::make_unique<std::ifstream>();
    stream->open(path, mode | std::ios_base::in);
    return stream;
}

std::unique_ptr<std::ostream> FileHandleBackendImpl::CreateOutputStream(
    std::ios_base::openmode mode) const {
    auto stream = std::make_unique<std::ofstream>();
    stream->open(path, mode | std::ios_base::out);
    return stream;
}

}  // namespace ovra::fs
