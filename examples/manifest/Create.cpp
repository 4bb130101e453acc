#include "Create.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <ovra/log/Log.h>

#include "Digest.h"
#include "FileSearch.h"
#include "HashAll.h"
#include "HashTask.h"
#include "Hasher.h"
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

constexpr std::size_t WRITE_BYTES = 65536;

// What is kept of each file's task.
struct Outcomes {
    std::vector<Digest> digests;  // Zeros for a file without one.
    std::map<std::size_t, std::string> errors;
};

FileSearch searchAll(Options const& options, Interrupt const& interrupt) {
    Progress progress("walking", !options.verbose);
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

// Hashes all files, or as many as were begun before Ctrl-C.
Outcomes hashFiles(std::vector<FoundFile> const& files, std::shared_ptr<Progress> const& progress,
                   Options const& options, Interrupt& interrupt) {
    auto const start = std::chrono::steady_clock::now();
    Outcomes outcomes;
    outcomes.digests.resize(files.size());
    auto const makeTask = [&progress](FoundFile const& file) {
        return std::make_shared<HashTask>(file.path, file.sizeBytes, progress);
    };
    auto const keep = [&outcomes](std::size_t number, HashTask const& task) {
        if (task.digest()) {
            outcomes.digests[number] = *task.digest();
        } else if (!task.error().empty()) {
            outcomes.errors.emplace(number, task.error());
        }
    };
    Hasher hasher(makeExecutor(options.jobs), progress, interrupt);
    std::size_t const raised = hashAll(hasher, files, options.first, makeTask, keep);
    progress->finish();
    log::log(log::INFO, TAG, "%zu tasks at HIGH, %zu at NORMAL, %zu of them raised to HIGHEST.",
             hasher.submittedAsSmall(), hasher.submitted() - hasher.submittedAsSmall(), raised);
    std::chrono::duration<double> const taken = std::chrono::steady_clock::now() - start;
    log::log(log::INFO, TAG, "Read %zu of %zu files, %lld bytes, in %.3f seconds.",
             progress->files(), files.size(), static_cast<long long>(progress->bytes()),
             taken.count());
    return outcomes;
}

void warnIfFirstIsNothing(std::string const& first, std::vector<FoundFile> const& files) {
    bool const isThere =
        first.empty() || std::any_of(files.begin(), files.end(), [&](FoundFile const& file) {
            return isAtOrBelow(first, file.path);
        });
    if (!isThere) {
        say("--first " + quoted(first) + ": nothing there");
    }
}

// Passes the manifest to `write`, piece by piece.
void writeLines(std::vector<FoundFile> const& files, Outcomes const& outcomes,
                std::function<void(std::string const&)> const& write) {
    std::string block;
    for (std::size_t number = 0; number < files.size(); ++number) {
        if (outcomes.errors.count(number) == 0) {
            block += manifestLine({digitsOf(outcomes.digests[number]), files[number].path});
        }
        if (block.size() >= WRITE_BYTES) {
            write(block);
            block.clear();
        }
    }
    write(block);
}

ExitStatus interrupted(std::size_t done, std::size_t all) {
    complain("interrupted after " + std::to_string(done) + " of " + std::to_string(all) +
             " files: no manifest written");
    return INTERRUPTED;
}

}  // namespace

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
    warnIfFirstIsNothing(options.first, files);
    Outcomes const outcomes = hashFiles(files, progress, options, interrupt);
    for (auto const& [number, error] : outcomes.errors) {
        complain(quoted(files[number].path) + ": " + error);
    }

    bool allWell = search.isComplete() && outcomes.errors.empty();
    if (output && !interrupt.requested()) {
        writeLines(files, outcomes, [&](std::string const& block) { output->write(block); });
    }
    if (interrupt.requested()) {
        return interrupted(progress->files(), files.size());
    }
    if (output) {
        output->moveIntoPlace();
    } else {
        writeLines(files, outcomes, print);
        allWell = finishOutput() && allWell;
    }
    return allWell ? ALL_WELL : TROUBLE;
}

}  // namespace manifest
