#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <benchmarks/fs/FileBenchmarks.h>

namespace ovra::bench {

namespace {

struct QtFiles {
    using Text = QString;
    using Path = QString;
    static Text text(std::string const& text) { return QString::fromStdString(text); }

    static std::size_t components(Text const& text) {
        QFileInfo const path(text);
        return static_cast<std::size_t>(path.filePath().size() + path.fileName().size() +
                                        path.baseName().size() + path.completeSuffix().size() +
                                        path.path().size() + (path.isAbsolute() ? 1 : 0));
    }
    static std::size_t resolve(Text const& base, Text const& relative) {
        return static_cast<std::size_t>(QDir(base).filePath(relative).size());
    }
    static std::size_t resolved(Path const& path) {
        return static_cast<std::size_t>(QDir::cleanPath(path).size());
    }

    struct Query {
        explicit Query(std::string const& path) : file(text(path)) { file.setCaching(false); }
        bool exists() const { return file.exists(); }
        QFileInfo file;
    };
    static int list(Text const& directory) {
        return QDir(directory)
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                       QDir::Unsorted)
            .size();
    }
    static bool removeTree(Text const& directory) { return QDir(directory).removeRecursively(); }
    static bool copy(Text const& from, Text const& to) { return QFile::copy(from, to); }
};

[[maybe_unused]] bool const isAdded =
    addPathBenchmarks<QtFiles>("Qt") && FileBenchmarks<QtFiles>::add("Qt");

}  // namespace

}  // namespace ovra::bench
