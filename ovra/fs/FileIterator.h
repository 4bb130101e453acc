#pragma once

#include <memory>
#include <string>

#include <ovra/Export.h>
#include <ovra/fs/FilePath.h>

struct dirent;

namespace ovra::fs {

/// The interface through which a FileIterator reads one directory once.
///
/// *Ownership*: held and destroyed by one FileIterator.
///
/// *Threads*: Not thread-safe: the caller synchronises.
class OVRA_API FileIteratorBackend {
public:
    virtual ~FileIteratorBackend();

    /// Whether the iterator stands on an entry.
    virtual bool Valid() const = 0;
    /// The path of the directory being read, not of the entry.
    virtual std::string Path() const = 0;
    /// The ordinal of the current entry, counted from 0.
    virtual int Index() const = 0;
    /// The bare name of the current entry.
    virtual std::string Name() const = 0;
    /// Advances to the next entry.
    virtual void Next() = 0;
};

/// Reads one directory of the operating system, in the system's order, without "." and "..".
///
/// *Ownership*: holds one open directory stream (one file descriptor) from construction to
/// destruction.
///
/// *Threads*: Not thread-safe: the caller synchronises.
///
/// *Failure*: if the directory cannot be opened, Valid() is always `false` and Index() stays -1;
/// the reason is not kept. A read that fails midway looks like the end.
class OVRA_API FileIteratorBackendImpl : public FileIteratorBackend {
public:
    /// Opens the directory and stands on its first entry, if there is one.
    explicit FileIteratorBackendImpl(std::string const& path);

    FileIteratorBackendImpl(FileIteratorBackendImpl const&) = delete;
    FileIteratorBackendImpl& operator=(FileIteratorBackendImpl const&) = delete;
    ~FileIteratorBackendImpl() override;

    bool Valid() const override;
    /// The path as the constructor received it.
    std::string Path() const override;
    /// 0 on the first entry and one more per Next(); at the end the number of entries delivered. It
    /// keeps rising when Next() is called after the end.
    int Index() const override;
    /// "" when there is no current entry.
    std::string Name() const override;
    /// Once the end is reached it stays reached, even if entries are added later.
    void Next() override;

private:
    struct StreamCloser {
        void operator()(void* opened) const;
    };

    std::unique_ptr<void, StreamCloser> stream;
    struct dirent* entry =
        nullptr;  // belongs to `stream`; null before the first read and at the end
    std::string directoryPath;
    int index = -1;
};

/// Scans the entries of one directory.
///
/// An iterator stands on an entry, or it is at the end. It is at the end if it is exhausted, could
/// not open its directory or was default-constructed; all of these compare equal.
///
/// **Copying starts over.** A copy opens the directory part of the source's current entry and
/// stands on its first entry, whatever the position of the source. So:
///
///     source                             -> copy
///     on any entry of "/x/y"             -> the first entry of "/x/y/" (it keeps this "/")
///     on any entry of "/x/y/"            -> the first entry of "/x/y/"
///     exhausted or unopened, on "/x/y"   -> the first entry of the parent, "/x/"
///     exhausted or unopened, on "/x/y/"  -> the first entry of "/x/y/"
///     exhausted or unopened, on "y"      -> the end
///     unopened, on ""                    -> the first entry of the root, "/"
///     the end, default-constructed       -> copied: the end, unopened, on ""
///                                           assigned: the end, default-constructed
///
/// Paths are compared as text, so a copy of an iterator over "/x/y" never equals its source.
///
/// *Ownership*: owns its directory stream, and with it one file descriptor. It has no move
/// operations: a move copies.
///
/// *Threads*: Not thread-safe: the caller synchronises.
///
/// *Failure*: a directory that cannot be opened looks like an empty one. Only exhausted memory is
/// reported, as `std::bad_alloc`; an assignment that throws changes nothing.
///
/// Entries may be added and removed during the scan; whether the scan sees them is up to the
/// system.
///
/// *Example*:
///
///     FileHandle directory("/data");
///     for (FileIterator entry = directory.Begin(); entry != directory.End(); ++entry) {
///         use((*entry).FileName());
///     }
class OVRA_API FileIterator {
public:
    /// The end.
    FileIterator();
    /// Stands on the first entry of the directory.
    FileIterator(std::string const& directoryPath);  // NOLINT(google-explicit-constructor)

    /// Opens the source's directory once more: see the class comment.
    FileIterator(FileIterator const& other);
    /// As copy construction, but a default-constructed source makes this the default-constructed
    /// end. An iterator that is assigned to itself starts over by the same rule.
    FileIterator& operator=(FileIterator const& other);
    ~FileIterator();

    /// Advances to the next entry; does nothing at a default-constructed end.
    void operator++();

    /// The current entry as directory, "/", name. At the end: the directory path followed by "/",
    /// or the empty path when default-constructed.
    FilePath operator*() const;

    /// Whether both are at the end, or both stand on an entry with the same directory path, as
    /// text, and the same ordinal.
    bool operator==(FileIterator const& other) const;
    /// The opposite of `==`.
    bool operator!=(FileIterator const& other) const;

private:
    friend struct FileIteratorTestPeer;

    std::unique_ptr<FileIteratorBackend> backend;  // null: the end
};

}  // namespace ovra::fs
