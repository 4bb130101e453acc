#include <algorithm>
#include <utility>

#include <ovra/concurrent/TaskLine.h>

namespace ovra::concurrent {

namespace {

// What is empty keeps its memory if it is for no more than this.
constexpr std::size_t SPARE_ENTRIES = 128;

constexpr std::size_t CACHE_LINE = 64;

}  // namespace

bool TaskLine::append(QueuedTask& queued) {
    if (!entries.empty() && urgencyOf(queued) > urgencyOf(entries.back())) {
        return false;
    }
    entries.push_back(std::move(queued));
    return true;
}

TaskLine::QueuedTask const& TaskLine::find(SubmittedTask const& task) const {
    if (front().task.get() == &task) {
        return front();
    }
    unsigned int const score = rank + static_cast<unsigned int>(task.getUniqueIndex());
    auto entry = std::lower_bound(entries.begin(), entries.end(), score,
                                  [this](QueuedTask const& queued, unsigned int wanted) {
                                      return urgencyOf(queued).score > wanted;
                                  });
    while (entry->task.get() != &task) {
        ++entry;  // Indices come again after 4294967296 submissions.
    }
    return *entry;
}

// Brings in a task that is soon to run, while the one before it still does. Inlined always, as g++
// drops calls that do nothing else.
[[gnu::always_inline]] inline void TaskLine::prefetch(std::size_t place) const {
    if (place < entries.size() && entries[place].task) {
        auto const* const task = reinterpret_cast<char const*>(entries[place].task.get());
        for (std::size_t offset = 0; offset < sizeof(SubmittedTask); offset += CACHE_LINE) {
            __builtin_prefetch(task + offset, 1);
        }
    }
}

void TaskLine::drop(SubmittedTask const& task) {
    QueuedTask const& found = find(task);
    entries[static_cast<std::size_t>(&found - entries.data())].task.reset();
    ++gone;
    while (!isEmpty() && !front().task) {
        ++first;
    }
    prefetch(first + 1);
    // Leaves at most half, so that what is moved is paid for by what has gone.
    if (gone * 2 > entries.size()) {
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [](QueuedTask const& queued) { return !queued.task; }),
                      entries.end());
        first = 0;
        gone = 0;
        giveBackMemory(entries);
    }
}

void TaskLine::giveBackMemory(std::vector<QueuedTask>& entries) {
    if (entries.empty() && entries.capacity() > SPARE_ENTRIES) {
        std::vector<QueuedTask>().swap(entries);
    }
}

}  // namespace ovra::concurrent
