// What becomes of lines when the system fails: each kind of call, each time it is made, with each
// error, once and from then on.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>
#include <tests/support/Bounded.h>

#include <tests/extra/FileCalls.h>
#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

using test::FileCall;
using test::FileCalls;

struct Fault {
    int position;  // Of all calls, from 1.
    int error;     // 0: a short write.
    bool isLasting;
};

std::vector<int> const& errorsOf(FileCall call) {
    static std::vector<int> const ofWrite = {0, EINTR, ENOSPC, EDQUOT, EIO, EFBIG, EBADF};
    static std::vector<int> const ofLook = {EINTR, EIO, EACCES, ENOMEM};  // ENOENT is an answer.
    static std::vector<int> const ofOthers = {EINTR,  EIO,    EACCES, ENOSPC, EMFILE,
                                              ENOMEM, ENOENT, EROFS,  EEXIST};
    return call == FileCall::WRITE ? ofWrite : call == FileCall::LSTAT ? ofLook : ofOthers;
}

constexpr unsigned int ALL = 20;  // So many older files that no line is dropped with one.

// Writes lines into a capped file, under the fault, and then some without it. What must hold
// whatever fails: each line that is still kept is whole and at its place, and what is missing
// between two of them is reported there.
void run(std::string const& path, unsigned int generations, Fault const* fault,
         std::vector<FileCall>& calls) {
    constexpr int LINES = 12;
    for (std::string const& file : filesOf(path)) {
        std::filesystem::remove(file);
    }
    writeFile(path, "earlier\n");
    RotatingFileOptions options = plain(24, generations);
    options.syncLevel = log::ERROR;
    std::uint64_t lost = 0;
    std::string const what =
        fault == nullptr
            ? "no fault"
            : std::to_string(generations) + " kept, " +
                  std::string(nameOf(calls[static_cast<std::size_t>(fault->position - 1)])) +
                  ", call " + std::to_string(fault->position) +
                  (fault->isLasting ? " and on: " : ": ") + std::strerror(fault->error);
    {
        FileCalls watched;
        FileCall struck = FileCall::OPEN;
        bool isStruck = false;
        int interruptions = 3;
        if (fault != nullptr) {
            watched.onCall = [&](FileCall call) {
                if (static_cast<int>(watched.made.size()) == fault->position) {
                    isStruck = true;
                    struck = call;
                } else if (!isStruck || !fault->isLasting || call != struck) {
                    return 0;
                }
                return fault->error != EINTR || interruptions-- > 0 ? fault->error : 0;
            };
            watched.onWrite = [&](std::size_t count) {
                bool const isHit =
                    fault->error == 0 && isStruck && struck == FileCall::WRITE &&
                    (fault->isLasting || static_cast<int>(watched.made.size()) == fault->position);
                return isHit && count > 1 ? count - 1 : count;
            };
        }
        RotatingFileLogHandler sink(path, options);
        for (int line = 0; line < LINES; ++line) {
            put(sink, "line " + std::to_string(line), line % 4 == 0 ? log::ERROR : log::INFO);
            if (line == LINES / 2) {
                sink.requestReopen();
            }
        }
        if (fault == nullptr) {
            calls = watched.made;
        }
        watched.onCall = nullptr;
        watched.onWrite = nullptr;
        put(sink, "after");
        lost = sink.lostLines();
    }
    std::vector<std::string> const lines = allLinesOf(path);
    EXPECT_FALSE(lines.empty()) << what;
    int next = generations == ALL ? 0 : -1;  // -1: not known yet.
    std::uint64_t reported = 0;
    std::uint64_t reportedHere = 0;
    auto const expectNext = [&](int number) {
        if (next >= 0) {
            EXPECT_EQ(static_cast<std::uint64_t>(number - next), reportedHere) << what;
        }
        reportedHere = 0;
        next = number + 1;
    };
    for (std::string const& line : lines) {
        unsigned long count = 0;
        int number = 0;
        int end = 0;
        if (line == "earlier") {
            EXPECT_LE(next, 0) << what;
            next = 0;
        } else if (line == "after") {
            expectNext(LINES);
        } else if (std::sscanf(line.c_str(), "[ovra:WARNING] %lu lines lost%n", &count, &end) ==
                       1 &&
                   end == static_cast<int>(line.size())) {
            reported += count;
            reportedHere += count;
        } else if (std::sscanf(line.c_str(), "line %d%n", &number, &end) == 1 &&
                   end == static_cast<int>(line.size())) {
            expectNext(number);
        } else {
            ADD_FAILURE() << what << ": a line that nobody wrote: '" << line << "'";
        }
    }
    EXPECT_EQ(next, LINES + 1) << what;
    EXPECT_TRUE(generations == ALL ? reported == lost : reported <= lost) << what;
    EXPECT_FALSE(exists(path + "." + std::to_string(generations + 2))) << what;
    FileCall const failing =
        fault == nullptr ? FileCall::READ : calls[static_cast<std::size_t>(fault->position - 1)];
    bool const isPassing = fault == nullptr || fault->error == EINTR || fault->error == 0;
    bool const mayLose = failing == FileCall::FSTAT ||
                         (!isPassing && (failing == FileCall::WRITE || failing == FileCall::OPEN));
    EXPECT_TRUE(lost == 0 || mayLose) << what << " loses " << lost;
}

class RotatingFileSweepTest : public test::BoundedTest,
                              public ::testing::WithParamInterface<unsigned int> {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

TEST_P(RotatingFileSweepTest, EachLineIsThereOrCountedWhicheverCallFails) {
    unsigned int const generations = GetParam();
    std::vector<FileCall> calls;
    run(path, generations, nullptr, calls);
    ASSERT_GE(allLinesOf(path).size(), generations == ALL ? 14u : generations * 2 + 1);
    for (FileCall const call : {FileCall::OPEN, FileCall::READ, FileCall::WRITE, FileCall::STAT,
                                FileCall::FSTAT, FileCall::LOCK, FileCall::SYNC}) {
        EXPECT_GT(std::count(calls.begin(), calls.end(), call), 0) << nameOf(call);
    }
    auto const makes = [&](FileCall call) {
        return std::count(calls.begin(), calls.end(), call) > 0;
    };
    EXPECT_EQ(makes(FileCall::RENAME), generations > 0);
    EXPECT_EQ(makes(FileCall::LSTAT), generations > 0);
    EXPECT_EQ(makes(FileCall::UNLINK), generations == 0 || generations == 2);
    std::vector<FileCall> const undisturbed = calls;
    for (std::size_t position = 1; position <= undisturbed.size(); ++position) {
        for (int const error : errorsOf(undisturbed[position - 1])) {
            for (bool const isLasting : {false, true}) {
                Fault const fault = {static_cast<int>(position), error, isLasting};
                run(path, generations, &fault, calls);
            }
        }
        if (HasFailure()) {
            break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Generations, RotatingFileSweepTest, ::testing::Values(0u, 1u, 2u, ALL),
                         [](auto const& test) {
                             return test.param == ALL ? "All" : std::to_string(test.param);
                         });

}  // namespace
}  // namespace ovra::extra
