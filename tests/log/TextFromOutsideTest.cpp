// Texts of any bytes, where the application did not write them: the system log, which formats what
// it gets, and a file agree on every line.

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/log/CLibraryProbe.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/Bounded.h>
#include <tests/support/RandomSource.h>

namespace ovra::log {

namespace {

using concurrent::Executable;
using concurrent::SubmittedTask;
using concurrent::Task;
using namespace ovra::test;
using namespace test;

// Bytes from 1 to 255, every third of them one that means something to a formatting function.
std::string anyText(RandomSource& random) {
    static std::string const conversions = "%%%%snm*$hlLqjzt.0123456789-+# 'diouxXeEfFgGaAcsCSp";
    std::string text(random.below(80), '\0');
    for (char& c : text) {
        c = random.oneIn(3)
                ? conversions[random.below(static_cast<std::uint32_t>(conversions.size()))]
                : static_cast<char>(random.between(1, 255));
    }
    return text;
}

class TextFromOutsideTest : public BoundedTest {
protected:
    // Does `work` and compares what has reached the system log and the file.
    template <typename Work>
    void expectSame(int lines, Work const& work) {
        Registration const registration;
        ScratchDirectory const directory;
        std::string const path = directory.path("log");
        addLogHandler(std::make_shared<FileLogHandler>(path.c_str()), registration.name());
        CLibraryProbe probe;
        work();
        std::string systemLog;
        for (std::string const& line : probe.systemLogLines()) {
            systemLog += line + "\n";
        }
        EXPECT_EQ(systemLog, contentOf(path)) << seedNote();
        EXPECT_EQ(probe.systemLogCalls.size(), static_cast<std::size_t>(lines));
    }

    LevelKeeper const levelKeeper{VERBOSE};
    RandomSource random{runSeed()};
    int const rounds = scaled(2000);
};

TEST_F(TextFromOutsideTest, TagAndArgumentsOfLogVerbatim) {
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        std::string const tag = anyText(random);
        std::string const text = anyText(random);
        LogLevel const level = test::levelOf(random.between(0, 6));
        expectSame(2, [&] {
            logVerbatim(level, tag.c_str(), "%s", text.c_str());
            logVerbatim(level, tag.c_str(), "%-20.*s %% %5d %c", 10, text.c_str(), round, '%');
        });
    }
}

TEST_F(TextFromOutsideTest, NamesOfTasksAndTextsOfExceptions) {
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        std::string const name = anyText(random);
        std::string const what = anyText(random);
        expectSame(4, [&] {
            SubmittedTask task(
                []() -> Executable::Result { throw 1; }, concurrent::NORMAL,
                [&](std::shared_ptr<Task> const&) { throw std::runtime_error(what); },
                name.c_str());
            task.execute();
            task.performCallback();
        });
        expectSame(4, [&] {
            SubmittedTask task([&]() -> Executable::Result { throw std::runtime_error(what); },
                               concurrent::NORMAL, [](std::shared_ptr<Task> const&) { throw 1; },
                               name.c_str());
            task.execute();
            task.performCallback();
        });
    }
}

}  // namespace

}  // namespace ovra::log
