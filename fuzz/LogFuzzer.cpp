// Messages of any level, tag, format and arguments, through every kind of sink: what arrives,
// against what vsnprintf makes of them.

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <gtest/gtest.h>
#include <ovra/log/LogHandlers.h>
#include <tests/log/LogTestSupport.h>

#include <fuzz/Fuzzer.h>

namespace {

constexpr std::size_t LONGEST_LINE = 1 << 14;

OVRA_PRINTF(1, 0) std::string formatted(char const* format, std::va_list arguments) {
    std::string text(LONGEST_LINE, '\0');
    // The analyser mixes up va_start's between the files that it is given together.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    EXPECT_LT(std::vsnprintf(text.data(), text.size(), format, arguments), LONGEST_LINE);
    text.resize(text.find('\0'));
    return text;
}

// One line for each that was written: its priority, the format it came as, and what became of it.
std::vector<std::string> s_systemLog;

std::string systemLogLine(int priority, std::string const& format, std::string const& text) {
    return std::to_string(priority) + " " + format + " | " + text;
}

}  // namespace

// In place of the C library's.
void syslog(int priority, char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    s_systemLog.push_back(systemLogLine(priority, format, formatted(format, arguments)));
    va_end(arguments);
}

namespace ovra::log {
namespace {

// The system log takes a line as its format: callers double what percent signs there are.
std::string withPercentSigns(std::string const& text, std::string const& sign) {
    std::string result;
    for (char const character : text) {
        result += character == '%' ? sign : std::string(1, character);
    }
    return result;
}

std::string anyText(FuzzedDataProvider& bytes, std::size_t longest) {
    std::string text = bytes.ConsumeRandomLengthString(longest);
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

std::string asWrittenBySystemLog(std::string const& line) {
    std::string result;
    for (std::size_t i = 0; i < line.size(); ++i) {
        result += line[i];
        i += line[i] == '%' ? 1 : 0;
    }
    return result;
}

int priorityOf(LogLevel level) {
    switch (level) {
        case CRITICAL:
            return LOG_CRIT;
        case ERROR:
            return LOG_ERR;
        case DEBUG:
            return LOG_DEBUG;
        default:
            return LOG_INFO;
    }
}

char const* nameOf(LogLevel level) {
    static constexpr char const* NAMES[] = {"DISABLED", "CRITICAL", "ERROR",  "WARNING",
                                            "INFO",     "DEBUG",    "VERBOSE"};
    return level >= DISABLED && level <= VERBOSE ? NAMES[level] : "UNKNOWN";
}

LogLevel anyLevel(FuzzedDataProvider& bytes) {
    return static_cast<LogLevel>(bytes.ConsumeBool() ? bytes.ConsumeIntegralInRange(0, 7)
                                                     : bytes.ConsumeIntegral<int>());
}

/// A format and, always in this order, the arguments of as many conversions as it has.
struct Message {
    explicit Message(FuzzedDataProvider& bytes)
        : width(bytes.ConsumeIntegralInRange(-200, 200)),
          number(bytes.ConsumeIntegral<int>()),
          realPrecision(bytes.ConsumeIntegralInRange(-1, 50)),
          real(bytes.ConsumeFloatingPoint<double>()),
          textPrecision(bytes.ConsumeIntegralInRange(-1, 50)),
          text(withPercentSigns(anyText(bytes, 64),
                                textPrecision < 0 ? "%%" : "")),  // A cut could halve a pair.
          large(bytes.ConsumeIntegral<unsigned long long>()) {
        std::vector<std::string> const conversions = {
            "%" + flags(bytes) + "*" + bytes.PickValueInArray({"d", "i", "x", "o"}),
            "%" + flags(bytes) + ".*" + bytes.PickValueInArray({"f", "e", "g", "a"}),
            bytes.ConsumeBool() ? "%.*s" : "%-20.*s",
            "%" + flags(bytes) + bytes.PickValueInArray({"llu", "20llX", ".30llo"}),
        };
        std::size_t const used = bytes.ConsumeIntegralInRange<std::size_t>(0, conversions.size());
        for (std::size_t i = 0; i < used; ++i) {
            format += literal(bytes) + conversions[i];
        }
        format += literal(bytes);
        if (bytes.ConsumeIntegralInRange(0, 20) == 20) {
            format += "%2147483648d";  // Wider than any message can be.
            fails = true;
        }
    }

    static std::string flags(FuzzedDataProvider& bytes) {
        return bytes.PickValueInArray({"", "-", "0", "+", " ", "#", "-+#"});
    }
    static std::string literal(FuzzedDataProvider& bytes) {
        return withPercentSigns(anyText(bytes, 32), "%%%%") + (bytes.ConsumeBool() ? "%m" : "");
    }

    /// Calls `function` with `first`, the format and all arguments.
    template <typename Function, typename... First>
    auto passTo(Function function, First... first) const {
        return function(first..., format.c_str(), width, number, realPrecision, real, textPrecision,
                        text.c_str(), large);
    }

    int width;
    int number;
    int realPrecision;
    double real;
    int textPrecision;
    std::string text;
    unsigned long long large;
    std::string format;
    bool fails = false;
};

OVRA_PRINTF(1, 2) std::string print(char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = formatted(format, arguments);
    va_end(arguments);
    return text;
}

/// What every kind of sink has got since this was made. The sinks stay: none can be taken out.
class Received {
public:
    Received() {
        s_systemLog.clear();
        ownLines().clear();
        addLogHandler(STANDARD_STREAM_HANDLER, "streams");
        addLogHandler(PLATFORM_HANDLER, "system log");
        addLogHandler(FILE_HANDLER, file().c_str());
        addLogHandler(
            std::make_shared<ovra::test::FunctionSink>([](char const* line, LogLevel level) {
                ownLines().push_back(std::to_string(level) + " " + line);
            }),
            "the caller's own");
    }

    static std::vector<std::string>& ownLines() {
        static std::vector<std::string> lines;
        return lines;
    }
    static std::string const& file() {
        static ovra::test::ScratchDirectory const directory;
        static std::string const path = directory.path("fuzzed.log");
        return path;
    }

    test::StreamCapture output{std::cout};
    test::StreamCapture errors{std::cerr};
};

void compare(FuzzedDataProvider& bytes) {
    Received const received;
    std::vector<std::string> lines;
    std::vector<std::string> systemLog;
    std::string file;
    std::string output;
    std::string errors;

    while (bytes.remaining_bytes() > 0) {
        LogLevel const threshold = anyLevel(bytes);
        LogLevel const level = anyLevel(bytes);
        bool const hasTag = bytes.ConsumeBool();
        std::string const tag = withPercentSigns(anyText(bytes, 16), "%%");
        Message const message(bytes);

        setLogLevel(threshold);
        errno = EDOM;
        message.passTo(log, level, hasTag ? tag.c_str() : nullptr);
        EXPECT_EQ(errno, EDOM);

        if (threshold == DISABLED || threshold < level || message.fails) {
            continue;
        }
        errno = EDOM;  // For "%m".
        std::string const line =
            "[" + (hasTag ? tag : "(null)") + ":" + nameOf(level) + "] " + message.passTo(print);
        lines.push_back(std::to_string(level) + " " + line);
        systemLog.resize(systemLog.size() + 2,
                         systemLogLine(priorityOf(level), line, asWrittenBySystemLog(line)));
        file += line + "\n";
        (level == CRITICAL || level == ERROR ? errors : output) += line + "\n<flush>";
    }

    EXPECT_EQ(Received::ownLines(), lines);
    EXPECT_EQ(s_systemLog, systemLog);
    EXPECT_EQ(test::contentOf(Received::file()), file);
    EXPECT_EQ(received.output.text, output);
    EXPECT_EQ(received.errors.text, errors);
}

}  // namespace
}  // namespace ovra::log

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    FuzzedDataProvider bytes(data, size);
    ovra::log::compare(bytes);
    return 0;
}
