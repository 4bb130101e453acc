#include "Create.h"

#include <chrono>
#include <cstdint>
#include <iostream>
#include <optional>

#include <ovra/log/Log.h>

#include "FileSearch.h"
#include "Logging.h"
#include "ManifestFile.h"
#include "ManifestLine.h"
#include "Messages.h"
#include "Progress.h"
#include "Quote.h"

namespace manifest {

namespace log = ovra::log;

namespace {

constexpr char TAG[] = "create()";

using Tasks = std::vector<std::shared_ptr<HashTask>>;

bool isAtOrBelow(std::string directory, std::string const& path) {
    if (directory.back() != '/') {
        directory += '/';
    }
    return (path + '/').compare(0, directory.size(), directory) == 0;
}

FileSearch searchAll(Options const& options, Interrupt const& interrupt) {
    Progress progress(!options.verbose);
    FileSearch search(interrupt, &progress);
    for (std::string const& ownFile : {options.output, logFile(options)}) {
        if (!ownFile.empty()) {
            search.leaveOut(ownFile);
        }
    }
    for (auto const& directory : options.directories) {
        search.addFilesBelow(directory);
    }
    progress.finish();
    return search;
}

// Hashes all files, or as many as were begun before Ctrl-C, and leaves the outcome in the tasks.
void hashAll(Tasks const& tasks, std::shared_ptr<Progress> const& progress, Options const& options,
             Interrupt& interrupt) {
    auto const start = std::chrono::steady_clock::now();
    Hasher hasher(makeExecutor(options.jobs), progress, interrupt);
    std::size_t const raised = submitAll(hasher, tasks, options.first);
    if (raised == 0 && !options.first.empty() && !interrupt.requested()) {
        say("--first " + quoted(options.first) + ": nothing there");
    }
    log::log(log::INFO, TAG, "%zu tasks at HIGH, %zu at NORMAL, %zu of them raised to HIGHEST.",
             hasher.submittedAsSmall(), hasher.submitted() - hasher.submittedAsSmall(), raised);
    for (std::size_t number = 0; number < hasher.submitted(); ++number) {
        hasher.waitFor(number);
    }
    progress->finish();
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - start;
    log::log(log::INFO, TAG, "Read %zu of %zu files, %lld bytes, in %.3f seconds.",
             progress->files(), tasks.size(), static_cast<long long>(progress->bytes()),
             taken.count());
}

ExitStatus interrupted(std::size_t done, std::size_t all) {
    complain("interrupted after " + std::to_string(done) + " of " + std::to_string(all) +
             " files: no manifest written");
    return INTERRUPTED;
}

}  // namespace

std::size_t submitAll(Hasher& hasher, Tasks const& tasks, std::string const& first) {
    for (auto const& task : tasks) {
        if (!hasher.submit(task)) {
            break;
        }
    }
    std::size_t raised = 0;
    for (std::size_t number = 0; number < hasher.submitted() && !first.empty(); ++number) {
        if (isAtOrBelow(first, tasks[number]->path())) {
            hasher.raise(number);
            ++raised;
        }
    }
    return raised;
}

ExitStatus create(Options const& options, Interrupt& interrupt) {
    std::optional<ManifestFile> output;
    if (!options.output.empty()) {
        output.emplace(options.output);
    }

    FileSearch search = searchAll(options, interrupt);
    std::vector<FoundFile> const files = search.sortedFiles();
    if (interrupt.requested()) {
        complain("interrupted while looking for files: no manifest written");
        return INTERRUPTED;
    }

    std::int64_t bytes = 0;
    for (auto const& file : files) {
        bytes += file.sizeBytes;
    }
    auto const progress = std::make_shared<Progress>(files.size(), bytes, !options.verbose);
    Tasks tasks;
    for (auto const& file : files) {
        tasks.push_back(std::make_shared<HashTask>(file.path, file.sizeBytes, progress));
    }
    hashAll(tasks, progress, options, interrupt);

    bool allWell = search.isComplete();
    std::string lines;
    for (auto const& task : tasks) {
        if (!task->digest().empty()) {
            lines += manifestLine({task->digest(), task->path()});
        } else if (!task->error().empty()) {
            complain(quoted(task->path()) + ": " + task->error());
            allWell = false;
        }
    }

    if (output && !interrupt.requested()) {
        output->write(lines);
    }
    if (interrupt.requested()) {
        return interrupted(progress->files(), files.size());
    }
    if (output) {
        output->moveIntoPlace();
    } else if (!(std::cout << lines << std::flush)) {
        complain("standard output: cannot be written");
        allWell = false;
    }
    return allWell ? ALL_WELL : TROUBLE;
}

}  // namespace manifest
