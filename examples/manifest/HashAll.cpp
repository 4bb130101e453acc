#include "HashAll.h"

#include <deque>
#include <utility>

namespace manifest {

namespace {

// While there are more files to submit, small ones are waited for and reported in groups of this
// size.
constexpr std::size_t SMALL_FILES_AT_A_TIME = 128;

enum Turn { FIRST, SMALL, LARGE };

Turn turnOf(FoundFile const& file, std::string const& first) {
    if (!first.empty() && isAtOrBelow(first, file.path)) {
        return FIRST;
    }
    return Hasher::isSmall(file.sizeBytes) ? SMALL : LARGE;
}

// The tasks that exist, oldest first.
class Window {
public:
    using Report = std::function<void(std::size_t, HashTask const&)>;

    Window(Hasher& shared, Report const& reportTo) : hasher(shared), report(reportTo) {}

    void makeRoom(Turn turn) {
        if (tasks.size() == TASKS_UNDER_WAY) {
            waitForOldest(turn == SMALL ? SMALL_FILES_AT_A_TIME : 1);
        }
    }

    // False once the hasher is cancelled.
    bool add(std::size_t number, std::shared_ptr<HashTask> task) {
        if (!hasher.submit(task)) {
            return false;
        }
        tasks.emplace_back(number, std::move(task));
        return true;
    }

    void waitForAll() {
        while (!tasks.empty()) {
            waitForOldest(1);
        }
    }

private:
    // The last of them first, so that this thread sleeps once.
    void waitForOldest(std::size_t count) {
        std::size_t const oldest = hasher.submitted() - tasks.size();
        for (std::size_t i = count; i-- > 0;) {
            hasher.waitFor(oldest + i);
        }
        for (std::size_t i = 0; i < count; ++i) {
            report(tasks.front().first, *tasks.front().second);
            tasks.pop_front();
        }
    }

    Hasher& hasher;
    Report const& report;
    std::deque<std::pair<std::size_t, std::shared_ptr<HashTask>>> tasks;
};

}  // namespace

std::size_t hashAll(Hasher& hasher, std::vector<FoundFile> const& files, std::string const& first,
                    std::function<std::shared_ptr<HashTask>(FoundFile const&)> const& makeTask,
                    std::function<void(std::size_t, HashTask const&)> const& report) {
    Window window(hasher, report);
    std::size_t raised = 0;
    auto const submit = [&](Turn turn) {
        for (std::size_t number = 0; number < files.size(); ++number) {
            if (turnOf(files[number], first) != turn) {
                continue;
            }
            window.makeRoom(turn);
            if (!window.add(number, makeTask(files[number]))) {
                return false;
            }
            if (turn == FIRST) {
                hasher.raise(hasher.submitted() - 1);
                ++raised;
            }
        }
        return true;
    };
    for (Turn const turn : {FIRST, SMALL, LARGE}) {
        if (!submit(turn)) {
            break;
        }
    }
    window.waitForAll();
    return raised;
}

bool isAtOrBelow(std::string const& directory, std::string const& path) {
    std::size_t const length = directory.size() - (directory.back() == '/' ? 1 : 0);
    return path.compare(0, length, directory, 0, length) == 0 &&
           (path.size() == length || path[length] == '/');
}

}  // namespace manifest
