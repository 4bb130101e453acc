#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <examples/manifest/ManifestFile.h>
#include <tests/support/NextFunction.h>
#include <tests/support/ScratchDirectory.h>

namespace {

// What the functions below were called for.
struct RecordedCalls {
    bool recording = false;
    int syncError = 0;
    std::vector<std::string> calls;
} recorded;

}  // namespace

// These hide the C library's.

extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
    static ovra::test::NextFunction<int(int)> next("fsync");
    if (recorded.recording) {
        struct stat status = {};
        fstat(descriptor, &status);
        recorded.calls.push_back(S_ISDIR(status.st_mode)
                                     ? "directory synced"
                                     : std::to_string(status.st_size) + " bytes synced");
        if (recorded.syncError != 0) {
            errno = recorded.syncError;
            return -1;
        }
    }
    return next(descriptor);
}

extern "C" __attribute__((visibility("default"))) int rename(char const* from,
                                                             char const* to) noexcept {
    static ovra::test::NextFunction<int(char const*, char const*)> next("rename");
    if (recorded.recording) {
        recorded.calls.emplace_back("renamed");
    }
    return next(from, to);
}

namespace {

using manifest::ManifestFile;
using ovra::test::ScratchDirectory;
using ::testing::ElementsAre;

class ManifestSyncTest : public ::testing::Test {
protected:
    ManifestSyncTest() { recorded.recording = true; }
    ~ManifestSyncTest() override { recorded = {}; }

    ScratchDirectory scratch;
};

TEST_F(ManifestSyncTest, AllOfItIsOnTheDiskBeforeItGetsItsName) {
    ManifestFile file(scratch.path("m"));
    file.write("one\n");
    file.write("two\n");
    file.moveIntoPlace();
    EXPECT_THAT(recorded.calls, ElementsAre("8 bytes synced", "renamed", "directory synced"));
    EXPECT_EQ("one\ntwo\n", scratch.read("m"));
}

TEST_F(ManifestSyncTest, WhatCannotBeSyncedDoesNotReplaceTheOlderOne) {
    scratch.write("m", "old");
    recorded.syncError = EIO;
    {
        ManifestFile file(scratch.path("m"));
        file.write("new");
        try {
            file.moveIntoPlace();
            FAIL() << "nothing was thrown";
        } catch (std::runtime_error const& error) {
            EXPECT_EQ(scratch.path("m") + ": Input/output error", error.what());
        }
    }
    EXPECT_THAT(recorded.calls, ElementsAre("3 bytes synced"));
    EXPECT_EQ("old", scratch.read("m"));
    EXPECT_EQ(1u, scratch.entries()) << "nothing else is left behind";
}

}  // namespace
