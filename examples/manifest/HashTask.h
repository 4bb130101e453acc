#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <ovra/concurrent/Task.h>

#include "Digest.h"
#include "Progress.h"

namespace manifest {

/// The piece of work of this program: reads one file and computes its digest.
///
/// It owns all it needs, its name included, because an executor may hold a task for a moment longer
/// than whoever waits for it. Its outcome is read after the wait.
class HashTask : public ovra::concurrent::Task {
public:
    HashTask(std::string const& filePath, std::int64_t fileSizeBytes,
             std::shared_ptr<Progress> sharedProgress);
    HashTask(HashTask const&) = delete;
    HashTask& operator=(HashTask const&) = delete;
    ~HashTask() override;

    /// `FAILURE` if the file cannot be read: see `error()`.
    Result execute() override;
    /// The path, made safe for log lines.
    char const* name() const override;

    std::string const& path() const;
    std::int64_t sizeBytes() const;

    /// Empty if the file has not been read or could not be.
    std::optional<Digest> const& digest() const;
    /// Why the file could not be read; empty otherwise.
    std::string const& error() const;
    /// Whether that is because the file does not exist.
    bool isMissing() const;

private:
    Result readAndHash();

    std::string const file;
    std::string const nameForLog;
    std::int64_t const size;
    std::shared_ptr<Progress> const progress;
    std::optional<Digest> computedDigest;
    std::string reason;
};

}  // namespace manifest
