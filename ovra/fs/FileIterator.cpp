#include <ovra/fs/FileIterator.h>

#include <string_view>
#include <utility>

#include <dirent.h>

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
    return stream != nullptr && entry != nullptr;
}

std::string FileIteratorBackendImpl::Path() const {
    return directoryPath;
}

int FileIteratorBackendImpl::Index() const {
    return index;
}

std::string FileIteratorBackendImpl::Name() const {
    if (stream == nullptr || entry == nullptr) {
        return std::string();
    }
    return entry->d_name;
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
    auto const isDotOrDotDot = [](std::string_view name) { return name == "." || name == ".."; };
    do {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): the stream is this object's own.
        entry = ::readdir(static_cast<DIR*>(stream.get()));
    } while (entry != nullptr && isDotOrDotDot(entry->d_name));
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
