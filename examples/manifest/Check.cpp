#include "Check.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <ovra/fs/FileHandle.h>

#include "CheckReport.h"
#include "Digest.h"
#include "FileSearch.h"
#include "HashAll.h"
#include "HashTask.h"
#include "Hasher.h"
#include "Logging.h"
#include "ManifestLine.h"
#include "Messages.h"
#include "Progress.h"
#include "Quote.h"

namespace manifest {

using ovra::fs::FileHandle;

namespace {

std::string const STANDARD_INPUT = "/dev/stdin";

std::string fileNamed(std::string const& path) {
    return path == "-" ? STANDARD_INPUT : path;
}

struct Manifest {
    std::vector<FoundFile> files;  // As they are found now.
    std::vector<Digest> digests;   // As they were.
    std::size_t malformedLines = 0;
    bool readError = false;
};

Manifest readManifest(std::istream& stream, Options const& options, Interrupt const& interrupt) {
    bool const isStandardInput = options.manifest == "-";
    Progress progress("reading the manifest", !options.verbose);
    Manifest manifest;
    ManifestReader reader;
    std::string line;
    while (!interrupt.requested() && std::getline(stream, line)) {
        if (!line.empty() && line[0] == '#') {
            continue;
        }
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        if (line.empty()) {
            continue;
        }
        auto entry = reader.parse(line);
        if (entry && !(isStandardInput && entry->path == "-")) {
            std::int64_t const sizeBytes = FileHandle(fileNamed(entry->path)).Size();
            manifest.files.push_back({std::move(entry->path), sizeBytes});
            manifest.digests.push_back(digestFrom(entry->digest));
            progress.found();
        } else {
            ++manifest.malformedLines;
        }
    }
    progress.finish();
    manifest.readError = stream.bad();
    return manifest;
}

// Collects the verdicts, which come in another order, and reports them in the order of the
// manifest.
class Verdicts {
public:
    Verdicts(Manifest const& checked, CheckReport& reportTo)
        : manifest(checked), report(reportTo), verdicts(checked.files.size()) {}

    void keep(std::size_t number, HashTask const& task) {
        if (!task.error().empty()) {
            verdicts[number] = task.isMissing() ? Verdict::MISSING : Verdict::UNREADABLE;
            reasons.emplace(number, task.error());
        } else if (task.digest()) {
            bool const isWell = task.digest() == manifest.digests[number];
            verdicts[number] = isWell ? Verdict::WELL : Verdict::DIFFERENT;
        }
    }

    // Up to the first verdict that is unknown.
    void reportKnown(Progress& progress) {
        while (next < verdicts.size() && verdicts[next] != Verdict::UNKNOWN) {
            progress.hide();
            reportNext();
        }
    }
    // Leaves out unknown verdicts.
    void reportRest() {
        while (next < verdicts.size()) {
            reportNext();
        }
    }

private:
    void reportNext() {
        auto const reason = reasons.find(next);
        report.add(manifest.files[next].path, verdicts[next],
                   reason == reasons.end() ? "" : reason->second);
        ++next;
    }

    Manifest const& manifest;
    CheckReport& report;
    std::vector<Verdict> verdicts;  // By the number of the file.
    std::map<std::size_t, std::string> reasons;
    std::size_t next = 0;
};

// After Ctrl-C, files that were not begun are skipped.
void verifyAll(Manifest const& manifest, Options const& options, Interrupt& interrupt,
               CheckReport& report) {
    std::int64_t bytes = 0;
    for (auto const& file : manifest.files) {
        bytes += file.sizeBytes;
    }
    auto const progress =
        std::make_shared<Progress>(manifest.files.size(), bytes, !options.verbose);
    auto const makeTask = [&progress](FoundFile const& file) {
        return std::make_shared<HashTask>(fileNamed(file.path), file.sizeBytes, progress);
    };
    Verdicts verdicts(manifest, report);
    auto const keep = [&](std::size_t number, HashTask const& task) {
        verdicts.keep(number, task);
        if (!options.verbose) {
            verdicts.reportKnown(*progress);
        }
    };
    {
        Hasher hasher(makeExecutor(options.jobs), progress, interrupt);
        hashAll(hasher, manifest.files, "", makeTask, keep);
    }
    progress->finish();
    // With --verbose, these are all the verdicts: earlier, workers would log in between.
    verdicts.reportRest();
    flushOutput();
}

// Whether all of the tree could be seen.
bool reportNew(Manifest const& manifest, Options const& options, Interrupt const& interrupt,
               CheckReport& report) {
    Progress progress("walking", !options.verbose);
    FileSearch search(interrupt, &progress);
    for (std::string const& ownFile : {options.manifest, logFile(options)}) {
        if (!ownFile.empty()) {
            search.leaveOut(ownFile);
        }
    }
    std::vector<std::string_view> listed;
    listed.reserve(manifest.files.size());
    for (auto const& file : manifest.files) {
        listed.emplace_back(file.path);
    }
    std::sort(listed.begin(), listed.end());
    search.leaveOutIf([&listed](std::string const& path) {
        return std::binary_search(listed.begin(), listed.end(), path);
    });
    search.addFilesBelow(options.newBelow);
    progress.finish();
    for (auto const& file : search.sortedFiles()) {
        report.addNew(file.path);
    }
    return search.isComplete();
}

}  // namespace

ExitStatus check(Options const& options, Interrupt& interrupt) {
    bool const isStandardInput = options.manifest == "-";
    std::string const source = isStandardInput ? STANDARD_INPUT : options.manifest;
    std::string const name = quoted(isStandardInput ? "standard input" : options.manifest);
    auto const stream = FileHandle(source).CreateInputStream(std::ios_base::binary);
    if (!*stream) {
        complain(name + ": " + whyFileNotOpened(source));
        return TROUBLE;
    }
    Manifest const manifest = readManifest(*stream, options, interrupt);
    if (interrupt.requested()) {
        complain("interrupted while reading the manifest");
        return INTERRUPTED;
    }

    CheckReport report(options);
    verifyAll(manifest, options, interrupt, report);
    if (interrupt.requested()) {
        complain("interrupted after " + std::to_string(report.filesReported()) + " of " +
                 std::to_string(manifest.files.size()) + " files");
        return INTERRUPTED;
    }
    if (manifest.readError) {
        complain(name + ": read error");
        return TROUBLE;
    }
    if (manifest.files.empty()) {
        complain(name + ": no properly formatted checksum lines found");
        return TROUBLE;
    }
    bool const isTreeSeen =
        options.newBelow.empty() || reportNew(manifest, options, interrupt, report);
    if (interrupt.requested()) {
        complain("interrupted while looking for new files");
        return INTERRUPTED;
    }
    report.warn(manifest.malformedLines, name);
    if (!finishOutput()) {
        return TROUBLE;
    }
    bool const isStrict = options.strict && manifest.malformedLines > 0;
    return report.isAllWell() && isTreeSeen && !isStrict ? ALL_WELL : TROUBLE;
}

}  // namespace manifest
