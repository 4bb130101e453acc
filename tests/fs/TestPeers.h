#pragma once

#include <memory>
#include <utility>

#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FileIterator.h>

namespace ovra::fs {

/// Reaches the back end of a handle, which the public interface always sets and never shows.
struct FileHandleTestPeer {
    static void install(FileHandle& handle, std::unique_ptr<FileHandleBackend> backend) {
        handle.backend = std::move(backend);
    }
    static FileHandleBackend* backendOf(FileHandle const& handle) { return handle.backend.get(); }
};

/// The same for an iterator.
struct FileIteratorTestPeer {
    static void install(FileIterator& iterator, std::unique_ptr<FileIteratorBackend> backend) {
        iterator.backend = std::move(backend);
    }
    static FileIteratorBackend* backendOf(FileIterator const& iterator) {
        return iterator.backend.get();
    }
};

}  // namespace ovra::fs
