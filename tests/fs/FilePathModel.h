#pragma once

#include <cstddef>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <ovra/fs/FilePath.h>

namespace ovra::fs::test {

/// All that a path answers about itself.
struct Components {
    std::string directoryPath;
    std::string fileName;
    std::string fileBaseName;
    std::string extension;
    std::string fullPath;
    bool absolute = false;

    bool operator==(Components const& other) const {
        return directoryPath == other.directoryPath && fileName == other.fileName &&
               fileBaseName == other.fileBaseName && extension == other.extension &&
               fullPath == other.fullPath && absolute == other.absolute;
    }
};

inline std::ostream& operator<<(std::ostream& stream, Components const& components) {
    return stream << "directory \"" << components.directoryPath << "\", file name \""
                  << components.fileName << "\", base name \"" << components.fileBaseName
                  << "\", extension \"" << components.extension << "\", full path \""
                  << components.fullPath << "\", "
                  << (components.absolute ? "absolute" : "relative");
}

inline Components componentsOf(FilePath const& path) {
    return {path.DirectoryPath(), path.FileName(), path.FileBaseName(),
            path.Extension(),     path.FullPath(), path.IsAbsolute()};
}

// The rules once more, step by step and without regard to speed.

inline std::vector<std::string> modelSplit(std::string const& path) {
    std::istringstream stream(path);
    std::vector<std::string> pieces;
    for (std::string piece; std::getline(stream, piece, '/');) {
        pieces.push_back(piece);
    }
    return pieces;
}

inline bool modelIsRoot(std::string const& piece) {
    return piece.empty() || (piece.size() == 2 && piece[1] == ':');
}

inline Components modelComponents(std::string const& path) {
    Components model;
    std::vector<std::string> pieces = modelSplit(path);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i == 0 && modelIsRoot(pieces[i])) {
            pieces[i] += "/";
            model.absolute = true;
        } else if (i == pieces.size() - 1) {
            continue;
        } else if (pieces[i].empty()) {
            continue;
        } else {
            pieces[i] += "/";
        }
    }
    if (!pieces.empty()) {
        model.fileName = pieces.back();
    }
    if (pieces.size() == 1) {
        model.directoryPath = model.absolute ? pieces[0] : "";
        model.fullPath = pieces[0];
    } else if (pieces.size() > 1) {
        for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
            model.directoryPath += pieces[i];
        }
        model.fullPath = model.directoryPath + model.fileName;
    }
    std::size_t dot = std::string::npos;
    for (std::size_t i = 1; i < model.fileName.size(); ++i) {
        if (model.fileName[i] == '.') {
            dot = i;
            break;
        }
    }
    if (model.fileName == "." || model.fileName == ".." || dot == std::string::npos) {
        model.fileBaseName = model.fileName;
    } else {
        model.fileBaseName = model.fileName.substr(0, dot);
        model.extension = model.fileName.substr(dot);
    }
    return model;
}

inline std::string modelResolve(std::string const& base, std::string const& other) {
    if (modelComponents(other).absolute) {
        return other;
    }
    bool const ends = !base.empty() && base[base.size() - 1] == '/';
    return ends ? base + other : base + "/" + other;
}

inline std::string modelResolved(std::string const& path) {
    struct Entry {
        std::string text;
        bool first;
    };
    std::vector<std::string> const pieces = modelSplit(path);
    std::vector<Entry> output;
    bool absolute = false;
    int count = 0;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        if (i == 0) {
            absolute = modelIsRoot(pieces[i]);
        }
        if (pieces[i] == ".") {
            continue;
        }
        if (pieces[i] == ".." && count > 0) {
            output.pop_back();
            --count;
            continue;
        }
        output.push_back({pieces[i], i == 0});
        if (pieces[i] != ".." && !(absolute && i == 0)) {
            ++count;
        }
    }
    std::string joined;
    for (std::size_t i = 0; i < output.size(); ++i) {
        joined += output[i].text;
        bool const last = i == output.size() - 1;
        if (!last || (output.size() == 1 && output[i].first && absolute)) {
            joined += "/";
        }
    }
    return joined.empty() ? "." : joined;
}

/// Compares everything about one path with the model, and reports what differs.
inline bool agreesWithTheModel(std::string const& text, std::string const& other) {
    FilePath const path(text);
    Components const actual = componentsOf(path);
    Components const expected = modelComponents(text);
    bool const agrees = actual == expected && path.Path() == text && path.DriveLetter().empty() &&
                        path.IsRelative() != expected.absolute && path.IsEmpty() == text.empty() &&
                        path.EndingSeparator() == (!text.empty() && text[text.size() - 1] == '/') &&
                        path.Resolved() == modelResolved(text) &&
                        path.Resolve(other).Path() == modelResolve(text, other) &&
                        path.Resolve(FilePath(other)).Path() == modelResolve(text, other) &&
                        actual.fileBaseName + actual.extension == actual.fileName;
    if (!agrees) {
        ADD_FAILURE() << "path \"" << text << "\", other \"" << other << "\"\n  components "
                      << actual << "\n  instead of " << expected << "\n  resolved \""
                      << path.Resolved() << "\" instead of \"" << modelResolved(text)
                      << "\"\n  with the other \"" << path.Resolve(other).Path()
                      << "\" instead of \"" << modelResolve(text, other) << '"';
    }
    return agrees;
}

}  // namespace ovra::fs::test
