// File operations in a scratch directory, against a model of what must be there afterwards.

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/fs/FileHandle.h>
#include <tests/fs/FilePathModel.h>
#include <tests/fs/TemporaryDirectory.h>

#include <fuzz/ByteSource.h>
#include <fuzz/FileTree.h>
#include <fuzz/Fuzzer.h>

namespace ovra::fs {
namespace {

using fuzz::ByteSource;
using fuzz::FileTree;

/// What the operations on a path do to a tree.
class Model {
public:
    explicit Model(std::string const& root) : tree(root) {}

    bool exists(std::string const& path) const { return tree.stat(path).has_value(); }
    bool isFile(std::string const& path) const { return isKind(path, FileTree::FILE); }
    bool isDirectory(std::string const& path) const { return isKind(path, FileTree::DIRECTORY); }
    bool isLink(std::string const& path) const {
        return exists(path) && tree.at(*tree.lstat(path)).kind == FileTree::LINK;
    }
    FileTree::Node const* node(std::string const& path) const {
        auto const id = tree.stat(path);
        return id ? &tree.at(*id) : nullptr;
    }

    bool createDirectory(std::string const& path) { return !exists(path) && tree.mkdir(path); }
    bool removeDirectory(std::string const& path) { return !exists(path) || tree.remove(path); }
    bool remove(std::string const& path) {
        return (isFile(path) || isLink(path)) && tree.remove(path);
    }
    bool removeRecursively(std::string const& path, std::vector<int> open = {}) {
        if (!isDirectory(path)) {
            return false;
        }
        int const directory = *tree.stat(path);
        if (std::find(open.begin(), open.end(), directory) == open.end()) {
            open.push_back(directory);
            for (std::string const& name : namesInOrder(directory)) {
                std::string const child = path + "/" + name;
                if (isDirectory(child)) {
                    removeRecursively(child, open);
                } else if (isFile(child)) {
                    remove(child);
                }
            }
        }
        return removeDirectory(path);
    }
    bool createLink(std::string const& path, std::string const& target) {
        return exists(path) &&
               tree.symlink(path, isDirectory(target) ? destination(path, target) : target);
    }
    bool copy(std::string const& path, std::string const& target) {
        if (!isFile(path)) {
            return false;
        }
        auto const output = tree.open(destination(path, target), true);
        if (!output) {
            return false;
        }
        tree.at(*output).contents.clear();  // Before anything is read, were it the same file.
        tree.at(*output).contents = node(path)->contents;
        return true;
    }
    bool move(std::string const& path, std::string const& target) {
        return exists(path) && tree.rename(path, destination(path, target));
    }
    bool rename(std::string& path, std::string const& name) {
        std::string const newPath = test::modelComponents(path).directoryPath + "/" + name;
        if (!exists(path) || !tree.rename(path, newPath)) {
            return false;
        }
        path = newPath;
        return true;
    }
    void setPermissions(std::string const& path, unsigned long permissions) {
        if (auto const id = tree.stat(path)) {
            tree.at(*id).permissions = permissions & 0777;
        }
    }
    bool write(std::string const& path, std::ios_base::openmode mode, std::string const& text) {
        bool const appends = (mode & std::ios_base::app) != 0;
        bool const keeps = (mode & std::ios_base::in) != 0;
        if (appends && (mode & std::ios_base::trunc) != 0) {
            return false;
        }
        auto const output = tree.open(path, appends || !keeps);
        if (!output) {
            return false;
        }
        std::string& contents = tree.at(*output).contents;
        if (!appends && !keeps) {
            contents.clear();
        }
        bool const atEnd = appends || (mode & std::ios_base::ate) != 0;
        std::size_t const position = atEnd ? contents.size() : 0;
        contents.replace(position, std::min(text.size(), contents.size() - position), text);
        return true;
    }

    FileTree tree;
    std::map<int, std::vector<std::string>> order;  // In which the system lists directories.

private:
    bool isKind(std::string const& path, FileTree::Kind kind) const {
        return exists(path) && node(path)->kind == kind;
    }
    static std::string nameOf(std::string const& path) {
        return test::modelComponents(path).fileName;
    }
    std::string destination(std::string const& path, std::string const& target) const {
        std::string const full =
            isDirectory(target) ? test::modelResolve(target, nameOf(path)) : target;
        return test::modelComponents(full).fullPath;
    }
    std::vector<std::string> namesInOrder(int directory) const {
        std::vector<std::string> names;
        for (std::string const& name : order.at(directory)) {
            if (tree.at(directory).entries.count(name) != 0) {
                names.push_back(name);
            }
        }
        return names;
    }
};

/// An empty directory that is the current one while this lives. Where the superuser runs this, file
/// operations are an ordinary user's meanwhile: nothing outside can be harmed.
class Scratch {
public:
    Scratch() {
        if (chdir(path().c_str()) != 0) {
            throw std::runtime_error("no directory " + path());
        }
        if (test::isSuperuser()) {
            setfsgid(ORDINARY);
            setfsuid(ORDINARY);
        }
        test::setPermissions(".", 0755);
    }
    Scratch(Scratch const&) = delete;
    Scratch& operator=(Scratch const&) = delete;
    ~Scratch() {
        for (auto const& entry : std::filesystem::directory_iterator(".")) {
            std::filesystem::remove_all(entry);
        }
        if (test::isSuperuser()) {
            setfsuid(0);
            setfsgid(0);
            prctl(PR_SET_DUMPABLE, 1);  // Or a leak checker could not look at the process.
        }
        if (fchdir(outside) != 0) {
            std::terminate();
        }
        close(outside);
    }

    /// Absolute.
    static std::string const& path() {
        static Directory const directory;
        return directory.path;
    }
    /// Who owns what is made here.
    static unsigned int user() { return test::isSuperuser() ? ORDINARY : geteuid(); }
    static unsigned int group() { return test::isSuperuser() ? ORDINARY : getegid(); }

private:
    static constexpr unsigned int ORDINARY = 65534;

    struct Directory {
        Directory() {
            umask(022);
            if (mkdtemp(path.data()) == nullptr ||
                (test::isSuperuser() && chown(path.c_str(), ORDINARY, ORDINARY) != 0)) {
                throw std::runtime_error("no directory " + path);
            }
        }
        Directory(Directory const&) = delete;
        Directory& operator=(Directory const&) = delete;
        ~Directory() { rmdir(path.c_str()); }

        std::string path = std::filesystem::temp_directory_path() / "ovra-fuzz-XXXXXX";
    };

    int const outside = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
};

class Session {
public:
    // Begins with a directory, a file and a link to the file in the directory.
    explicit Session(ByteSource& source) : random(source) {
        EXPECT_TRUE(entries[0].handle.CreateDirectory());
        EXPECT_TRUE(entries[1].handle.CreateOutputStream({})->good());
        EXPECT_TRUE(entries[1].handle.CreateSymbolicLink(entries[0].handle));
        model.createDirectory(entries[0].path);
        model.write(entries[1].path, {}, "");
        model.createLink(entries[1].path, entries[0].path);
    }

    void run() {
        while (!random.isEmpty()) {
            step();
            compareTree(FileTree::TOP, ".");
            for (Entry const& entry : entries) {
                compareQueries(entry);
            }
        }
    }

private:
    /// A handle, and the path that it is to have.
    struct Entry {
        explicit Entry(std::string const& name) : handle(name), path(name) {}

        FileHandle handle;
        std::string path;
    };

    Entry& anyEntry() { return random.pick(entries); }
    std::string anyName() {
        static constexpr std::array NAMES = {"a", "b", "c", "d.e", "C:", ".", ".."};
        return random.pick(NAMES);
    }
    std::string anyPath() {
        std::string path = random.oneIn(2) ? Scratch::path() + "/" + anyName() : anyName();
        for (std::uint32_t more = random.below(3); more > 0; --more) {
            path += (random.oneIn(8) ? "//" : "/") + anyName();
        }
        return path + (random.oneIn(8) ? "/" : "");
    }

    // Does to the disk what has been done to the model, unless it would lead out of the directory.
    template <typename Expected, typename Real>
    void attempt(Expected expected, Real real) {
        Model trial = model;
        auto const result = expected(trial);
        if (!trial.tree.hasLeft()) {
            EXPECT_EQ(real(), result);
            model = trial;
        }
    }

    void step() {
        Entry& entry = anyEntry();
        Entry& other = anyEntry();
        std::string const& path = entry.path;
        FileHandle& handle = entry.handle;
        SCOPED_TRACE(path + ", " + other.path);
        switch (random.below(15)) {
            case 0:
                setPath(entry, anyPath());
                break;
            case 1:
                openBelow(entry, other);
                break;
            case 2:
                openParent(entry, other);
                break;
            case 3:
                attempt([&](Model& trial) { return trial.createDirectory(path); },
                        [&] { return handle.CreateDirectory(); });
                break;
            case 4:
                attempt([&](Model& trial) { return trial.removeDirectory(path); },
                        [&] { return handle.RemoveDirectory(); });
                break;
            case 5:
                attempt([&](Model& trial) { return trial.remove(path); },
                        [&] { return handle.Remove(); });
                break;
            case 6:
                model.order.clear();
                readOrder(FileTree::TOP, ".");
                attempt([&](Model& trial) { return trial.removeRecursively(path); },
                        [&] { return handle.RemoveDirectoryRecursive(); });
                break;
            case 7:
                attempt([&](Model& trial) { return trial.createLink(path, other.path); },
                        [&] { return handle.CreateSymbolicLink(other.handle); });
                break;
            case 8:
                attempt([&](Model& trial) { return trial.copy(path, other.path); },
                        [&] { return handle.Copy(other.handle); });
                break;
            case 9:
                attempt([&](Model& trial) { return trial.move(path, other.path); },
                        [&] { return handle.Move(other.handle); });
                break;
            case 10:
                rename(entry);
                break;
            case 11: {
                unsigned long const bits = 0700 | random.below(0x10000);
                attempt([&](Model& trial) { return trial.setPermissions(path, bits), true; },
                        [&] { return handle.SetPermissions(bits), true; });
                break;
            }
            case 12:
                changeOwner(entry);
                break;
            default:
                write(entry);
        }
    }

    void setPath(Entry& entry, std::string const& path) {
        entry.path = path.size() < 200 ? path : "a";
        entry.handle = FileHandle(entry.path);
    }
    void openBelow(Entry& entry, Entry const& directory) {
        std::string const below = anyPath();
        std::string const expected = test::modelResolve(directory.path, below);
        EXPECT_EQ(directory.handle.Open(below).Path().Path(), expected);
        EXPECT_EQ(directory.handle.Open(FilePath(below)).Path().Path(), expected);
        setPath(entry, expected);
    }
    void openParent(Entry& entry, Entry const& below) {
        std::string const expected = test::modelResolved(test::modelResolve(below.path, ".."));
        EXPECT_EQ(below.handle.ParentDirectory().Path().Path(), expected);
        setPath(entry, expected);
    }
    void rename(Entry& entry) {
        std::string const name = anyPath();
        std::string path = entry.path;
        attempt([&](Model& trial) { return trial.rename(path, name); },
                [&] {
                    bool const renamed = entry.handle.Rename(name);
                    entry.path = path;
                    return renamed;
                });
    }
    // To what it is, or to what an ordinary user may not: nothing changes either way.
    void changeOwner(Entry& entry) {
        attempt([&](Model& trial) { return trial.exists(entry.path); },
                [&] {
                    bool const exists = entry.handle.Exists();
                    entry.handle.SetUserId(random.oneIn(2) ? entry.handle.UserId() : 0);
                    entry.handle.SetGroupId(random.oneIn(2) ? entry.handle.GroupId() : 0);
                    return exists;
                });
    }
    void write(Entry& entry) {
        using std::ios_base;
        static ios_base::openmode const MODES[] = {ios_base::openmode(),
                                                   ios_base::binary,
                                                   ios_base::app,
                                                   ios_base::trunc,
                                                   ios_base::in,
                                                   ios_base::in | ios_base::ate,
                                                   ios_base::ate,
                                                   ios_base::in | ios_base::app,
                                                   ios_base::app | ios_base::trunc};
        auto const mode = random.pick(MODES);
        std::string const text(random.below(30), static_cast<char>(random.between('A', 'Z')));
        attempt([&](Model& trial) { return trial.write(entry.path, mode, text); },
                [&] {
                    auto const stream = entry.handle.CreateOutputStream(mode);
                    bool const isOpen = !stream->fail();
                    *stream << text;
                    return isOpen;
                });
    }

    void readOrder(int directory, std::string const& path) {
        model.order[directory] = test::namesIn(path);
        for (auto const& [name, id] : model.tree.at(directory).entries) {
            if (model.tree.at(id).kind == FileTree::DIRECTORY) {
                readOrder(id, path + "/" + name);
            }
        }
    }

    void compareTree(int directory, std::string const& path) {
        auto const& expected = model.tree.at(directory).entries;
        EXPECT_EQ(sorted(test::namesIn(path)), namesOf(expected)) << "in " << path;
        for (auto const& [name, id] : expected) {
            FileTree::Node const& node = model.tree.at(id);
            std::string const place = path + "/" + name;
            switch (node.kind) {
                case FileTree::FILE:
                    EXPECT_EQ(test::modeOf(place), S_IFREG | node.permissions) << place;
                    EXPECT_EQ(test::readFile(place), node.contents) << place;
                    break;
                case FileTree::LINK:
                    EXPECT_EQ(test::linkContents(place), node.contents) << place;
                    break;
                case FileTree::DIRECTORY:
                    EXPECT_EQ(test::modeOf(place), S_IFDIR | node.permissions) << place;
                    compareTree(id, place);
            }
        }
    }

    void compareQueries(Entry const& entry) const {
        Model const asked = model;
        FileHandle const& handle = entry.handle;
        FileTree::Node const* const found = asked.node(entry.path);
        EXPECT_EQ(handle.Path().Path(), entry.path);
        if (asked.tree.hasLeft()) {
            return;
        }
        bool const exists = found != nullptr;
        FileTree::Node const node = exists ? *found : FileTree::Node{};
        bool const isFile = exists && node.kind == FileTree::FILE;
        bool const isDirectory = exists && node.kind == FileTree::DIRECTORY;
        SCOPED_TRACE(entry.path);
        EXPECT_EQ(handle.Exists(), exists);
        EXPECT_EQ(handle.IsFile(), isFile);
        EXPECT_EQ(handle.IsDirectory(), isDirectory);
        EXPECT_EQ(handle.IsSymbolicLink(), asked.isLink(entry.path));
        EXPECT_EQ(handle.Size(), isFile ? node.contents.size() : 0);
        EXPECT_EQ(handle.Permissions(), node.permissions);
        EXPECT_EQ(handle.UserId(), exists ? Scratch::user() : 0);
        EXPECT_EQ(handle.GroupId(), exists ? Scratch::group() : 0);
        EXPECT_EQ(handle.ModificationTime() != 0, exists);

        auto const input = handle.CreateInputStream(std::ios_base::binary);
        EXPECT_EQ(input->fail(), !exists);
        if (isFile) {
            EXPECT_EQ(std::string(std::istreambuf_iterator<char>(*input), {}), node.contents);
        }

        std::vector<std::string> names;
        if (isDirectory) {
            names = namesOf(node.entries);
        }
        EXPECT_EQ(sorted(handle.ListDirectory()), names);
        std::vector<std::string> scanned;
        FileIterator const end = FileHandle(entry.path).End();
        for (FileIterator it = handle.Begin(); it != end; ++it) {
            scanned.push_back((*it).FileName());
            EXPECT_EQ((*it).Path(), entry.path + "/" + scanned.back());
        }
        EXPECT_EQ(sorted(scanned), names);
    }

    static std::vector<std::string> sorted(std::vector<std::string> names) {
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::vector<std::string> namesOf(std::map<std::string, int> const& named) {
        std::vector<std::string> names;
        for (auto const& entry : named) {
            names.push_back(entry.first);
        }
        return names;
    }

    ByteSource& random;
    Model model{Scratch::path()};
    std::array<Entry, 3> entries = {Entry("a"), Entry(Scratch::path() + "/b"), Entry("c")};
};

}  // namespace
}  // namespace ovra::fs

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    ovra::fuzz::ByteSource source(data, size);
    ovra::fs::Scratch const scratch;
    ovra::fs::Session(source).run();
    return 0;
}
