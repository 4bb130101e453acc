#include "HashTask.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

#include <ovra/fs/FileHandle.h>

#include "Messages.h"
#include "Sha256.h"

namespace manifest {

namespace {

constexpr std::size_t BLOCK_BYTES = 65536;

// Opening a named pipe, which has no size, would wait for a writer that may never come. The pipes
// below "/dev/", such as standard input, have a writer.
bool isNamedPipe(std::string const& path) {
    struct stat status = {};
    return path.compare(0, 5, "/dev/") != 0 && stat(path.c_str(), &status) == 0 &&
           S_ISFIFO(status.st_mode);
}

}  // namespace

HashTask::HashTask(std::string const& filePath, std::int64_t fileSizeBytes,
                   std::shared_ptr<Progress> sharedProgress)
    : file(filePath),
      nameForLog(forLog(filePath)),
      size(fileSizeBytes),
      progress(std::move(sharedProgress)) {}

HashTask::~HashTask() = default;

ovra::concurrent::Executable::Result HashTask::execute() {
    // Counted here and not in the completion callback, which may run after the last waiter has
    // reported the count.
    Result const result = readAndHash();
    progress->fileDone();
    return result;
}

ovra::concurrent::Executable::Result HashTask::readAndHash() {
    if (size <= 0 && isNamedPipe(file)) {
        reason = "is a named pipe";
        return FAILURE;
    }
    ovra::fs::FileHandle const handle(file);
    auto const stream = handle.CreateInputStream(std::ios_base::binary);
    if (!*stream) {
        reason = whyFileNotOpened(file);
        if (reason.empty()) {
            reason = "Input/output error";  // The file can be opened now.
        }
        return FAILURE;
    }

    static thread_local Sha256 sha256;
    sha256.restart();
    char block[BLOCK_BYTES];
    while (*stream) {
        stream->read(block, sizeof block);
        sha256.add(block, static_cast<std::size_t>(stream->gcount()));
        progress->advance(stream->gcount());
    }
    if (stream->bad()) {
        reason = handle.IsDirectory() ? "Is a directory" : "Input/output error";
        return FAILURE;
    }
    computedDigest = sha256.finish();
    return SUCCESS;
}

char const* HashTask::name() const {
    return nameForLog.c_str();
}

std::string const& HashTask::path() const {
    return file;
}

std::int64_t HashTask::sizeBytes() const {
    return size;
}

std::optional<Digest> const& HashTask::digest() const {
    return computedDigest;
}

std::string const& HashTask::error() const {
    return reason;
}

bool HashTask::isMissing() const {
    return reason == std::generic_category().message(ENOENT);
}

}  // namespace manifest
