#include "CheckReport.h"

#include "ManifestLine.h"
#include "Messages.h"
#include "Quote.h"

namespace manifest {

namespace {

// Only a newline would break the output, so sha256sum escapes no other path here.
std::string asOneLine(std::string const& path) {
    return path.find('\n') == std::string::npos ? path : escapedPath(path);
}

void warnOf(std::size_t count, char const* one, char const* many) {
    if (count > 0) {
        complain("WARNING: " + std::to_string(count) + ' ' + (count == 1 ? one : many));
    }
}

}  // namespace

CheckReport::CheckReport(Options const& how) : options(how) {}

void CheckReport::add(std::string const& path, Verdict verdict, std::string const& reason) {
    if (verdict == Verdict::UNKNOWN) {
        return;
    }
    ++reported;
    if (verdict == Verdict::WELL) {
        ++well;
        if (!options.quiet) {
            print(path, ": OK\n");
        }
    } else if (verdict == Verdict::DIFFERENT) {
        ++different;
        print(path, ": FAILED\n");
    } else if (verdict == Verdict::MISSING && options.ignoreMissing) {
        ++missing;
    } else {
        ++unreadable;
        complain(quoted(path) + ": " + reason);
        print(path, ": FAILED open or read\n");
    }
}

void CheckReport::addNew(std::string const& path) {
    ++unlisted;
    print(path, ": NEW\n");
}

void CheckReport::warn(std::size_t malformedLines, std::string const& manifest) const {
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

std::size_t CheckReport::filesReported() const {
    return reported;
}

bool CheckReport::isAllWell() const {
    return unreadable == 0 && different == 0 && unlisted == 0 && (well > 0 || missing == 0);
}

void CheckReport::print(std::string const& path, char const* verdict) const {
    if (!options.status) {
        manifest::print(asOneLine(path) + verdict);
    }
}

}  // namespace manifest
