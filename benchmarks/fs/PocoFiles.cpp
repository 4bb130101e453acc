#include <Poco/File.h>
#include <Poco/Path.h>

#include <benchmarks/fs/FileBenchmarks.h>

namespace ovra::bench {

namespace {

struct PocoFiles {
    using Text = std::string;
    using Path = std::string;  // Parsing resolves it.
    static Text text(std::string const& text) { return text; }

    static std::size_t components(Text const& text) {
        Poco::Path const path(text);
        return path.toString().size() + path.getFileName().size() + path.getBaseName().size() +
               path.getExtension().size() + path.parent().toString().size() +
               path.getDevice().size() + (path.isAbsolute() ? 1 : 0);
    }
    static std::size_t resolve(Text const& base, Text const& relative) {
        return Poco::Path(base).makeDirectory().resolve(relative).toString().size();
    }
    static std::size_t resolved(Text const& text) { return Poco::Path(text).toString().size(); }

    struct Query {
        explicit Query(std::string const& path) : file(path) {}
        bool exists() const { return file.exists(); }
        Poco::File file;
    };
    static int list(Text const& directory) {
        std::vector<std::string> names;
        Poco::File(directory).list(names);
        return static_cast<int>(names.size());
    }
    static bool removeTree(Text const& directory) {
        Poco::File(directory).remove(true);
        return true;
    }
    static bool copy(Text const& from, Text const& to) {
        Poco::File(from).copyTo(to);
        return true;
    }
};

[[maybe_unused]] bool const isAdded =
    addPathBenchmarks<PocoFiles>("Poco") && FileBenchmarks<PocoFiles>::add("Poco");

}  // namespace

}  // namespace ovra::bench
