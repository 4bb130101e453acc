#pragma once

#include <cstddef>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <benchmarks/support/AddBenchmark.h>
#include <benchmarks/support/Clock.h>
#include <benchmarks/support/TemporaryDirectory.h>

namespace ovra::bench {

inline void makeFile(std::string const& path, std::size_t bytes) {
    std::ofstream file(path, std::ios_base::binary);
    file << std::string(bytes, 'x') << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline void makeFiles(std::string const& directory, int count, std::size_t bytes) {
    std::filesystem::create_directories(directory);
    for (int i = 0; i < count; ++i) {
        makeFile(directory + "/entry-" + std::to_string(i) + ".dat", bytes);
    }
}

/// Queries about the text of a path. `Paths` has `Text`, its own kind of string, and `Path`, the
/// type that its users hold when they resolve a path; both are made beforehand. Its static
/// functions return a part of what they found.
template <typename Paths>
bool addPathBenchmarks(std::string const& peer) {
    using Text = typename Paths::Text;
    addBenchmark("components/" + peer, [](benchmark::State& state) {
        Text const text = Paths::text("/usr/share/example-device/music/Artist - Title.tar.gz");
        for ([[maybe_unused]] auto _ : state) {
            benchmark::DoNotOptimize(Paths::components(text));
        }
    });
    addBenchmark("resolve/" + peer, [](benchmark::State& state) {
        Text const base = Paths::text("/usr/share/example-device/music");
        Text const relative = Paths::text("albums/cover.jpeg");
        for ([[maybe_unused]] auto _ : state) {
            benchmark::DoNotOptimize(Paths::resolve(base, relative));
        }
    });
    addBenchmark("resolved/" + peer, [](benchmark::State& state) {
        typename Paths::Path const path(
            Paths::text("/usr/share/example-device/../other/./music/../video/a.mkv"));
        for ([[maybe_unused]] auto _ : state) {
            benchmark::DoNotOptimize(Paths::resolved(path));
        }
    });
    return true;
}

/// What is done to files. `Files` has static functions that take paths and return whether they
/// succeeded.
template <typename Files>
class FileBenchmarks {
public:
    static bool add(std::string const& peer) {
        addBenchmark("status/" + peer, status);
        addBenchmark("list/" + peer, list);
        addBenchmark("remove/" + peer, removeTree)->UseManualTime();
        addBenchmark("copy-large/" + peer, copyLarge)->UseManualTime();
        addBenchmark("copy-small/" + peer, copySmall)->UseManualTime();
        return true;
    }

private:
    static void report(benchmark::State& state, Stopwatch const& watch) {
        state.counters["cpu_ns"] = watch.cpuNanoseconds(static_cast<double>(state.iterations()));
    }

    static void status(benchmark::State& state) {
        TemporaryDirectory const directory;
        makeFile(directory / "file", 1);
        typename Files::Query const query(directory / "file");
        for ([[maybe_unused]] auto _ : state) {
            if (!query.exists()) {
                state.SkipWithError("The file is not seen.");
                break;
            }
        }
    }

    static void list(benchmark::State& state) {
        constexpr int COUNT = 5000;
        TemporaryDirectory const directory;
        makeFiles(directory / "tree", COUNT, 0);
        typename Files::Text const path = Files::text(directory / "tree");
        for ([[maybe_unused]] auto _ : state) {
            if (Files::list(path) != COUNT) {
                state.SkipWithError("Not every entry was listed.");
                break;
            }
        }
    }

    static void removeTree(benchmark::State& state) {
        TemporaryDirectory const directory;
        typename Files::Text const path = Files::text(directory / "tree");
        Stopwatch watch;
        for ([[maybe_unused]] auto _ : state) {
            for (int i = 0; i < 20; ++i) {
                makeFiles(directory / ("tree/part-" + std::to_string(i)), 100, 1);
            }
            watch.start();
            bool const isRemoved = Files::removeTree(path);
            state.SetIterationTime(watch.stop());
            if (!isRemoved || std::filesystem::exists(directory / "tree")) {
                state.SkipWithError("The tree is still there.");
                break;
            }
        }
        report(state, watch);
    }

    static void copyLarge(benchmark::State& state) {
        constexpr std::size_t SIZE = 8 * 1024 * 1024;
        TemporaryDirectory const directory;
        makeFile(directory / "from", SIZE);
        typename Files::Text const from = Files::text(directory / "from");
        typename Files::Text const to = Files::text(directory / "to");
        Stopwatch watch;
        for ([[maybe_unused]] auto _ : state) {
            watch.start();
            bool const isCopied = Files::copy(from, to);
            state.SetIterationTime(watch.stop());
            if (!isCopied || std::filesystem::file_size(directory / "to") != SIZE) {
                state.SkipWithError("The copy is not complete.");
                break;
            }
            std::filesystem::remove(directory / "to");
        }
        report(state, watch);
    }

    static void copySmall(benchmark::State& state) {
        constexpr int COUNT = 1000;
        constexpr std::size_t SIZE = 2000;
        TemporaryDirectory const directory;
        makeFiles(directory / "from", COUNT, SIZE);
        std::vector<typename Files::Text> from;
        std::vector<typename Files::Text> to;
        for (int i = 0; i < COUNT; ++i) {
            std::string const name = "/entry-" + std::to_string(i) + ".dat";
            from.push_back(Files::text(directory / "from" + name));
            to.push_back(Files::text(directory / "to" + name));
        }
        Stopwatch watch;
        for ([[maybe_unused]] auto _ : state) {
            std::filesystem::create_directory(directory / "to");
            int copied = 0;
            watch.start();
            for (std::size_t i = 0; i < COUNT; ++i) {
                copied += Files::copy(from[i], to[i]) ? 1 : 0;
            }
            state.SetIterationTime(watch.stop());
            if (copied != COUNT ||
                std::filesystem::file_size(directory / "to/entry-999.dat") != SIZE) {
                state.SkipWithError("Not every file was copied.");
                break;
            }
            std::filesystem::remove_all(directory / "to");
        }
        report(state, watch);
    }
};

}  // namespace ovra::bench
