#pragma once

#include <string>

#include <ovra/Export.h>

namespace ovra::fs {

/// A path as text: kept exactly as supplied, split into components when one is first asked for.
///
/// "/" is the only separator; a backslash is an ordinary character. A first component of exactly
/// two characters whose second is ":" counts as a root, so a file that is really named "C:" or "1:"
/// makes an absolute path: write "./C:" for it. A longer first component ("C:x") is an ordinary
/// name.
///
/// *Ownership*: a value that shares nothing with its copies.
///
/// *Threads*: Not thread-safe: the caller synchronises. That includes const use, because the first
/// query for a component stores all of them in the object. Distinct objects are independent.
///
/// *Failure*: every string is a valid path and nothing here touches the file system. Only exhausted
/// memory is reported, as `std::bad_alloc`; the object then still holds its path, and a later query
/// can succeed.
///
/// *Example*: the components of a path, where separators collapse and a trailing one is dropped.
///
///     path                 -> directory   file name   base name  extension full path
///     ""                   -> ""          ""          ""         ""        ""
///     "/"                  -> "/"         "/"         "/"        ""        "/"
///     "C:"                 -> "C:/"       "C:/"       "C:/"      ""        "C:/"
///     "file.txt"           -> ""          "file.txt"  "file"     ".txt"    "file.txt"
///     "/usr/lib/libx.so.1" -> "/usr/lib/" "libx.so.1" "libx"     ".so.1"   "/usr/lib/libx.so.1"
///     "a/b/"               -> "a/"        "b"         "b"        ""        "a/b"
///     "a/b//"              -> "a/b/"      ""          ""         ""        "a/b/"
///     "//a//b"             -> "/a/"       "b"         "b"        ""        "/a/b"
///     "C:/dir/x.y"         -> "C:/dir/"   "x.y"       "x"        ".y"      "C:/dir/x.y"
///     ".profile"           -> ""          ".profile"  ".profile" ""        ".profile"
///     "..hidden"           -> ""          "..hidden"  "."        ".hidden" "..hidden"
///     "dir/.."             -> "dir/"      ".."        ".."       ""        "dir/.."
///     "x."                 -> ""          "x."        "x"        "."       "x."
///     "./a"                -> "./"        "a"         "a"        ""        "./a"
class OVRA_API FilePath {
public:
    /// The empty path.
    FilePath();
    /// Stores `text` unchanged; nothing is checked or normalised.
    FilePath(std::string const& text);  // NOLINT(google-explicit-constructor)

    /// The same path; the two share nothing.
    FilePath(FilePath const& other);
    /// Copies the path of `other`. References returned earlier change as SetPath() says.
    FilePath& operator=(FilePath const& other);
    ~FilePath();

    /// Replaces the path. A reference returned by Path() changes at once; a reference to a
    /// component, the full path included, keeps its text until the next query for a component.
    void SetPath(std::string const& newPath);

    /// `other` below this path, or `other` itself if it is absolute. Nothing is normalised and the
    /// disk is not asked. An empty base acts as the root.
    ///
    ///     "/data"  "logs/a.txt" -> "/data/logs/a.txt"
    ///     "/data/" "a"          -> "/data/a"
    ///     "/data"  "/tmp/x"     -> "/tmp/x"
    ///     "/data"  "C:/x"       -> "C:/x"
    ///     "/data"  ""           -> "/data/"
    ///     ""       "a"          -> "/a"
    ///     "/a/b"   ".."         -> "/a/b/.."
    FilePath Resolve(std::string const& other) const;
    /// The same, for the path of `other` as supplied.
    FilePath Resolve(FilePath const& other) const;

    /// The path as text with "." and ".." folded away, without asking the disk: where a directory
    /// is a symbolic link, the folded path may name another entry. A ".." with nothing left to fold
    /// is kept, directly under the root too. The empty name between doubled separators is a name
    /// like any other: it is kept, and ".." folds it. As the first name of the result it makes the
    /// result absolute.
    ///
    ///     "/a/b/../c" -> "/a/c"      "/../x"     -> "/../x"     ""        -> "."
    ///     "./a/./b"   -> "a/b"       "../a"      -> "../a"      "."       -> "."
    ///     "/a/b/.."   -> "/a"        "a/../../b" -> "../b"      "a/.."    -> "."
    ///     "a/b/"      -> "a/b"       "a//b"      -> "a//b"      "/"       -> "/"
    ///     "C:/x/../y" -> "C:/y"      "a//../b"   -> "a/b"       "C:"      -> "C:/"
    ///     "//a"       -> "//a"       "a/..//b"   -> "/b"        "/.."     -> "/.."
    std::string Resolved() const;

    /// Splits the path now, unless that has been done since it was last set.
    void Cache() const;

    /// The path as supplied.
    std::string const& Path() const;
    /// Whether the path as supplied is "".
    bool IsEmpty() const;
    /// Whether the text as supplied ends with "/", although the components drop it:
    /// "a/b/" -> true, with the file name "b".
    bool EndingSeparator() const;

    // The references below are valid as long as the object; see SetPath() for when they change.

    /// The directory path followed by the file name.
    std::string const& FullPath() const;
    /// The last component: "/" for the root, and empty after a doubled separator at the end.
    std::string const& FileName() const;
    /// The file name without its extension.
    std::string const& FileBaseName() const;
    /// From the first "." of the file name to its end; a "." in the first position does not count.
    std::string const& Extension() const;
    /// Every component but the last, each followed by "/".
    std::string const& DirectoryPath() const;
    /// Always empty; a drive shows as the first part of the directory path.
    std::string const& DriveLetter() const;
    /// Whether the path begins with "/" or with a two-character drive:
    /// "C:" -> true, "1:/y" -> true, "C:x/y" -> false.
    bool IsAbsolute() const;
    /// The opposite of IsAbsolute(), so true for "".
    bool IsRelative() const;

private:
    FilePath Join(std::string const& other) const;

    // All but `path` are computed from it by Cache(), and mean nothing until `cacheValid` is set.
    mutable bool cacheValid = false;
    mutable std::string fullPath;
    mutable std::string fileName;
    mutable std::string fileBaseName;
    mutable std::string extension;
    mutable std::string directoryPath;
    mutable std::string driveLetter;  // Always empty.
    mutable bool absolute = false;
    std::string path;
};

}  // namespace ovra::fs
