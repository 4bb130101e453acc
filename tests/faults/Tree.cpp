#include <tests/faults/Tree.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace ovra::faults {

namespace {

void require(bool succeeded, char const* what) {
    if (!succeeded) {
        std::perror(what);
        std::abort();
    }
}

void write(std::string const& path, std::string const& text) {
    int const descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    require(descriptor >= 0, path.c_str());
    require(::write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
            path.c_str());
    close(descriptor);
}

std::string read(std::string const& path) {
    int const descriptor = open(path.c_str(), O_RDONLY);
    require(descriptor >= 0, path.c_str());
    std::string text(1 << 16, '\0');
    ssize_t const length = ::read(descriptor, text.data(), text.size());
    close(descriptor);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

template <typename Visitor>
void forEach(std::string const& directory, Visitor visit) {
    DIR* const stream = opendir(directory.c_str());
    require(stream != nullptr, directory.c_str());
    while (struct dirent const* const entry = readdir(stream)) {
        std::string const name = entry->d_name;
        if (name != "." && name != "..") {
            visit(name);
        }
    }
    closedir(stream);
}

mode_t modeOf(std::string const& path) {
    struct stat status = {};
    require(lstat(path.c_str(), &status) == 0, path.c_str());
    return status.st_mode;
}

void removeAll(std::string const& path) {
    if (S_ISDIR(modeOf(path))) {
        forEach(path, [&](std::string const& name) { removeAll(path + "/" + name); });
    }
    require(std::remove(path.c_str()) == 0, path.c_str());
}

void describe(std::string const& root, std::string const& within,
              std::map<std::string, std::string>& entries) {
    forEach(root + within, [&](std::string const& name) {
        std::string const entry = within + "/" + name;
        std::string const path = root + entry;
        struct stat status = {};
        require(lstat(path.c_str(), &status) == 0, path.c_str());
        std::string text = std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) +
                           " " + std::to_string(status.st_gid) + " ";
        if (S_ISLNK(status.st_mode)) {
            char target[512];
            ssize_t const length = readlink(path.c_str(), target, sizeof target);
            text.append(target, length > 0 ? static_cast<std::size_t>(length) : 0);
        } else if (S_ISREG(status.st_mode)) {
            text += read(path);
        }
        entries[entry.substr(1)] = text;
        if (S_ISDIR(status.st_mode)) {
            describe(root, entry, entries);
        }
    });
}

}  // namespace

std::string const& contents() {
    static std::string const text = [] {
        std::string made;
        for (int i = 0; i < 1500; ++i) {
            made += std::to_string(i) + " ";
        }
        return made;
    }();
    return text;
}

Tree::Tree() {
    // In memory if possible: it is rebuilt some thousand times.
    char const* base = std::getenv("TMPDIR");
    if (base == nullptr || *base == '\0') {
        base = access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
    }
    root = std::string(base) + "/ovra-faults-XXXXXX";
    require(mkdtemp(root.data()) != nullptr, "mkdtemp");
    umask(022);
}

Tree::~Tree() {
    removeAll(root);
}

void Tree::restore() {
    forEach(root, [&](std::string const& name) { removeAll(at(name)); });
    write(at("file"), contents());
    require(symlink(at("file").c_str(), at("link").c_str()) == 0, "symlink");
    require(mkdir(at("directory").c_str(), 0755) == 0, "mkdir");
    write(at("directory/first"), "first");
    write(at("directory/second"), "second");
    require(mkdir(at("directory/inner").c_str(), 0755) == 0, "mkdir");
    write(at("directory/inner/third"), "third");
    require(symlink(at("directory").c_str(), at("directoryLink").c_str()) == 0, "symlink");
    require(mkdir(at("empty").c_str(), 0755) == 0, "mkdir");
    require(symlink("nowhere", at("dangling").c_str()) == 0, "symlink");
    require(mkdir(at("bystander").c_str(), 0755) == 0, "mkdir");
    write(at("bystander/kept"), "kept");
    require(mkdir(at("bystander/within").c_str(), 0755) == 0, "mkdir");
    write(at("bystander/within/kept"), "kept");
}

std::map<std::string, std::string> Tree::snapshot() const {
    std::map<std::string, std::string> entries;
    describe(root, "", entries);
    return entries;
}

}  // namespace ovra::faults
