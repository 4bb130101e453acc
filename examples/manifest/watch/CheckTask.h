#pragma once

#include <cstddef>
#include <string>

#include <ovra/concurrent/Task.h>

#include "FileHash.h"
#include "Findings.h"
#include "ListedFiles.h"
#include "Pace.h"

namespace manifest {

/// Compares one file with its line of the manifest, in the background.
class CheckTask : public ovra::concurrent::Task {
public:
    /// Who waits for the checks.
    class Owner {
    public:
        virtual ~Owner();
        /// The file has been read, or cannot be. Not called for one that `Pace::stop` has stopped.
        virtual void checked(std::size_t number) = 0;
    };

    /// All references must be valid until the work has ended.
    CheckTask(ListedFiles const& listed, std::size_t fileNumber, Findings& findingsToFill,
              Pace& readingPace, bool isEager, Owner& checkOwner);

    Result execute() override;
    /// The path, for people.
    char const* name() const override;

private:
    void record(FileHash const& hash);

    ListedFiles const& files;
    std::size_t const number;
    Findings& findings;
    Pace& pace;
    bool const eager;
    Owner& owner;
    std::string const path;
};

}  // namespace manifest
