#include <ovra/fs/FileHandle.h>

#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/internal/TreeRemoval.h>

namespace ovra::fs {

FileHandleBackend::~FileHandleBackend() = default;

FileHandle::FileHandle(std::string const& path)
    : backend(std::make_unique<FileHandleBackendImpl>(path)) {}

FileHandle::FileHandle(FileHandle const& other)
    : backend(std::make_unique<FileHandleBackendImpl>(other.Path().Path())) {}

FileHandle& FileHandle::operator=(FileHandle const& other) {
    std::unique_ptr<FileHandleBackend> fresh =
        std::make_unique<FileHandleBackendImpl>(other.Path().Path());
    backend.swap(fresh);
    return *this;
}

FileHandle::~FileHandle() = default;

FilePath FileHandle::Path() const {
    if (backend == nullptr) {
        return FilePath();
    }
    return FilePath(backend->Path());
}

std::string FileHandle::FileName() const {
    return Path().FileName();
}

FileHandle FileHandle::ParentDirectory() const {
    if (backend == nullptr) {
        return FileHandle(std::string());
    }
    return FileHandle(Path().Resolve("..").Resolved());
}

FileHandle FileHandle::Open(FilePath const& path) const {
    return FileHandle(Path().Resolve(path).Path());
}

FileHandle FileHandle::Open(std::string const& path) const {
    return FileHandle(Path().Resolve(path).Path());
}

FileIterator FileHandle::Begin() const {
    if (backend == nullptr) {
        return FileIterator();
    }
    return FileIterator(backend->Path());
}

FileIterator FileHandle::End() {
    return FileIterator();
}

bool FileHandle::Exists() const {
    return backend != nullptr && backend->Exists();
}

bool FileHandle::IsFile() const {
    return backend != nullptr && backend->IsFile();
}

bool FileHandle::IsDirectory() const {
    return backend != nullptr && backend->IsDirectory();
}

bool FileHandle::IsSymbolicLink() const {
    return backend != nullptr && backend->IsSymbolicLink();
}

std::vector<std::string> FileHandle::ListDirectory() const {
    return backend != nullptr ? backend->ListDirectory() : std::vector<std::string>();
}

std::int64_t FileHandle::Size() const {
    return backend != nullptr ? backend->Size() : 0;
}

std::int64_t FileHandle::ModificationTime() const {
    return backend != nullptr ? backend->ModificationTime() : 0;
}

bool FileHandle::CreateDirectory() {
    return backend != nullptr && backend->CreateDirectory();
}

bool FileHandle::RemoveDirectory() {
    return backend != nullptr && backend->RemoveDirectory();
}

bool FileHandle::RemoveDirectoryRecursive() {
    if (!IsDirectory()) {
        return false;
    }
    internal::emptyDirectory(backend->Path());
    return RemoveDirectory();
}

bool FileHandle::CreateSymbolicLink(FileHandle& target) {
    return backend != nullptr && backend->CreateSymbolicLink(target);
}

bool FileHandle::Copy(FileHandle& target) {
    return backend != nullptr && backend->Copy(target);
}

bool FileHandle::Move(FileHandle& target) {
    return backend != nullptr && backend->Move(target);
}

bool FileHandle::Rename(std::string const& name) {
    return backend != nullptr && backend->Rename(name);
}

bool FileHandle::Remove() {
    return backend != nullptr && backend->Remove();
}

unsigned int FileHandle::UserId() const {
    return backend != nullptr ? backend->UserId() : 0;
}

void FileHandle::SetUserId(unsigned int userId) {
    if (backend != nullptr) {
        backend->SetUserId(userId);
    }
}

unsigned int FileHandle::GroupId() const {
    return backend != nullptr ? backend->GroupId() : 0;
}

void FileHandle::SetGroupId(unsigned int groupId) {
    if (backend != nullptr) {
        backend->SetGroupId(groupId);
    }
}

unsigned long FileHandle::Permissions() const {
    return backend != nullptr ? backend->Permissions() : 0;
}

void FileHandle::SetPermissions(unsigned long permissions) {
    if (backend != nullptr) {
        backend->SetPermissions(permissions);
    }
}

std::unique_ptr<std::istream> FileHandle::CreateInputStream(std::ios_base::openmode mode) const {
    return backend != nullptr ? backend->CreateInputStream(mode) : nullptr;
}

std::unique_ptr<std::ostream> FileHandle::CreateOutputStream(std::ios_base::openmode mode) const {
    return backend != nullptr ? backend->CreateOutputStream(mode) : nullptr;
}

void FileHandle::UpdateFileStatus() {
    if (backend != nullptr) {
        backend->UpdateFileStatus();
    }
}

}  // namespace ovra::fs
