#include "Check.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <istream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <ovra/fs/FileHandle.h>

#include "FileSearch.h"
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

struct Manifest {
    std::vector<ManifestEntry> entries;
    std::size_t malformedLines = 0;
    bool readError = false;
};

Manifest readManifest(std::istream& stream, bool isStandardInput, Interrupt const& interrupt) {
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
            manifest.entries.push_back(*std::move(entry));
        } else {
            ++manifest.malformedLines;
        }
    }
    manifest.readError = stream.bad();
    return manifest;
}

// Only a newline would break the output, so sha256sum escapes no other path here.
std::string asOneLine(std::string const& path) {
    return path.find('\n') == std::string::npos ? path : escapedPath(path);
}

// Prints the outcome of each file, and counts.
class Report {
public:
    explicit Report(Options const& how) : options(how) {}

    void add(ManifestEntry const& entry, HashTask const& task) {
        std::string const& digest = task.digest();
        if (options.ignoreMissing && task.isMissing()) {
            ++missing;
        } else if (!task.error().empty()) {
            complain(quoted(entry.path) + ": " + task.error());
            ++unreadable;
            print(entry, ": FAILED open or read\n");
        } else if (digest.empty()) {
            return;  // Not begun before Ctrl-C.
        } else if (std::equal(digest.begin(), digest.end(), entry.digest.begin(), sameDigit)) {
            ++well;
            if (!options.quiet) {
                print(entry, ": OK\n");
            }
        } else {
            ++different;
            print(entry, ": FAILED\n");
        }
        ++told;
    }

    // A file of the tree that the manifest does not list.
    void addNew(std::string const& path) {
        ++unlisted;
        print({"", path}, ": NEW\n");
    }

    void warn(std::size_t malformedLines, std::string const& manifest) const {
        if (options.status) {
            return;
        }
        warnOf(malformedLines, "line is improperly formatted", "lines are improperly formatted");
        warnOf(unreadable, "listed file could not be read", "listed files could not be read");
        warnOf(different, "computed checksum did NOT match", "computed checksums did NOT match");
        warnOf(unlisted, "file is not listed", "files are not listed");
        if (options.ignoreMissing && well == 0) {
            complain(manifest + ": no file was verified");
        }
    }

    std::size_t filesTold() const { return told; }
    bool isAllWell() const {
        return unreadable == 0 && different == 0 && unlisted == 0 && (well > 0 || missing == 0);
    }

private:
    static bool sameDigit(char computed, char listed) {
        return computed == std::tolower(static_cast<unsigned char>(listed));
    }
    static void warnOf(std::size_t count, char const* one, char const* many) {
        if (count > 0) {
            complain("WARNING: " + std::to_string(count) + ' ' + (count == 1 ? one : many));
        }
    }

    void print(ManifestEntry const& entry, char const* outcome) const {
        if (!options.status) {
            std::cout << asOneLine(entry.path) + outcome;
        }
    }

    Options const& options;
    std::size_t told = 0;
    std::size_t well = 0;
    std::size_t missing = 0;  // Those that are ignored.
    std::size_t unlisted = 0;
    std::size_t unreadable = 0;
    std::size_t different = 0;
};

// Hashes and reports in the order of the manifest. After Ctrl-C, files that were not begun are
// skipped.
void verifyAll(std::vector<ManifestEntry> const& entries, Options const& options,
               Interrupt& interrupt, Report& report) {
    std::vector<FoundFile> files;
    std::int64_t bytes = 0;
    for (auto const& entry : entries) {
        std::string const path = entry.path == "-" ? STANDARD_INPUT : entry.path;
        files.push_back({path, FileHandle(path).Size()});
        bytes += files.back().sizeBytes;
    }
    auto const progress = std::make_shared<Progress>(files.size(), bytes, !options.verbose);
    std::vector<std::shared_ptr<HashTask>> tasks;
    std::size_t submitted = 0;
    {
        Hasher hasher(makeExecutor(options.jobs), progress, interrupt);
        for (auto const& file : files) {
            tasks.push_back(std::make_shared<HashTask>(file.path, file.sizeBytes, progress));
            hasher.submit(tasks.back());
        }
        submitted = hasher.submitted();
        for (std::size_t number = 0; number < submitted; ++number) {
            hasher.waitFor(number);
            if (!options.verbose) {
                progress->hide();
                report.add(entries[number], *tasks[number]);
            }
        }
    }
    progress->finish();
    // Only now, when no worker logs any more: log lines and results go to the same place.
    for (std::size_t number = 0; options.verbose && number < submitted; ++number) {
        report.add(entries[number], *tasks[number]);
    }
    std::cout << std::flush;
}

// Whether all of the tree could be seen.
bool reportNew(Manifest const& manifest, Options const& options, Interrupt const& interrupt,
               Report& report) {
    FileSearch search(interrupt);
    for (std::string const& ownFile : {options.manifest, logFile(options)}) {
        if (!ownFile.empty()) {
            search.leaveOut(ownFile);
        }
    }
    search.addFilesBelow(options.newBelow);
    std::set<std::string> listed;
    for (auto const& entry : manifest.entries) {
        listed.insert(entry.path);
    }
    for (auto const& file : search.sortedFiles()) {
        if (listed.count(file.path) == 0) {
            report.addNew(file.path);
        }
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
    Manifest const manifest = readManifest(*stream, isStandardInput, interrupt);

    Report report(options);
    verifyAll(manifest.entries, options, interrupt, report);
    if (interrupt.requested()) {
        complain("interrupted after " + std::to_string(report.filesTold()) + " of " +
                 std::to_string(manifest.entries.size()) + " files");
        return INTERRUPTED;
    }
    if (manifest.readError) {
        complain(name + ": read error");
        return TROUBLE;
    }
    if (manifest.entries.empty()) {
        complain(name + ": no properly formatted checksum lines found");
        return TROUBLE;
    }
    bool const isTreeSeen =
        options.newBelow.empty() || reportNew(manifest, options, interrupt, report);
    report.warn(manifest.malformedLines, name);
    if (!std::cout) {
        complain("standard output: cannot be written");
        return TROUBLE;
    }
    bool const isStrict = options.strict && manifest.malformedLines > 0;
    return report.isAllWell() && isTreeSeen && !isStrict ? ALL_WELL : TROUBLE;
}

}  // namespace manifest
