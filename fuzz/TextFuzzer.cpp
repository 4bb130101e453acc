// Texts from outside as tags, arguments, names of tasks and texts of exceptions: what a system log
// that formats its lines writes of them, against what a file gets.

#include <syslog.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>
#include <gtest/gtest.h>
#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/log/LogHandlers.h>
#include <tests/log/LogTestSupport.h>

#include <fuzz/Fuzzer.h>

namespace {

std::string s_systemLog;

}  // namespace

// In place of the C library's.
void syslog(int, char const* format, ...) {
    std::string text(1 << 14, '\0');
    std::va_list arguments;
    va_start(arguments, format);
    int const length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    ASSERT_GE(length, 0);
    ASSERT_LT(length, static_cast<int>(text.size()));
    text.resize(static_cast<std::size_t>(length));
    s_systemLog += text + "\n";
}

namespace ovra::log {
namespace {

using concurrent::Executable;
using concurrent::SubmittedTask;
using concurrent::Task;

std::string anyText(FuzzedDataProvider& bytes) {
    std::string text = bytes.ConsumeRandomLengthString(128);
    return text.substr(0, text.find('\0'));
}

// Runs a task that throws, as does its callback.
void runTask(std::string const& name, std::string const& what, bool throwsText) {
    auto const fail = [&] {
        if (throwsText) {
            throw std::runtime_error(what);
        }
        throw 1;
    };
    SubmittedTask task(
        [&]() -> Executable::Result {
            fail();
            return Executable::SUCCESS;
        },
        concurrent::NORMAL, [&](std::shared_ptr<Task> const&) { fail(); }, name.c_str());
    task.execute();
    task.performCallback();
}

void compare(FuzzedDataProvider& bytes) {
    static ovra::test::ScratchDirectory const directory;
    std::string const path = directory.path("fuzzed.log");
    addLogHandler(FILE_HANDLER, path.c_str());
    s_systemLog.clear();
    setLogLevel(VERBOSE);

    while (bytes.remaining_bytes() > 0) {
        std::string const first = anyText(bytes);
        std::string const second = anyText(bytes);
        int const width = bytes.ConsumeIntegralInRange(-200, 200);
        logVerbatim(bytes.PickValueInArray({CRITICAL, ERROR, WARNING, INFO, DEBUG}), first.c_str(),
                    "%*s%% %c %.*s", width, second.c_str(), '%', width, first.c_str());
        runTask(first, second, bytes.ConsumeBool());
    }

    EXPECT_EQ(s_systemLog, test::contentOf(path));
}

}  // namespace
}  // namespace ovra::log

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    FuzzedDataProvider bytes(data, size);
    ovra::log::compare(bytes);
    return 0;
}
