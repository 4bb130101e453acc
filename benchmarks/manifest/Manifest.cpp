#include <cstdlib>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include <benchmarks/fs/FileBenchmarks.h>
#include <benchmarks/support/TemporaryDirectory.h>

namespace ovra::bench {

namespace {

// A whole application, ovra-manifest, next to the pipeline of programs that does the same work.

/// What there is to hash. All of it takes minutes: OVRA_BENCH_FULL=1.
struct Tree {
    char const* name;
    int files;
    int fullFiles;
    std::size_t bytes;
    std::size_t fullBytes;
};
constexpr std::size_t MEBIBYTE = 1024 * 1024;
constexpr Tree TREES[] = {{"small", 5000, 200000, 1000, 1000},
                          {"large", 8, 8, 16 * MEBIBYTE, 256 * MEBIBYTE}};

bool isFull() {
    char const* const wanted = std::getenv("OVRA_BENCH_FULL");
    return wanted != nullptr && std::string(wanted) == "1";
}

/// Made at the first use, with 1 000 files in a directory.
std::string const& treeOf(Tree const& tree) {
    static TemporaryDirectory const directory;
    static std::string roots[std::size(TREES)];
    std::string& root = roots[&tree - TREES];
    if (root.empty()) {
        int const files = isFull() ? tree.fullFiles : tree.files;
        std::string const path = directory / tree.name;
        for (int first = 0; first < files; first += 1000) {
            makeFiles(path + "/part-" + std::to_string(first), std::min(files - first, 1000),
                      isFull() ? tree.fullBytes : tree.bytes);
        }
        root = path;
    }
    return root;
}

void add(std::string const& what, std::string const& contestant, Tree const& tree,
         std::string const& prepare, std::string const& command) {
    benchmark::RegisterBenchmark(
        ("manifest-" + what + "-" + tree.name + "/" + contestant).c_str(),
        [prepare, command, &tree](benchmark::State& state) {
            TemporaryDirectory const scratch;
            std::string const place =
                "cd '" + treeOf(tree) + "' && manifest='" + (scratch / "manifest") + "' && ";
            if (!prepare.empty() && std::system((place + prepare).c_str()) != 0) {
                state.SkipWithError("The manifest cannot be made.");
                return;
            }
            for ([[maybe_unused]] auto _ : state) {
                if (std::system((place + command).c_str()) != 0) {
                    state.SkipWithError("The command has failed.");
                    return;
                }
            }
        })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

[[maybe_unused]] bool const isAdded = [] {
    std::string const ours = "'" OVRA_MANIFEST_PROGRAM "' ";
    std::string const theirs = "find . -type f -print0 | xargs -0 -P2 -n 500 sha256sum >$manifest";
    for (Tree const& tree : TREES) {
        std::string const pipeline = tree.files > 100
                                         ? theirs
                                         : "find . -type f -print0 | xargs -0 -P2 -n 1 "
                                           "sha256sum >$manifest";
        add("create", "ovra", tree, "", ours + "create --jobs 2 -o $manifest .");
        add("create", "find and sha256sum", tree, "", pipeline);
        add("check", "ovra", tree, pipeline, ours + "check --jobs 2 $manifest >/dev/null");
        add("check", "sha256sum", tree, pipeline, "sha256sum --quiet --check $manifest");
        add("check", "find and sha256sum", tree, pipeline,
            tree.files > 100 ? "split -n l/2 $manifest $manifest. && "
                               "ls $manifest.* | xargs -P2 -n 1 sha256sum --quiet --check"
                             : "split -l 1 $manifest $manifest. && "
                               "ls $manifest.* | xargs -P2 -n 1 sha256sum --quiet --check");
    }
    return true;
}();

}  // namespace

}  // namespace ovra::bench
