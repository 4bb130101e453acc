#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include <ovra/log/Log.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/support/Deadline.h>
#include <tests/support/LogSinks.h>
#include <tests/support/ScratchDirectory.h>

namespace ovra::log::test {

constexpr LogLevel levelOf(long long value) {
    return static_cast<LogLevel>(value);
}

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
