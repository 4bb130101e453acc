#include "FileSearch.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <system_error>

#include <ovra/fs/FileHandle.h>

#include "Messages.h"
#include "Quote.h"

namespace manifest {

using ovra::fs::FileHandle;
using ovra::fs::FileIterator;

FileSearch::FileSearch(Interrupt const& ctrlC, Progress* shown)
    : interrupt(ctrlC), progress(shown) {}

void FileSearch::leaveOut(std::string const& path) {
    std::size_t const nameBegin = path.rfind('/') + 1;
    std::string const directory = nameBegin == 0 ? "." : path.substr(0, nameBegin);
    struct stat status = {};
    if (stat(directory.c_str(), &status) == 0) {
        leftOut.push_back({status.st_dev, status.st_ino, path.substr(nameBegin)});
    }
}

void FileSearch::leaveOutIf(std::function<bool(std::string const& path)> isKnown) {
    known = std::move(isKnown);
}

void FileSearch::addFilesBelow(std::string const& directory) {
    // A list of what is still to be read, instead of recursion: one directory is open at a time,
    // however deep the tree is.
    std::vector<std::string> pending{directory};
    if (directory.back() == '/') {
        pending.back().pop_back();  // The iterator adds one.
    }
    while (!pending.empty()) {
        std::string const next = std::move(pending.back());
        pending.pop_back();
        readDirectory(next, pending);
    }
}

std::vector<FoundFile> FileSearch::sortedFiles() {
    std::sort(files.begin(), files.end(),
              [](FoundFile const& left, FoundFile const& right) { return left.path < right.path; });
    return std::move(files);
}

bool FileSearch::isComplete() const {
    return complete;
}

void FileSearch::readDirectory(std::string const& directory, std::vector<std::string>& pending) {
    struct stat status = {};
    if (stat((directory + '/').c_str(), &status) == 0 &&
        !visited.insert({status.st_dev, status.st_ino}).second) {
        return;
    }
    FileHandle handle(directory.empty() ? "/" : directory);
    FileIterator entry = handle.Begin();
    if (entry == handle.End()) {
        // Empty, or not to be opened: the iterator does not say which.
        std::string const reason = whyDirectoryNotOpened(handle.Path().Path());
        if (!reason.empty()) {
            failed(directory, reason);
        }
    }
    for (; entry != handle.End() && !interrupt.requested(); ++entry) {
        std::string path = (*entry).Path();
        if (directory.empty()) {
            path.erase(0, 1);  // The root's own separator and the iterator's: "//name".
        }
        if (!isLeftOut(directory, path.substr(path.rfind('/') + 1))) {
            addEntry(path, pending);
        }
    }
}

void FileSearch::addEntry(std::string const& path, std::vector<std::string>& pending) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT) {  // It may have vanished since it was listed.
            failed(path, std::generic_category().message(errno));
        }
        return;
    }
    if (S_ISDIR(status.st_mode)) {
        pending.push_back(path);
    } else if (S_ISREG(status.st_mode) && !(known && known(path))) {
        files.push_back({path, status.st_size});
        if (progress != nullptr) {
            progress->found();
        }
    }
}

bool FileSearch::isLeftOut(std::string const& directory, std::string const& name) const {
    return std::any_of(leftOut.begin(), leftOut.end(), [&](LeftOut const& entry) {
        struct stat status = {};
        return entry.name == name && stat((directory + '/').c_str(), &status) == 0 &&
               entry.device == status.st_dev && entry.inode == status.st_ino;
    });
}

void FileSearch::failed(std::string const& path, std::string const& reason) {
    if (progress != nullptr) {
        progress->hide();
    }
    complain(quoted(path) + ": " + reason);
    complete = false;
}

}  // namespace manifest
