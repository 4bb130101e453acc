#pragma once

#include <cstdint>
#include <ios>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <ovra/Export.h>
#include <ovra/fs/FileHandle.h>

struct stat;

namespace ovra::fs {

/// One file-system entry, reached through the operating system's calls.
///
/// Every query asks the file system, with one `lstat`, and with one `stat` more when the path is a
/// symbolic link. FileHandle says what each operation means to a caller. This class says what a
/// derived back end has to know.
///
/// *Ownership*: owned by one FileHandle, or made directly. Neither copied nor moved.
///
/// *Threads*: Not thread-safe: the caller synchronises. That includes queries, which write the
/// status record. Separate objects on one path are independent.
///
/// *Failure*: `false`, 0, an empty value or a failed stream; the reason is not kept. Only exhausted
/// memory is reported, as `std::bad_alloc`.
///
/// *Units*: bytes, and whole seconds since the epoch.
class OVRA_API FileHandleBackendImpl : public FileHandleBackend {
public:
    /// Keeps the path unchanged and does not touch the file system. The system's calls see the path
    /// up to its first NUL.
    explicit FileHandleBackendImpl(std::string const& entryPath);

    FileHandleBackendImpl(FileHandleBackendImpl const&) = delete;
    FileHandleBackendImpl& operator=(FileHandleBackendImpl const&) = delete;
    ~FileHandleBackendImpl() override;

    std::string Path() const override;
    /// Reads the status. Every other query of the status calls Exists() first, so an override
    /// decides for all of them. If it returns `true`, the query answers from the last status read;
    /// if there is none, with `false` or 0.
    bool Exists() const override;
    /// See FileHandle::IsFile().
    bool IsFile() const override;
    /// See FileHandle::IsDirectory().
    bool IsDirectory() const override;
    /// See FileHandle::IsSymbolicLink().
    bool IsSymbolicLink() const override;
    std::vector<std::string> ListDirectory() const override;
    /// Asks IsFile(), which a derived class may override.
    std::int64_t Size() const override;
    /// See FileHandle::ModificationTime().
    std::int64_t ModificationTime() const override;
    /// Always empty.
    std::unique_ptr<FileHandleBackend> Open(std::string const& path) const override;
    /// See FileHandle::CreateDirectory().
    bool CreateDirectory() override;
    /// See FileHandle::RemoveDirectory().
    bool RemoveDirectory() override;
    /// See FileHandle::CreateSymbolicLink().
    bool CreateSymbolicLink(FileHandle const& target) override;
    /// See FileHandle::Copy().
    bool Copy(FileHandle const& target) override;
    /// See FileHandle::Move().
    bool Move(FileHandle const& target) override;
    /// See FileHandle::Rename().
    bool Rename(std::string const& name) override;
    /// See FileHandle::Remove().
    bool Remove() override;
    /// See FileHandle::UserId().
    unsigned int UserId() const override;
    /// Passes GroupId() as the group.
    void SetUserId(unsigned int userId) override;
    /// See FileHandle::GroupId().
    unsigned int GroupId() const override;
    /// Passes UserId() as the user.
    void SetGroupId(unsigned int groupId) override;
    unsigned long Permissions() const override;
    /// See FileHandle::SetPermissions().
    void SetPermissions(unsigned long permissions) override;
    std::unique_ptr<std::istream> CreateInputStream(std::ios_base::openmode mode) const override;
    std::unique_ptr<std::ostream> CreateOutputStream(std::ios_base::openmode mode) const override;
    void UpdateFileStatus() override;

    /// Reads the status of the entry, or of a link's final target, into the record. If the read
    /// fails, there is no record. The memory of the record is kept and reused until a read fails or
    /// the status is dropped.
    void ReadFileStatus() const;

private:
    std::string path;
    mutable std::unique_ptr<struct stat> status;  // null: no valid status
    mutable bool symbolicLink = false;            // what the last successful lstat found
};

}  // namespace ovra::fs
