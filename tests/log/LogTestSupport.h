#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include <ovra/log/Log.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/support/Deadline.h>

namespace ovra::log::test {

constexpr LogLevel levelOf(long long value) {
    return static_cast<LogLevel>(value);
}

/// Puts the global level back to what it was.
class LevelKeeper {
public:
    LevelKeeper() = default;
    explicit LevelKeeper(LogLevel level) { setLogLevel(level); }
    LevelKeeper(LevelKeeper const&) = delete;
    LevelKeeper& operator=(LevelKeeper const&) = delete;
    ~LevelKeeper() { setLogLevel(kept); }

private:
    LogLevel const kept = getLogLevel();
};

/// Opened once; a wait that takes longer than any machine needs reports failure.
class Gate {
public:
    void open() {
        std::lock_guard<std::mutex> const lock(mutex);
        isOpen = true;
        condition.notify_all();
    }

    bool wait() {
        std::unique_lock<std::mutex> lock(mutex);
        auto const deadline =
            std::chrono::system_clock::now() + std::chrono::seconds(ovra::test::deadlineSeconds());
        return condition.wait_until(lock, deadline, [this] { return isOpen; });
    }

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool isOpen = false;
};

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ovra-log-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("no temporary directory " + pattern);
        }
        directory = pattern;
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    std::string path() const { return directory.string(); }
    std::string path(std::string const& entry) const { return (directory / entry).string(); }

private:
    std::filesystem::path directory;
};

inline std::string contentOf(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void writeFile(std::string const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::vector<std::string> linesOf(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// Keeps every line that reaches it.
class RecordingSink : public LogHandler {
public:
    struct Line {
        std::string text;
        LogLevel level;
        char const* address;
    };

    void handleLogMessage(char const* line, LogLevel level) override {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            recorded.push_back({line, level, line});
        }
        if (onLine) {
            onLine();
        }
    }

    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> const lock(mutex);
        return recorded;
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (Line const& line : lines()) {
            result.push_back(line.text);
        }
        return result;
    }

    std::function<void()> onLine;  ///< Called on the logging thread, with no lock held.

private:
    mutable std::mutex mutex;
    std::vector<Line> recorded;
};

/// A sink of the test's own, whatever it does with a line.
class FunctionSink : public LogHandler {
public:
    explicit FunctionSink(std::function<void(char const*, LogLevel)> work)
        : function(std::move(work)) {}

    void handleLogMessage(char const* line, LogLevel level) override { function(line, level); }

private:
    std::function<void(char const*, LogLevel)> function;
};

/// A name in the registry that is of no effect any more once this is destroyed: entries cannot be
/// removed, but replaced.
class Registration {
public:
    explicit Registration(std::string name = uniqueName()) : registeredName(std::move(name)) {}
    explicit Registration(std::shared_ptr<LogHandler> handler) : Registration() {
        addLogHandler(std::move(handler), name());
    }
    explicit Registration(LogHandlerType type) : Registration() { addLogHandler(type, name()); }
    Registration(Registration const&) = delete;
    Registration& operator=(Registration const&) = delete;
    ~Registration() {
        addLogHandler(std::make_shared<FunctionSink>([](char const*, LogLevel) {}), name());
    }

    char const* name() const { return registeredName.c_str(); }

private:
    static std::string uniqueName() {
        static int count = 0;
        return "sink " + std::to_string(++count);
    }

    std::string const registeredName;
};

/// Stands in for the buffer of a standard stream: what is written, and "<flush>" for each flush.
class StreamCapture : public std::streambuf {
public:
    explicit StreamCapture(std::ostream& stream)
        : captured(stream),
          original(stream.rdbuf(this)),
          flags(stream.flags()),
          tied(stream.tie(nullptr)) {
        // Without the stream's tie: flushes nothing but what it is asked to.
        stream.unsetf(std::ios_base::unitbuf);
    }
    StreamCapture(StreamCapture const&) = delete;
    StreamCapture& operator=(StreamCapture const&) = delete;
    ~StreamCapture() override {
        captured.rdbuf(original);  // Clears the stream's state.
        captured.flags(flags);
        captured.tie(tied);
    }

    std::string text;
    std::function<void()> onWrite;
    std::function<void()> onFlush;

protected:
    std::streamsize xsputn(char const* characters, std::streamsize count) override {
        if (onWrite) {
            onWrite();
        }
        text.append(characters, static_cast<std::size_t>(count));
        return count;
    }

    int_type overflow(int_type character) override {
        if (onWrite) {
            onWrite();
        }
        if (!traits_type::eq_int_type(character, traits_type::eof())) {
            text.push_back(traits_type::to_char_type(character));
        }
        return traits_type::not_eof(character);
    }

    int sync() override {
        if (onFlush) {
            onFlush();
        }
        text.append("<flush>");
        return 0;
    }

private:
    std::ostream& captured;
    std::streambuf* const original;
    std::ios_base::fmtflags const flags;
    std::ostream* const tied;
};

/// Large enough to distinguish one that is kept from whatever else changes.
inline std::string const& largeText() {
    static std::string const text(1 << 20, 'x');
    return text;
}

inline void logLargeText() {
    log(ERROR, "tag", "%s", largeText().c_str());
}

/// What `work`, done again and again, adds to the heap, in large texts.
template <typename Work>
double largeTextsKeptBy(Work const& work) {
    work();  // What is allocated once and for all.
    std::size_t const before = heapInUse();
    for (int i = 0; i < 8; ++i) {
        work();
    }
    return (static_cast<double>(heapInUse()) - static_cast<double>(before)) /
           static_cast<double>(largeText().size());
}

}  // namespace ovra::log::test
