#include <filesystem>

#include <benchmarks/fs/FileBenchmarks.h>

namespace ovra::bench {

namespace {

struct StdFiles {
    using Text = std::string;
    using Path = std::filesystem::path;
    static Text text(std::string const& text) { return text; }

    static std::size_t components(Text const& text) {
        std::filesystem::path const path(text);
        return path.string().size() + path.filename().string().size() +
               path.stem().string().size() + path.extension().string().size() +
               path.parent_path().string().size() + path.root_name().string().size() +
               (path.is_absolute() ? 1 : 0);
    }
    static std::size_t resolve(Text const& base, Text const& relative) {
        return (std::filesystem::path(base) / relative).string().size();
    }
    static std::size_t resolved(Path const& path) {
        return path.lexically_normal().string().size();
    }

    struct Query {
        explicit Query(std::string const& text) : path(text) {}
        bool exists() const { return std::filesystem::exists(path); }
        std::filesystem::path path;
    };
    static int list(Text const& directory) {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(directory)) {
            names.push_back(entry.path().filename().string());
        }
        return static_cast<int>(names.size());
    }
    static bool removeTree(Text const& directory) {
        return std::filesystem::remove_all(directory) > 0;
    }
    static bool copy(Text const& from, Text const& to) {
        return std::filesystem::copy_file(from, to,
                                          std::filesystem::copy_options::overwrite_existing);
    }
};

[[maybe_unused]] bool const isAdded = addPathBenchmarks<StdFiles>("std::filesystem") &&
                                      FileBenchmarks<StdFiles>::add("std::filesystem");

}  // namespace

}  // namespace ovra::bench
