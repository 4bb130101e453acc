// What it costs to remove a tree safely: removeTree() beside the bare system calls that the same
// tree takes at least, and beside std::filesystem. In memory, where the calls themselves cost
// least.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include <ovra/extra/RemoveTree.h>

namespace {

double processorSeconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void require(bool succeeded) {
    if (!succeeded) {
        std::abort();
    }
}

std::string const ROOT = "/tmp/tree";

// Directories in a chain of `depth`, each with `width` more beside it, and files in all of them.
void makeTree(int depth, int width, int files) {
    std::string path = ROOT;
    for (int level = 0; level < depth; ++level) {
        require(mkdir(path.c_str(), 0777) == 0);
        for (int i = 0; i < width; ++i) {
            std::string const side = path + "/side" + std::to_string(i);
            require(mkdir(side.c_str(), 0777) == 0);
            for (int file = 0; file < files; ++file) {
                std::string const name = side + "/file" + std::to_string(file);
                close(open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
            }
        }
        path += "/down";
    }
}

// Each directory opened, read and closed, and each entry removed, once.
void removeBare(int parent, char const* name) {
    int const directory = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    alignas(struct dirent64) char buffer[32768];
    std::string directories;
    for (ssize_t length; (length = getdents64(directory, buffer, sizeof buffer)) > 0;) {
        for (ssize_t offset = 0; offset < length;) {
            void* const at = buffer + offset;
            auto const* const entry = static_cast<struct dirent64 const*>(at);
            offset += entry->d_reclen;
            if (entry->d_type != DT_DIR) {
                unlinkat(directory, entry->d_name, 0);
            } else if (entry->d_name[0] != '.') {
                directories.append(entry->d_name, std::strlen(entry->d_name) + 1);
            }
        }
    }
    for (std::size_t at = 0; at < directories.size(); at = directories.find('\0', at) + 1) {
        removeBare(directory, directories.c_str() + at);
    }
    close(directory);
    unlinkat(parent, name, AT_REMOVEDIR);
}

template <typename Remove>
void removeTrees(benchmark::State& state, Remove remove) {
    for (auto _ : state) {
        makeTree(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)),
                 static_cast<int>(state.range(2)));
        double const begin = processorSeconds();
        remove();
        state.SetIterationTime(processorSeconds() - begin);
        require(access(ROOT.c_str(), F_OK) != 0);
    }
}

void bare(benchmark::State& state) {
    removeTrees(state, [] { removeBare(AT_FDCWD, ROOT.c_str()); });
}

void ovraExtra(benchmark::State& state) {
    removeTrees(state, [] { ovra::extra::removeTree(ROOT); });
}

void standard(benchmark::State& state) {
    removeTrees(state, [] { std::filesystem::remove_all(ROOT); });
}

void shapes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"depth", "width", "files"})
        ->Args({1, 100, 100})
        ->Args({10, 20, 10})
        ->Args({40, 10, 3})
        ->UseManualTime();
}

BENCHMARK(bare)->Name("removeTree/bare")->Apply(shapes);
BENCHMARK(ovraExtra)->Name("removeTree/ovra-extra")->Apply(shapes);
BENCHMARK(standard)->Name("removeTree/std::filesystem")->Apply(shapes);

}  // namespace
