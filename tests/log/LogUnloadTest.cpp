#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <link.h>

#include <string>
#include <thread>
#include <vector>

#include <ovra/log/Log.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>

namespace ovra::log {

namespace {

using ::testing::ElementsAre;

using namespace ovra::test;
using namespace test;

// The library as an application with plug-ins has it: loaded and unloaded while the process goes
// on.
class LoadedLibrary {
public:
    LoadedLibrary() : handle(dlopen(OVRA_TEST_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_NE(handle, nullptr) << dlerror();
        find(addHandler, "_ZN4ovra3log13addLogHandlerENS0_14LogHandlerTypeEPKc");
        find(logLine, "_ZN4ovra3log3logENS0_8LogLevelEPKcS3_z");
        find(logVerbatimLine, "_ZN4ovra3log11logVerbatimENS0_8LogLevelEPKcS3_z");
        find(setLevel, "_ZN4ovra3log11setLogLevelENS0_8LogLevelE");
        find(getLevel, "_ZN4ovra3log11getLogLevelEv");
    }
    LoadedLibrary(LoadedLibrary const&) = delete;
    LoadedLibrary& operator=(LoadedLibrary const&) = delete;
    ~LoadedLibrary() { unload(); }

    void unload() {
        if (handle != nullptr) {
            EXPECT_EQ(dlclose(handle), 0);
            handle = nullptr;
        }
    }

    link_map const* map() const {
        link_map* result = nullptr;
        EXPECT_EQ(dlinfo(handle, RTLD_DI_LINKMAP, &result), 0);
        return result;
    }

    void (*addHandler)(LogHandlerType, char const*) = nullptr;
    void (*logLine)(LogLevel, char const*, char const*, ...) = nullptr;
    void (*logVerbatimLine)(LogLevel, char const*, char const*, ...) = nullptr;
    void (*setLevel)(LogLevel) = nullptr;
    LogLevel (*getLevel)() = nullptr;

private:
    template <typename Function>
    void find(Function*& function, char const* name) {
        function = reinterpret_cast<Function*>(dlsym(handle, name));
        EXPECT_NE(function, nullptr) << dlerror();
    }

    void* handle;
};

bool isLoaded() {
    if (void* const handle = dlopen(OVRA_TEST_LIBRARY, RTLD_NOW | RTLD_NOLOAD)) {
        dlclose(handle);
        return true;
    }
    return false;
}

TEST(LogUnloadTest, UnloadReleasesTheRegisteredSinks) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    std::size_t const before = openDescriptors();
    LoadedLibrary library;
    ASSERT_FALSE(HasFailure());
    library.addHandler(FILE_HANDLER, path.c_str());
    EXPECT_EQ(openDescriptors(), before + 1);
    library.logLine(ERROR, "tag", "text");
    EXPECT_EQ(contentOf(path), "[tag:ERROR] text\n");

    library.unload();
    EXPECT_FALSE(isLoaded());
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(contentOf(path), "[tag:ERROR] text\n");
}

TEST(LogUnloadTest, LoadingAgainStartsAfresh) {
    ScratchDirectory const directory;
    std::string const path = directory.path("log");
    {
        LoadedLibrary library;
        ASSERT_FALSE(HasFailure());
        library.addHandler(FILE_HANDLER, path.c_str());
        library.addHandler(PLATFORM_HANDLER, "second");
        library.setLevel(VERBOSE);
    }
    LoadedLibrary library;
    ASSERT_FALSE(HasFailure());
    EXPECT_EQ(library.getLevel(), ERROR);
    CLibraryProbe probe;
    library.logLine(WARNING, "tag", "filtered");
    library.logLine(ERROR, "tag", "text");
    EXPECT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] text"));
    EXPECT_EQ(contentOf(path), "");
}

// The threads of an application with plug-ins are older than the library.
TEST(LogUnloadTest, ThreadThatIsOlderThanTheLibraryLogsVerbatim) {
    Gate isLoaded;
    LoadedLibrary* library = nullptr;
    std::vector<std::string> lines;
    std::thread older([&] {
        EXPECT_TRUE(isLoaded.wait());
        CLibraryProbe probe;
        library->logVerbatimLine(ERROR, "tag", "%s", "100%n");
        library->logLine(ERROR, "tag", "%s", "100%%");
        lines = probe.systemLogLines();
    });
    LoadedLibrary loaded;
    library = &loaded;
    isLoaded.open();
    older.join();
    EXPECT_THAT(lines, ElementsAre("[tag:ERROR] 100%n", "[tag:ERROR] 100%"));
}

// Elsewhere the first line on a thread would allocate memory, and end the process if there is none.
TEST(LogUnloadTest, WhatItKeepsForEachThreadIsInTheBlockThatTheThreadStartsWith) {
    LoadedLibrary const library;
    ASSERT_FALSE(HasFailure());
    ElfW(Word) flags = 0;
    for (ElfW(Dyn) const* entry = library.map()->l_ld; entry->d_tag != DT_NULL; ++entry) {
        flags |= entry->d_tag == DT_FLAGS ? static_cast<ElfW(Word)>(entry->d_un.d_val) : 0;
    }
    EXPECT_NE(flags & DF_STATIC_TLS, 0u);
}

// More often than there are bytes in the blocks of the threads for libraries loaded later (1664).
TEST(LogUnloadTest, WhatItTakesOfEachThreadsBlockIsGivenBack) {
    for (int round = 0; round < 2000; ++round) {
        LoadedLibrary library;
        ASSERT_FALSE(HasFailure()) << "in round " << round;
        CLibraryProbe probe;
        library.logVerbatimLine(ERROR, "tag", "%s", "100%n");
        ASSERT_THAT(probe.systemLogLines(), ElementsAre("[tag:ERROR] 100%n"));
        library.unload();
        ASSERT_FALSE(isLoaded());
    }
}

}  // namespace

}  // namespace ovra::log
