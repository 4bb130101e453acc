// What the fault sweep tries of the second library's operations on files, and of `attempt` on those
// of the first.

#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <ovra/extra.h>
#include <ovra/fs/FilePath.h>

#include <tests/extra/Operations.h>
#include <tests/faults/Sweep.h>

namespace ovra::faults {

namespace {

using extra::attempt;
using extra::Outcome;
using extra::outcomeName;
using fs::FilePath;

std::string const newContents(50000, 'n');

std::string shown(Outcome outcome) {
    return faults::shown(outcomeName(outcome));
}

// Rules and names point at their texts.
char const* kept(std::string const& text) {
    static std::vector<std::unique_ptr<std::string>> texts;
    texts.push_back(std::make_unique<std::string>(text));
    return texts.back()->c_str();
}

// "true" and "false" as `attempt` says it: a failed call by the name of its error.
std::string inWordsOfAttempt(std::string const& results) {
    std::string words;
    for (std::size_t begin = 0; begin <= results.size();) {
        std::size_t const end = std::min(results.find('|', begin), results.size());
        std::string const result = results.substr(begin, end - begin);
        words += (words.empty() ? "" : "|") +
                 (result == "true" ? "DONE" : (result == "false" ? "@" : result));
        begin = end + 1;
    }
    return words;
}

bool answersYesOrNo(Operation const& operation) {
    return operation.result == "true" &&
           std::string(operation.name).compare(0, 12, "FileHandle::") == 0;
}

// Where the operation goes on after that call failed, and why it then fails for good: the last call
// speaks.
std::string lastWord(std::string const& name, Rule const& failed) {
    bool const isLook = failed.call == Call::LSTAT;  // At a directory, which is not seen to be one.
    if (name == "FileHandle::CreateSymbolicLink, inside") {
        return isLook ? "|EXISTS" : "";
    }
    if (name == "FileHandle::Copy, inside" || name == "FileHandle::Move, inside") {
        return isLook ? "|WRONG_KIND" : "";
    }
    if (name == "FileHandle::RemoveDirectoryRecursive") {
        bool const isRoot = isLook && failed.last == 1;
        return isRoot ? "" : "|EXISTS";  // Something stays in a directory.
    }
    return "";
}

// Every operation whose result is a `bool`, through `attempt`.
Operation asAttempt(Operation operation) {
    std::string const name = operation.name;
    operation.name = kept("attempt " + name);
    operation.result = "DONE";
    for (Rule& rule : operation.rules) {
        std::string const words = inWordsOfAttempt(rule.result);
        rule.result =
            kept(words.find('@') != std::string::npos ? words + lastWord(name, rule) : words);
    }
    if (operation.again != nullptr) {
        bool const isDoneAgain = std::string(operation.again) == "true";
        operation.again = isDoneAgain ? "DONE" : "MISSING|EXISTS|REFUSED";
    }
    auto const make = operation.make;
    operation.make = [make] {
        Action const action = make();
        return Action([action] { return shown(attempt([&] { return action() == "true"; })); });
    };
    return operation;
}

constexpr auto NO_OUTCOME = static_cast<Outcome>(-1);  // Its name is in no rule.

// Every operation keeps `errno`, however it ends.
template <typename Run>
Outcome keepingErrno(Run run) {
    errno = EDOM;
    try {
        Outcome const outcome = run();
        return errno == EDOM ? outcome : NO_OUTCOME;
    } catch (std::bad_alloc const&) {
        if (errno != EDOM) {
            return NO_OUTCOME;
        }
        throw;
    }
}

// What stands in the file afterwards, beside the outcome: "DONE new".
std::string replaced(std::string const& entry, FilePath const& path) {
    Outcome const outcome = keepingErrno([&] { return extra::replaceFile(path, newContents); });
    disarm();
    auto const snapshot = tree().snapshot();
    auto const found = snapshot.find(entry);
    char const* const text = found == snapshot.end()                                ? " none"
                             : found->second.find(newContents) != std::string::npos ? " new"
                             : found->second.find(contents()) != std::string::npos  ? " old"
                                                                                    : " mixed";
    return outcomeName(outcome) + std::string(text);
}

// `before`: what stands there before. What cleans up is spared: its failure leaves something
// behind.
Operation replacement(char const* name, std::string const& entry, std::string const& through,
                      std::string const& before) {
    char const* const failed = kept("@ " + before);
    char const* const failedOrDone = kept("@ " + before + "|DONE new");
    char const* const failedOrUnsynced = kept("@ " + before + "|DONE new|DONE_NOT_SYNCED new");
    // A link that is said not to be there is replaced itself.
    char const* const unseen = kept("@ " + before + "|DONE new|DONE " + before);
    return {name,
            "DONE new",
            {any(Call::NEW, OUT_OF_MEMORY), with(ENOENT, Call::STAT, unseen, PARTLY),
             with(ENOTDIR, Call::STAT, failedOrDone, PARTLY), any(Call::STAT, failed),
             any(Call::READLINK, failed), any(Call::CHMOD, failed), any(Call::RENAME, failed),
             // A directory that may not be read can be worked in, but not synced.
             with(EACCES, Call::OPEN, failedOrUnsynced, PARTLY),
             // Another name may be free, or short enough.
             with(EEXIST, Call::OPEN, failedOrDone, PARTLY),
             with(ENAMETOOLONG, Call::OPEN, failedOrDone, PARTLY), any(Call::OPEN, failed),
             any(Call::WRITE, failed),
             // The owner is kept as far as that is allowed.
             with(EPERM, Call::CHOWN, "DONE new", PARTLY),
             with(EINVAL, Call::CHOWN, "DONE new", PARTLY), any(Call::CHOWN, failed),
             nth(Call::SYNC, 1, failed), nth(Call::SYNC, 2, "DONE_NOT_SYNCED new", DONE),
             // The new contents are closed before they count, the directory when all is over.
             with(EINTR, Call::CLOSE, "DONE new", DONE), any(Call::CLOSE, failedOrDone, PARTLY)},
            [entry, through] {
                auto const path = std::make_shared<FilePath>(tree().at(through));
                return Action([entry, path] { return replaced(entry, *path); });
            },
            {entry, through},
            "DONE new",
            false,
            {Call::REMOVE},
            true};
}

std::vector<Operation> replacements() {
    return {replacement("replaceFile", "file", "file", "old"),
            replacement("replaceFile, a new one", "new", "new", "none"),
            replacement("replaceFile, by a link", "file", "link", "old"),
            replacement("replaceFile, by a dangling link", "nowhere", "dangling", "none")};
}

// Removes the tree, and says beside the outcome whether the entry is still there: "DONE gone".
std::function<Action()> removal(std::string const& entry, char const* separators) {
    return [entry, separators] {
        auto const path = std::make_shared<FilePath>(tree().at(entry) + separators);
        return Action([entry, path] {
            Outcome const outcome = keepingErrno([&] { return extra::removeTree(*path); });
            disarm();
            bool const isThere = tree().snapshot().count(entry) != 0;
            return outcomeName(outcome) + std::string(isThere ? " there" : " gone");
        });
    };
}

std::vector<Operation> others() {
    char const* const saidToBeGone = "DONE gone|DONE there|EXISTS there|@ there";
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    return {
        {"syncFile, of a file",
         "DONE",
         {memory, any(Call::STAT, "@"), any(Call::OPEN, "@|DONE"), any(Call::SYNC, "@")},
         [] {
             auto const path = std::make_shared<FilePath>(tree().at("link"));
             return Action(
                 [path] { return shown(keepingErrno([&] { return extra::syncFile(*path); })); });
         },
         {"nothing"},
         nullptr,
         false,
         {},
         true},
        {"syncFile, of a directory",
         "DONE",
         {memory, any(Call::STAT, "@"), any(Call::OPEN, "@"), any(Call::SYNC, "@")},
         [] {
             auto const path = std::make_shared<FilePath>(tree().at("directory"));
             return Action(
                 [path] { return shown(keepingErrno([&] { return extra::syncFile(*path); })); });
         },
         {"nothing"},
         nullptr,
         false,
         {},
         true},
        // What cannot be seen, read or removed stays. What is reported as removed is no failure.
        {"removeTree",
         "DONE gone",
         {any(Call::NEW, "std::bad_alloc|NO_MEMORY there", PARTLY),
          with(ENOENT, Call::STAT, saidToBeGone, PARTLY),
          with(ENOTDIR, Call::STAT, saidToBeGone, PARTLY), any(Call::STAT, "@ there", PARTLY),
          with(ENOENT, Call::OPEN, saidToBeGone, PARTLY),
          with(ENOTDIR, Call::OPEN, saidToBeGone, PARTLY),
          with(ELOOP, Call::OPEN, saidToBeGone, PARTLY), any(Call::OPEN, "@ there", PARTLY),
          with(ENOENT, Call::REMOVE, saidToBeGone, PARTLY),
          with(ENOTDIR, Call::REMOVE, saidToBeGone, PARTLY),
          with(EISDIR, Call::REMOVE, "@ there|DONE gone|EXISTS there", PARTLY),
          // The first try to remove a directory may fail.
          any(Call::REMOVE, "@ there|DONE gone", PARTLY),
          with(ENOENT, Call::READDIR, saidToBeGone, PARTLY),
          any(Call::READDIR, "@ there|@ gone", PARTLY), any(Call::SEEK, "@ there", PARTLY)},
         removal("directory", ""),
         {"directory"},
         "MISSING gone",
         false,
         {},
         true},
        {"removeTree, of a link",
         "DONE gone",
         {memory, any(Call::STAT, "@ there"), any(Call::OPEN, "@ there"),
          with(ENOENT, Call::REMOVE, "DONE there"),
          // The first try is to remove a directory.
          any(Call::REMOVE, "@ there|DONE gone", PARTLY)},
         removal("directoryLink", "/"),
         {"directoryLink"},
         "MISSING gone",
         false,
         {},
         true},
        {"readSpace",
         "DONE",
         {memory, any(Call::SPACE, "@")},
         [] {
             auto const path = std::make_shared<FilePath>(tree().at("file"));
             return Action([path] {
                 extra::Space space;
                 space.totalBytes = 1;
                 Outcome const outcome =
                     keepingErrno([&] { return extra::readSpace(*path, space); });
                 bool const isRead = space.totalBytes != 1;
                 disarm();
                 return isRead == (outcome == Outcome::DONE) ? shown(outcome)
                                                             : std::string("half done");
             });
         },
         {"nothing"}},
        // The id in it is for people, and so is the attempt to write it.
        {"LockFile",
         "DONE",
         {memory, any(Call::STAT, "@|DONE|BUSY", PARTLY), any(Call::OPEN, "@|DONE", PARTLY),
          nth(Call::FLOCK, 1, "@", PARTLY), any(Call::WRITE, "DONE", PARTLY),
          any(Call::TRUNCATE, "DONE", PARTLY)},
         [] {
             auto const path = std::make_shared<FilePath>(tree().at("file"));
             return Action([path] {
                 return shown(keepingErrno([&] {
                     extra::LockFile lock(*path);
                     Outcome const outcome = lock.tryLock();
                     return lock.isLocked() == (outcome == Outcome::DONE) ? outcome : NO_OUTCOME;
                 }));
             });
         },
         {"file"},
         "DONE",
         false,
         {},
         true},
    };
}

}  // namespace

std::vector<Operation> extraFileOperations() {
    std::vector<Operation> operations;
    for (Operation const& operation : fileOperations()) {
        if (answersYesOrNo(operation)) {
            operations.push_back(asAttempt(operation));
        }
    }
    for (auto const& more : {replacements(), others()}) {
        operations.insert(operations.end(), more.begin(), more.end());
    }
    return operations;
}

}  // namespace ovra::faults
