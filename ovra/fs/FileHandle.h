#pragma once

#include <cstdint>
#include <ios>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <ovra/Export.h>
#include <ovra/fs/FileIterator.h>
#include <ovra/fs/FilePath.h>

namespace ovra::fs {

class FileHandle;

/// What a FileHandle forwards to: one entry of one kind of file system.
///
/// *Ownership*: owned by one FileHandle, which destroys it through this class. Copying the handle
/// does not copy the back end.
///
/// *Threads*: Not thread-safe: the caller synchronises. That includes const use.
///
/// *Failure*: `false`, 0, an empty value or a failed stream.
class OVRA_API FileHandleBackend {
public:
    virtual ~FileHandleBackend();

    /// The entry's path as stored.
    virtual std::string Path() const = 0;
    /// See FileHandle::Exists().
    virtual bool Exists() const = 0;
    /// See FileHandle::IsFile().
    virtual bool IsFile() const = 0;
    /// See FileHandle::IsDirectory().
    virtual bool IsDirectory() const = 0;
    /// See FileHandle::IsSymbolicLink().
    virtual bool IsSymbolicLink() const = 0;
    /// The bare names of the directory's entries.
    virtual std::vector<std::string> ListDirectory() const = 0;
    /// See FileHandle::Size().
    virtual std::int64_t Size() const = 0;
    /// See FileHandle::ModificationTime().
    virtual std::int64_t ModificationTime() const = 0;
    /// A back end for an entry below this one. FileHandle::Open() does not use it.
    virtual std::unique_ptr<FileHandleBackend> Open(std::string const& path) const = 0;
    /// See FileHandle::CreateDirectory().
    virtual bool CreateDirectory() = 0;
    /// See FileHandle::RemoveDirectory().
    virtual bool RemoveDirectory() = 0;
    /// See FileHandle::CreateSymbolicLink().
    virtual bool CreateSymbolicLink(FileHandle const& target) = 0;
    /// See FileHandle::Copy().
    virtual bool Copy(FileHandle const& target) = 0;
    /// See FileHandle::Move().
    virtual bool Move(FileHandle const& target) = 0;
    /// See FileHandle::Rename().
    virtual bool Rename(std::string const& name) = 0;
    /// See FileHandle::Remove().
    virtual bool Remove() = 0;
    /// See FileHandle::UserId().
    virtual unsigned int UserId() const = 0;
    /// See FileHandle::SetUserId().
    virtual void SetUserId(unsigned int userId) = 0;
    /// See FileHandle::GroupId().
    virtual unsigned int GroupId() const = 0;
    /// See FileHandle::SetGroupId().
    virtual void SetGroupId(unsigned int groupId) = 0;
    /// The nine permission bits.
    virtual unsigned long Permissions() const = 0;
    /// See FileHandle::SetPermissions().
    virtual void SetPermissions(unsigned long permissions) = 0;
    /// The stream passes to the caller.
    virtual std::unique_ptr<std::istream> CreateInputStream(std::ios_base::openmode mode) const = 0;
    /// The stream passes to the caller.
    virtual std::unique_ptr<std::ostream> CreateOutputStream(
        std::ios_base::openmode mode) const = 0;
    /// Drops the cached status.
    virtual void UpdateFileStatus() = 0;
};

/// Names one file, directory or symbolic link by its path, and works on it.
///
/// The entry need not exist: it is looked at only when an operation runs, and again for each query.
/// Queries follow symbolic links. They report a dangling link, or a loop of links, as missing, and
/// not as a link.
///
/// *Ownership*: owns its back end. A copy shares nothing with its source: it gets a new POSIX back
/// end on the source's path, whatever the source had. It has no move operations: a move copies.
/// Streams belong to the caller and do not depend on the handle.
///
/// *Threads*: Not thread-safe: the caller synchronises. That includes queries. Distinct handles are
/// independent, also on the same path.
///
/// *Failure*: `false`, 0, an empty value, the end iterator or a stream in the failed state; the
/// reason is not kept, and operations may leave any value in `errno`. Only exhausted memory is
/// reported, as `std::bad_alloc`; an assignment that throws changes nothing. Nothing protects
/// against another process that changes the entries meanwhile.
///
/// *Units*: sizes in bytes, times in whole seconds since the epoch, permissions as the nine bits of
/// octal 0777.
///
/// *Example*:
///
///     FileHandle logs = FileHandle("/data").Open("logs");
///     if (logs.IsDirectory() || logs.CreateDirectory()) {
///         *logs.Open("a.txt").CreateOutputStream(std::ios_base::app) << "line\n";
///     }
class OVRA_API FileHandle {
public:
    /// Keeps the path unchanged and does not touch the file system.
    FileHandle(std::string const& path);  // NOLINT(google-explicit-constructor)

    /// A handle on the path of `other`, with a new POSIX back end.
    FileHandle(FileHandle const& other);
    /// Names the path of `other` from now on, with a new POSIX back end.
    FileHandle& operator=(FileHandle const& other);
    virtual ~FileHandle();

    /// The path as the back end has it.
    FilePath Path() const;
    /// The last component of the path.
    std::string FileName() const;
    /// A handle on the path that results when ".." is appended to this path and folded away,
    /// without asking the disk. The empty path counts as the root:
    ///
    ///     "/a/b" -> "/a"     "name" -> "."      "/" -> "/.."
    ///     "/a"   -> "/"      ".."   -> "../.."  ""  -> "/.."
    FileHandle ParentDirectory() const;
    /// The handle on `path` below this one, or on `path` itself if it is absolute; see
    /// FilePath::Resolve(). Opens nothing and checks nothing. The empty path counts as the root:
    ///
    ///     "/d"  "x"  -> "/d/x"      "/d" "/x" -> "/x"
    ///     "/d/" "x"  -> "/d/x"      ""   "x"  -> "/x"
    FileHandle Open(FilePath const& path) const;
    /// The same for a path given as text.
    FileHandle Open(std::string const& path) const;

    /// The first entry of this directory; equal to End() when there is none or the directory cannot
    /// be read.
    FileIterator Begin() const;
    /// The iterator that every scan ends at, whatever its directory.
    FileIterator End();

    /// Whether the entry, or the target of a link, can be seen.
    bool Exists() const;
    /// Whether this is a regular file, or a link to one.
    bool IsFile() const;
    /// Whether this is a directory, or a link to one.
    bool IsDirectory() const;
    /// True only for a link whose target exists.
    bool IsSymbolicLink() const;
    /// The bare names of the entries, in the system's order, without "." and ".."; empty when the
    /// directory cannot be read.
    std::vector<std::string> ListDirectory() const;
    /// The size of a regular file; 0 for everything else, directories included.
    std::int64_t Size() const;
    /// The time of the last change of the contents; 0 when the entry does not exist.
    std::int64_t ModificationTime() const;

    /// Creates the last component, with mode 0775 less the umask. `false` if the entry exists, even
    /// as a directory.
    bool CreateDirectory();
    /// Removes whatever is here: an empty directory, but also a file, a special file or a link (the
    /// link itself). `true` also when nothing can be seen here: the entry does not exist, is a
    /// dangling link (which stays), or lies in a directory that may not be searched.
    bool RemoveDirectory();
    /// Removes the directory with everything in it, **and empties every directory that a link in it
    /// leads to**, wherever that lies.
    ///
    /// For a link to a directory, the target's contents are removed, then the link; the target
    /// itself stays, empty. For a link to a file, or back to a directory that is already being
    /// emptied, only the link is removed.
    ///
    /// Dangling links, pipes, sockets, devices and links to these stay, and with them the
    /// directories above. The result is then `false`; what could be removed has been removed.
    /// `false` too, and nothing touched, if this is not a directory.
    ///
    /// A directory that is being emptied is not entered again, so that links that lead back up do
    /// not multiply the work. In rare trees with such links, this rule changes what is left. More
    /// may be removed, with `true` where the result would be `false` without the rule. Or a
    /// directory may stay, or a link that dangles by then.
    ///
    /// One directory, and so one file descriptor, is open per level. The limits on descriptors and
    /// on the length of a path limit the depth. What lies deeper stays, with `false`. Each level
    /// also takes up to 1 KiB of the thread's stack. A deep tree can overflow a small stack, which
    /// ends the process.
    bool RemoveDirectoryRecursive();
    /// Makes a link to this entry at `target`. If `target` is a directory, makes the link inside it
    /// under this entry's name. The link's contents are this path as it stands. So the system
    /// resolves a relative path against the directory of the link, not against the current
    /// directory. `false` if this entry does not exist or another entry is already there.
    bool CreateSymbolicLink(FileHandle& target);
    /// Copies a regular file, **with `true` also when the copy lacks bytes at the end**, as after a
    /// short write or on a full disk: `true` says only that both files were opened.
    ///
    /// The bytes (those of a link's target, if that is a regular file) go to `target`. If `target`
    /// is a directory, they go to a file inside it under this entry's name. An existing file is
    /// overwritten in place and keeps its mode and owner; a new one gets neither from the source.
    ///
    /// **Copied onto itself, onto a link to itself or into its own directory, the file ends up
    /// empty, with `true`.** When the source cannot be read, `target` may have been emptied as
    /// well.
    ///
    /// Blocks while `target` is a named pipe that nobody reads. A pipe whose reader has closed it
    /// raises `SIGPIPE`.
    bool Copy(FileHandle& target);
    /// Moves the entry to `target`, replacing a file there. If `target` is a directory, moves the
    /// entry into it under this entry's name. Nothing is moved across file systems. This handle
    /// still names the old path.
    ///
    /// If `target` is another hard link to the same file, nothing moves, and the result is `true`.
    ///
    /// **The name in a target directory is this path's FileName(), resolved against the target.** A
    /// FileName() like "C:" counts as a root, so it means "C:/" in the current directory: a
    /// directory is moved to that path, and for a file the result is `false`. An empty last
    /// component, as in "/a/sub//", names the target directory itself. Copy() and
    /// CreateSymbolicLink() form the name in the same way; their result is `false` for a name like
    /// "C:".
    bool Move(FileHandle& target);
    /// Gives the entry another name in its directory, replacing a file of that name; this handle
    /// then names the new path. `name` is not checked: "/" in it leads into subdirectories, and
    /// ".." leads out of the directory.
    ///
    /// **A relative path of one component goes to the root directory**, because "/" and the name
    /// are added to a directory part that is empty:
    ///
    ///     "/a/f"  "g" -> "/a//g"      "a/f" "g" -> "a//g"      "f" "g" -> "/g"
    bool Rename(std::string const& name);
    /// Removes a regular file or a link that resolves; the link's target stays. `false` for
    /// directories, special files and dangling links, which all stay.
    bool Remove();

    /// The owner; 0, as for root, when the entry does not exist.
    unsigned int UserId() const;
    /// Sets the owner of the entry, or of a link's target. Keeps the group that GroupId() reports,
    /// which is 0 for an entry that cannot be read. If the entry appears after GroupId() has
    /// reported 0, its group becomes 0.
    void SetUserId(unsigned int userId);
    /// The group; 0, as for root, when the entry does not exist.
    unsigned int GroupId() const;
    /// Sets the group of the entry, or of a link's target. Keeps the owner that UserId() reports,
    /// which is 0 for an entry that cannot be read. If the entry appears after UserId() has
    /// reported 0, its owner becomes 0.
    void SetGroupId(unsigned int groupId);
    /// Without the set-user-id, set-group-id and sticky bits.
    unsigned long Permissions() const;
    /// Follows a link to its target. Bits other than the nine are dropped, so a set-user-id,
    /// set-group-id or sticky bit that the entry had is cleared.
    void SetPermissions(unsigned long permissions);

    /// A file stream on the entry, opened with `mode | in`; never null, with failbit set when it
    /// could not be opened. Opening a named pipe blocks until somebody writes to it, or a signal
    /// handler without `SA_RESTART` makes it fail. Programs that the process executes inherit the
    /// descriptor.
    std::unique_ptr<std::istream> CreateInputStream(std::ios_base::openmode mode) const;
    /// A file stream on the entry, opened with `mode | out`; never null, with failbit set when it
    /// could not be opened. A mode of 0 or of binary alone creates the file or empties it. Opening
    /// a named pipe blocks until somebody reads from it, or a signal handler without `SA_RESTART`
    /// makes it fail; writing to a pipe whose reader has closed it raises `SIGPIPE`. Programs that
    /// the process executes inherit the descriptor.
    std::unique_ptr<std::ostream> CreateOutputStream(std::ios_base::openmode mode) const;

    /// Drops the back end's cached status. Queries read it again anyway.
    void UpdateFileStatus();

private:
    friend struct FileHandleTestPeer;

    // Every constructor sets it. Without it, operations do nothing and return false, 0 or empty.
    std::unique_ptr<FileHandleBackend> backend;
};

}  // namespace ovra::fs
