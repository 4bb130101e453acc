#pragma once

#include <memory>
#include <typeinfo>
#include <utility>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileHandleBackendImpl.h>
#include <ovra/fs/FileIterator.h>

namespace ovra::fs {

/// Reaches the back end of a handle, which the public interface always sets and never shows.
struct FileHandleTestPeer {
    static void install(FileHandle& handle, std::unique_ptr<FileHandleBackend> backend) {
        handle.backend = std::move(backend);
    }
    static FileHandleBackend* backendOf(FileHandle const& handle) { return handle.backend.get(); }
};

inline bool hasPosixBackend(FileHandle const& handle) {
    FileHandleBackend const* const backend = FileHandleTestPeer::backendOf(handle);
    return backend != nullptr && typeid(*backend) == typeid(FileHandleBackendImpl);
}

/// The same for an iterator.
struct FileIteratorTestPeer {
    static void install(FileIterator& iterator, std::unique_ptr<FileIteratorBackend> backend) {
        iterator.backend = std::move(backend);
    }
    static FileIteratorBackend* backendOf(FileIterator const& iterator) {
        return iterator.backend.get();
    }
};

inline FileIteratorBackend const& backendOf(FileIterator const& iterator) {
    return *FileIteratorTestPeer::backendOf(iterator);
}

inline bool hasPosixBackend(FileIterator const& iterator) {
    FileIteratorBackend const& backend = backendOf(iterator);
    return typeid(backend) == typeid(FileIteratorBackendImpl);
}

}  // namespace ovra::fs
