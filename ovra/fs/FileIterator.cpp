#include <ovra/fs/FileIterator.h>

#include <utility>

#include <dirent.h>

#include <ovra/fs/internal/DirectoryStream.h>

namespace ovra::fs {

FileIteratorBackend::~FileIteratorBackend() = default;

void FileIteratorBackendImpl::StreamCloser::operator()(void* opened) const {
    ::closedir(static_cast<DIR*>(opened));
}

FileIteratorBackendImpl::FileIteratorBackendImpl(std::string const& path) : directoryPath(path) {
    stream.reset(::opendir(directoryPath.c_str()));
    FileIteratorBackendImpl::Next();
}

FileIteratorBackendImpl::~FileIteratorBackendImpl() = default;

bool FileIteratorBackendImpl::Valid() const {
    return entry != nullptr;  // Always null without a stream.
}

std::string FileIteratorBackendImpl::Path() const {
    return directoryPath;
}

int FileIteratorBackendImpl::Index() const {
    return index;
}

std::string FileIteratorBackendImpl::Name() const {
    return entry != nullptr ? std::string(entry->d_name) : std::string();
}

void FileIteratorBackendImpl::Next() {
    if (stream == nullptr) {
        return;
    }
    bool const exhausted = index >= 0 && entry == nullptr;
    ++index;
    if (exhausted) {
        return;
    }
    entry = internal::readEntry(static_cast<DIR*>(stream.get()));
}

FileIterator::FileIterator() = default;

FileIterator::FileIterator(std::string const& directoryPath)
    : backend(std::make_unique<FileIteratorBackendImpl>(directoryPath)) {}

FileIterator::FileIterator(FileIterator const& other)
    : backend(std::make_unique<FileIteratorBackendImpl>((*other).DirectoryPath())) {}

FileIterator& FileIterator::operator=(FileIterator const& other) {
    std::unique_ptr<FileIteratorBackend> fresh;
    if (other.backend != nullptr) {
        fresh = std::make_unique<FileIteratorBackendImpl>((*other).DirectoryPath());
    }
    backend.swap(fresh);
    return *this;
}

FileIterator::~FileIterator() = default;

void FileIterator::operator++() {
    if (backend != nullptr) {
        backend->Next();
    }
}

FilePath FileIterator::operator*() const {
    if (backend == nullptr) {
        return FilePath();
    }
    return FilePath(backend->Path() + "/" + backend->Name());
}

bool FileIterator::operator==(FileIterator const& other) const {
    bool const valid = backend != nullptr && backend->Valid();
    bool const otherValid = other.backend != nullptr && other.backend->Valid();
    if (!valid || !otherValid) {
        return valid == otherValid;
    }
    return backend->Index() == other.backend->Index() && backend->Path() == other.backend->Path();
}

bool FileIterator::operator!=(FileIterator const& other) const {
    return !(*this == other);
}

}  // namespace ovra::fs
