#include <ovra/fs/FileHandle.h>
#include <ovra/fs/FilePath.h>

#include <benchmarks/fs/FileBenchmarks.h>

namespace ovra::bench {

namespace {

struct OvraFiles {
    using Text = std::string;
    using Path = fs::FilePath;
    static Text text(std::string const& text) { return text; }

    static std::size_t components(Text const& text) {
        fs::FilePath const path(text);
        return path.FullPath().size() + path.FileName().size() + path.FileBaseName().size() +
               path.Extension().size() + path.DirectoryPath().size() + path.DriveLetter().size() +
               (path.IsAbsolute() ? 1 : 0);
    }
    static std::size_t resolve(Text const& base, Text const& relative) {
        return fs::FilePath(base).Resolve(relative).Path().size();
    }
    static std::size_t resolved(Path const& path) { return path.Resolved().size(); }

    struct Query {
        explicit Query(std::string const& path) : file(path) {}
        bool exists() const { return file.Exists(); }
        fs::FileHandle file;
    };
    static int list(Text const& directory) {
        return static_cast<int>(fs::FileHandle(directory).ListDirectory().size());
    }
    static bool removeTree(Text const& directory) {
        return fs::FileHandle(directory).RemoveDirectoryRecursive();
    }
    static bool copy(Text const& from, Text const& to) {
        fs::FileHandle target(to);
        return fs::FileHandle(from).Copy(target);
    }
};

[[maybe_unused]] bool const isAdded =
    addPathBenchmarks<OvraFiles>("ovra") && FileBenchmarks<OvraFiles>::add("ovra");

}  // namespace

}  // namespace ovra::bench
