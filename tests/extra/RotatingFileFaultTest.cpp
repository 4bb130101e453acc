// What becomes of lines when the system fails.

#include <cerrno>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tests/support/Bounded.h>

#include <tests/extra/FileCalls.h>
#include <tests/extra/RotatingFileSupport.h>

namespace ovra::extra {
namespace {

using test::FileCall;
using test::FileCalls;
using ::testing::ElementsAre;

class RotatingFileFaultTest : public test::BoundedTest {
protected:
    ScratchDirectory directory;
    std::string const path = directory.path("x");
};

// --- single lines

TEST_F(RotatingFileFaultTest, ContinuesAShortWrite) {
    RotatingFileLogHandler sink(path, plain());
    for (std::size_t const length : {5u, 5000u}) {
        FileCalls calls;
        calls.onWrite = [](std::size_t count) { return (count + 1) / 2; };
        put(sink, std::string(length, 'x'));
        EXPECT_GT(calls.count(FileCall::WRITE), 2);
    }
    EXPECT_EQ(contentOf(path), std::string(5, 'x') + "\n" + std::string(5000, 'x') + "\n");
    EXPECT_EQ(sink.lostLines(), 0u);
}

TEST_F(RotatingFileFaultTest, CountsALineThatNothingWasWrittenOf) {
    RotatingFileLogHandler sink(path, plain());
    put(sink, "first");
    {
        FileCalls calls;
        calls.onCall = [](FileCall) { return ENOSPC; };
        put(sink, "second");
        put(sink, "third");
    }
    EXPECT_EQ(sink.lostLines(), 2u);
    put(sink, "fourth");
    put(sink, "fifth");
    EXPECT_EQ(contentOf(path), "first\n[ovra:WARNING] 2 lines lost\nfourth\nfifth\n");
    EXPECT_EQ(sink.lostLines(), 2u);
}

// Without the lock, a race: on 32-bit ARM the number could be read in two halves.
TEST_F(RotatingFileFaultTest, TellsHowManyLinesAreLostWhileAnotherIs) {
    RotatingFileLogHandler sink(path, plain());
    std::thread writer([&] {
        FileCalls calls;
        calls.onCall = [](FileCall) { return ENOSPC; };
        put(sink, "a line");
    });
    test::yieldUntil([&] { return sink.lostLines() == 1; });
    writer.join();
}

TEST_F(RotatingFileFaultTest, EndsATornLineBeforeTheNext) {
    RotatingFileLogHandler sink(path, plain());
    {
        FileCalls calls;
        int writes = 0;
        calls.onCall = [&](FileCall) { return ++writes > 1 ? EIO : 0; };
        calls.onWrite = [](std::size_t) { return std::size_t{3}; };
        put(sink, "second");
        put(sink, "third");
    }
    put(sink, "fourth");
    EXPECT_EQ(contentOf(path), "sec\n[ovra:WARNING] 2 lines lost\nfourth\n");
    EXPECT_EQ(sink.lostLines(), 2u);
}

TEST_F(RotatingFileFaultTest, AsksAgainOnlyForWhatIsStillTorn) {
    RotatingFileLogHandler sink(path, plain());
    int writes = 0;
    auto const failAfterFirst = [&](FileCall) { return ++writes > 1 ? EIO : 0; };
    {
        FileCalls calls;
        calls.onCall = failAfterFirst;
        calls.onWrite = [](std::size_t) { return std::size_t{3}; };
        put(sink, "torn");
    }
    {
        FileCalls calls;  // The newline alone gets out.
        writes = 0;
        calls.onCall = failAfterFirst;
        calls.onWrite = [](std::size_t) { return std::size_t{1}; };
        put(sink, "lost");
    }
    put(sink, "whole");
    EXPECT_EQ(contentOf(path), "tor\n[ovra:WARNING] 2 lines lost\nwhole\n");
}

TEST_F(RotatingFileFaultTest, CountsTheLineWhoseReportCannotBeWritten) {
    RotatingFileLogHandler sink(path, plain());
    for (int round = 0; round < 2; ++round) {
        FileCalls calls;
        calls.onCall = [](FileCall) { return ENOSPC; };
        put(sink, "lost");
    }
    {
        FileCalls calls;  // There is space for the report, and then no more.
        int writes = 0;
        calls.onCall = [&](FileCall call) {
            return call == FileCall::WRITE && ++writes > 1 ? ENOSPC : 0;
        };
        put(sink, "lost too");
    }
    put(sink, "whole");
    EXPECT_EQ(contentOf(path), "[ovra:WARNING] 2 lines lost\n[ovra:WARNING] 1 lines lost\nwhole\n");
    EXPECT_EQ(sink.lostLines(), 3u);
}

TEST_F(RotatingFileFaultTest, StampsTheReport) {
    RotatingFileLogHandler sink{fs::FilePath(path)};
    {
        FileCalls calls;
        calls.onCall = [](FileCall) { return ENOSPC; };
        put(sink, "lost");
    }
    put(sink, "whole");
    EXPECT_THAT(linesOf(contentOf(path)),
                ElementsAre(::testing::MatchesRegex("[0-9:.T-]{23}Z .ovra:WARNING. 1 lines lost"),
                            ::testing::MatchesRegex("[0-9:.T-]{23}Z whole")));
}

TEST_F(RotatingFileFaultTest, TakesAWriteOfNothingForAFailure) {
    RotatingFileLogHandler sink(path, plain());
    FileCalls calls;
    calls.onWrite = [](std::size_t) { return std::size_t{0}; };
    put(sink, "lost");
    EXPECT_EQ(sink.lostLines(), 1u);
    EXPECT_EQ(calls.count(FileCall::WRITE), 1);
}

// The disk is full, and has space for a piece of the other's line only.
TEST_F(RotatingFileFaultTest, EndsALineThatAnotherHasTornOnceItHasLostOne) {
    for (bool const isTornFirst : {false, true}) {
        writeFile(path, "");
        RotatingFileLogHandler sink(path, plain());
        RotatingFileLogHandler other(path, plain());
        auto const tear = [&] {
            FileCalls calls;
            int writes = 0;
            calls.onCall = [&](FileCall) { return ++writes > 1 ? ENOSPC : 0; };
            calls.onWrite = [](std::size_t) { return std::size_t{4}; };
            put(other, "torn line");
        };
        auto const lose = [&] {
            FileCalls calls;
            calls.onCall = [](FileCall) { return ENOSPC; };
            put(sink, "lost");
        };
        if (isTornFirst) {
            tear();
            lose();
        } else {
            lose();
            tear();
        }
        put(sink, "whole");
        put(other, "whole too");  // Ended by now: no second newline.
        EXPECT_EQ(contentOf(path),
                  "torn\n[ovra:WARNING] 1 lines lost\nwhole\n[ovra:WARNING] 1 lines lost\n"
                  "whole too\n");
    }
}

TEST_F(RotatingFileFaultTest, EndsALineThatAnotherHasTornWhenItLooksAtTheSize) {
    RotatingFileLogHandler sink(path, plain(100));
    put(sink, "first");
    std::ofstream(path, std::ios::app) << "torn";
    // More than a quarter of what was left: looks before, whatever the clock says.
    put(sink, std::string(60, 'x'));
    EXPECT_EQ(contentOf(path), "first\ntorn\n" + std::string(60, 'x') + "\n");
}

// The system may show a part of a line that is being written. Setting the times waits for the rest.
TEST_F(RotatingFileFaultTest, LineThatAnotherIsWritingIsNotTorn) {
    constexpr std::size_t PAGE_BYTES = 4096;
    for (auto const& [moment, nth] : {std::pair{FileCall::TOUCH, 1}, {FileCall::FSTAT, 2}}) {
        RotatingFileLogHandler sink(path, plain(2 * PAGE_BYTES));
        writeFile(path, std::string(PAGE_BYTES, 'x'));
        {
            FileCalls calls;
            calls.onCall = [&, awaited = moment, count = nth](FileCall call) {
                if (call == awaited && calls.count(call) == count) {
                    std::ofstream(path, std::ios::app) << "y\n";
                }
                return 0;
            };
            put(sink, std::string(PAGE_BYTES / 2, 'z'));
        }
        EXPECT_EQ(contentOf(path),
                  std::string(PAGE_BYTES, 'x') + "y\n" + std::string(PAGE_BYTES / 2, 'z') + "\n");
    }
}

TEST_F(RotatingFileFaultTest, LineThatAnotherIsWritingAsTheFileIsOpenedIsNotTorn) {
    writeFile(path, std::string(4096, 'x'));
    FileCalls calls;
    calls.onCall = [&](FileCall call) {
        if (call == FileCall::TOUCH && calls.count(call) == 1) {
            std::ofstream(path, std::ios::app) << '\n';
        }
        return 0;
    };
    RotatingFileLogHandler sink(path, plain());
    put(sink, "whole");
    EXPECT_GT(calls.count(FileCall::READ), 1);
    EXPECT_EQ(contentOf(path), std::string(4096, 'x') + "\nwhole\n");
}

TEST_F(RotatingFileFaultTest, EndsALineThatIsTornWhereAPageEnds) {
    writeFile(path, std::string(4096, 'x'));
    RotatingFileLogHandler sink(path, plain());
    put(sink, "whole");
    EXPECT_EQ(contentOf(path), std::string(4096, 'x') + "\nwhole\n");
}

// Nobody can know the end of such a file, and a newline that is not needed would be an empty line.
TEST_F(RotatingFileFaultTest, LeavesATornLineWhereItMayNotRead) {
    writeFile(path, "torn ");
    FileCalls calls;
    int opens = 0;
    calls.onCall = [&](FileCall call) {
        return (call == FileCall::OPEN && ++opens == 1) ? EACCES
               : call == FileCall::READ                 ? EBADF
                                                        : 0;
    };
    RotatingFileLogHandler sink(path, plain());
    put(sink, "a line");
    EXPECT_EQ(contentOf(path), "torn a line\n");
}

TEST_F(RotatingFileFaultTest, AppendsWithoutReadingWhereItMayNotRead) {
    writeFile(path, "earlier\n");
    FileCalls calls;
    int opens = 0;
    calls.onCall = [&](FileCall call) {
        return call == FileCall::OPEN && ++opens == 1 ? EACCES : 0;
    };
    RotatingFileLogHandler sink(path, plain());
    put(sink, "a line");
    EXPECT_EQ(contentOf(path), "earlier\na line\n");
}

// --- moving

TEST_F(RotatingFileFaultTest, MovesNoneIfOneCannotBeMoved) {
    // Each rename of a move in turn: those of the others as well as that of the log.
    for (unsigned int const generations : {1u, 2u, 3u, 4u}) {
        for (int const failing : {1, 2, 3, 4}) {
            for (std::string const& file : filesOf(path)) {
                std::filesystem::remove(file);
            }
            int const others = std::min(3, static_cast<int>(generations));
            for (int generation = 0; generation <= others; ++generation) {
                std::string const suffix = generation == 0 ? "" : "." + std::to_string(generation);
                writeFile(path + suffix, std::to_string(generation) + "234567\n");
            }
            RotatingFileLogHandler sink(path, plain(12, generations));
            FileCalls calls;
            int renames = 0;
            calls.onCall = [&](FileCall call) {
                return call == FileCall::RENAME && ++renames == failing ? EBUSY : 0;
            };
            put(sink, "a line");
            if (renames < failing) {
                continue;  // There were not so many.
            }
            EXPECT_EQ(contentOf(path), "0234567\na line\n");
            for (int generation = 1; generation <= 4; ++generation) {
                EXPECT_EQ(contentOf(path + "." + std::to_string(generation)),
                          generation <= others ? std::to_string(generation) + "234567\n" : "")
                    << generations << " " << failing;
            }
            put(sink, "another");  // The trouble is over.
            EXPECT_EQ(contentOf(path), "another\n");
            EXPECT_EQ(contentOf(path + ".1"), "0234567\na line\n");
            EXPECT_EQ(sink.lostLines(), 0u);
            EXPECT_EQ(calls.count(FileCall::UNLINK), generations == 2 || generations == 3 ? 1 : 0);
        }
    }
}

TEST_F(RotatingFileFaultTest, GoesOnInTheMovedFileUntilANewOneCanBeOpened) {
    for (unsigned int const generations : {1u, 0u}) {
        std::filesystem::remove(path + ".1");
        writeFile(path, "");
        RotatingFileLogHandler sink(path, plain(12, generations));
        put(sink, "line 1");
        {
            FileCalls calls;
            bool isMoved = false;
            calls.onCall = [&](FileCall call) {
                isMoved = isMoved || call == FileCall::RENAME || call == FileCall::UNLINK;
                return isMoved && call == FileCall::OPEN ? EMFILE : 0;
            };
            put(sink, "line 2");
            EXPECT_TRUE(isMoved);
        }
        EXPECT_FALSE(exists(path));
        EXPECT_EQ(sink.lostLines(), 0u);
        put(sink, "line 3");
        EXPECT_EQ(contentOf(path), "line 3\n");
        EXPECT_EQ(contentOf(path + ".1"), generations == 1 ? "line 1\nline 2\n" : "");
    }
}

TEST_F(RotatingFileFaultTest, GoesOnInTheSameFileWhileAnotherHasTheLock) {
    RotatingFileLogHandler sink(path, plain(12));
    put(sink, "line 1");
    {
        FileCalls calls;
        calls.onCall = [](FileCall call) { return call == FileCall::LOCK ? EWOULDBLOCK : 0; };
        put(sink, "line 2");
    }
    EXPECT_EQ(contentOf(path), "line 1\nline 2\n");
    put(sink, "line 3");
    EXPECT_EQ(contentOf(path + ".1"), "line 1\nline 2\n");
    EXPECT_EQ(contentOf(path), "line 3\n");
}

TEST_F(RotatingFileFaultTest, MovesNothingThatAnotherHasMovedJustBefore) {
    RotatingFileLogHandler sink(path, plain(13, 5));
    put(sink, "line 1");
    FileCalls calls;
    // After the path has been opened and found to be the file at hand, before the lock.
    calls.onCall = [&](FileCall call) {
        if (call == FileCall::LOCK && exists(path) && !exists(path + ".1")) {
            std::filesystem::rename(path, path + ".1");
            writeFile(path, "other\n");
        }
        return 0;
    };
    put(sink, "line 2");
    EXPECT_EQ(contentOf(path + ".1"), "line 1\n");
    EXPECT_EQ(contentOf(path), "other\nline 2\n");
    EXPECT_FALSE(exists(path + ".2"));
}

// --- syncing

TEST_F(RotatingFileFaultTest, SaysThatASyncFailed) {
    for (int const failing : {1, 2}) {  // The file, and its directory.
        std::filesystem::remove(path);
        RotatingFileLogHandler sink(path, plain());
        FileCalls calls;
        int syncs = 0;
        calls.onCall = [&](FileCall call) {
            return call == FileCall::SYNC && ++syncs == failing ? EIO : 0;
        };
        EXPECT_FALSE(sink.sync());
        EXPECT_EQ(syncs, failing);
        EXPECT_TRUE(sink.sync());
        EXPECT_EQ(sink.lostLines(), 0u);
    }
}

TEST_F(RotatingFileFaultTest, SaysThatTheFilesItHasLeftCannotBeSynced) {
    RotatingFileLogHandler sink(path, plain(8, 5));
    put(sink, "line 1");
    put(sink, "line 2");
    FileCalls calls;
    calls.onCall = [](FileCall call) { return call == FileCall::SYNC_ALL ? EIO : 0; };
    EXPECT_FALSE(sink.sync());
    EXPECT_EQ(calls.count(FileCall::SYNC), 2);  // What can be synced is.
    EXPECT_FALSE(sink.sync());
    calls.onCall = nullptr;
    EXPECT_TRUE(sink.sync());
}

TEST_F(RotatingFileFaultTest, LosesNoLineToASyncThatFails) {
    RotatingFileOptions options = plain();
    options.syncLevel = log::VERBOSE;
    RotatingFileLogHandler sink(path, options);
    FileCalls calls;
    calls.onCall = [](FileCall call) { return call == FileCall::SYNC ? EIO : 0; };
    put(sink, "a line");
    put(sink, "another");
    EXPECT_EQ(contentOf(path), "a line\nanother\n");
    EXPECT_EQ(sink.lostLines(), 0u);
    // Only this call can say so.
    calls.onCall = nullptr;
    EXPECT_FALSE(sink.sync());
    EXPECT_TRUE(sink.sync());
}

}  // namespace
}  // namespace ovra::extra
