#include <atomic>
#include <cerrno>
#include <iostream>
#include <memory>
#include <mutex>
#include <streambuf>

#include <ovra/log/Log.h>
#include <ovra/log/LogHandlers.h>

#include <tests/faults/Sweep.h>
#include <tests/support/LogSinks.h>

namespace ovra::faults {

namespace {

using test::CountingSink;

constexpr char const* SINK = "sink";
constexpr char const* LINE = "[tag:WARNING] a line";

// While it lives, `sink` is registered and warnings are delivered.
class Registered {
public:
    explicit Registered(std::shared_ptr<log::LogHandler> sink) {
        log::addLogHandler(std::move(sink), SINK);
        log::setLogLevel(log::WARNING);
    }
    Registered(Registered const&) = delete;
    Registered& operator=(Registered const&) = delete;
    ~Registered() {
        log::setLogLevel(log::ERROR);
        static auto const nobody = std::make_shared<CountingSink>();
        log::addLogHandler(nobody, SINK);
    }
};

// Takes what is written and does nothing with it.
class Abyss : public std::streambuf {
protected:
    int overflow(int character) override { return character == EOF ? 0 : character; }
    std::streamsize xsputn(char const*, std::streamsize count) override { return count; }
};

class OutputIntoAbyss {
public:
    OutputIntoAbyss() : before(std::cout.rdbuf(&abyss)) {}
    OutputIntoAbyss(OutputIntoAbyss const&) = delete;
    OutputIntoAbyss& operator=(OutputIntoAbyss const&) = delete;
    ~OutputIntoAbyss() { std::cout.rdbuf(before); }

private:
    Abyss abyss;
    std::streambuf* before;
};

template <typename Handler, typename... Arguments>
std::function<Action()> handing(char const* result, Arguments... arguments) {
    return [result, arguments...] {
        auto const handler = std::make_shared<Handler>(arguments...);
        return Action([result, handler] {
            handler->handleLogMessage(LINE, log::WARNING);
            return shown(result);
        });
    };
}

std::function<Action()> creating(log::LogHandlerType type) {
    return [type] {
        auto const path = std::make_shared<std::string>(tree().at("empty"));
        return Action(
            [type, path] { return shown(log::createLogHandler(type, path->c_str()) != nullptr); });
    };
}

std::string lineCount(int before, CountingSink const& sink, int sinkBefore) {
    disarm();
    return std::to_string(systemLogLines() - before) + " " +
           std::to_string(sink.lines - sinkBefore);
}

using Log = void (*)(log::LogLevel, char const*, char const*, ...);

Operation logging(char const* name, Log log, log::LogLevel level, std::string const& result,
                  std::vector<Rule> const& rules) {
    return {name, result, rules, [log, level] {
                auto const sink = std::make_shared<CountingSink>();
                auto const registered = std::make_shared<Registered>(sink);
                return Action([sink, registered, log, level] {
                    int const systemBefore = systemLogLines();
                    int const sinkBefore = sink->lines;
                    errno = EXDEV;
                    log(level, "tag", "a message that is not short, and a number: %d", 5);
                    if (errno != EXDEV) {
                        return shown("errno has changed");
                    }
                    return lineCount(systemBefore, *sink, sinkBefore);
                });
            }};
}

}  // namespace

std::vector<Operation> logOperations() {
    Rule const memory = any(Call::NEW, OUT_OF_MEMORY);
    std::vector<Rule> const whenDelivered = {any(Call::FORMAT, "0 0"), any(Call::MALLOC, "0 0|1 1"),
                                             any(Call::LOCK, "0 0")};
    return {
        logging("log, filtered", log::log, log::INFO, "0 0", {}),
        logging("logVerbatim, filtered", log::logVerbatim, log::INFO, "0 0", {}),
        // The C library may do without some of the memory it asks for. A sink that throws ends the
        // round of the sinks.
        logging("log", log::log, log::WARNING, "1 1", whenDelivered),
        logging("logVerbatim", log::logVerbatim, log::WARNING, "1 1", whenDelivered),
        {"log, to a file",
         "logged",
         {any(Call::WRITE, "logged", PARTLY), any(Call::FORMAT, "logged", UNCHANGED),
          any(Call::MALLOC, "logged", PARTLY), any(Call::LOCK, "logged", UNCHANGED)},
         [] {
             auto const registered = std::make_shared<Registered>(
                 std::make_shared<log::FileLogHandler>(tree().at("file").c_str()));
             return Action([registered] {
                 log::log(log::WARNING, "tag", "a line");
                 return shown("logged");
             });
         },
         {"file"}},
        {"FileLogHandler::handleLogMessage",
         "handed",
         {any(Call::LOCK, SYSTEM_ERROR), any(Call::WRITE, "handed", PARTLY)},
         [] {
             auto const path = tree().at("file");
             auto const handler = std::make_shared<log::FileLogHandler>(path.c_str());
             return Action([handler] {
                 handler->handleLogMessage(LINE, log::WARNING);
                 return shown("handed");
             });
         },
         {"file"}},
        {"PlatformLogHandler::handleLogMessage",
         "handed",
         {any(Call::LOCK, SYSTEM_ERROR)},
         handing<log::PlatformLogHandler>("handed")},
        {"handleLogMessageEInkOrLinux",
         "handed",
         {any(Call::LOCK, SYSTEM_ERROR)},
         [] {
             auto const mutex = std::make_shared<std::mutex>();
             return Action([mutex] {
                 log::handleLogMessageEInkOrLinux(LINE, log::WARNING, *mutex);
                 return shown("handed");
             });
         }},
        {"StandardStreamLogHandler::handleLogMessage",
         "true",
         {any(Call::LOCK, SYSTEM_ERROR)},
         [] {
             auto const handler = std::make_shared<log::StandardStreamLogHandler>();
             auto const abyss = std::make_shared<OutputIntoAbyss>();
             return Action([handler, abyss] {
                 handler->handleLogMessage(LINE, log::WARNING);
                 return shown(std::cout.good());
             });
         }},
        // A sink is made even if its file cannot be opened, or its directory not be seen.
        {"createLogHandler, of a file",
         "true",
         {any(Call::NEW, OUT_OF_MEMORY, PARTLY), any(Call::LSTAT, "true", UNCHANGED),
          any(Call::OPEN, "true", UNCHANGED), any(Call::MALLOC, "true", UNCHANGED)},
         creating(log::FILE_HANDLER),
         {"empty"}},
        {"createLogHandler, of the system log", "true", {memory}, creating(log::PLATFORM_HANDLER)},
        {"createLogHandler, of the standard streams",
         "true",
         {memory},
         creating(log::STANDARD_STREAM_HANDLER)},
        {"addLogHandler(type)",
         "true",
         {memory},
         [] {
             auto const sink = std::make_shared<CountingSink>();
             auto const registered = std::make_shared<Registered>(sink);
             return Action([registered] {
                 int const before = systemLogLines();
                 log::addLogHandler(log::PLATFORM_HANDLER, SINK);
                 disarm();
                 log::log(log::WARNING, "tag", "a line");
                 return shown(systemLogLines() - before == 2);
             });
         }},
        {"addLogHandler(handler)",
         "true",
         {memory},
         [] {
             auto const sink = std::make_shared<CountingSink>();
             auto const registered = std::make_shared<Registered>(sink);
             auto const other = std::make_shared<CountingSink>();
             return Action([registered, other] {
                 int const before = other->lines;
                 log::addLogHandler(other, SINK);
                 disarm();
                 log::log(log::WARNING, "tag", "a line");
                 return shown(other->lines - before == 1);
             });
         }},
        // The registry only grows: each try has its own.
        {"addLogHandler, under a new long name",
         "true",
         {memory},
         [] {
             auto const other = std::make_shared<CountingSink>();
             return Action([other] {
                 int const before = other->lines;
                 log::addLogHandler(other, "a name that is too long to be kept within a string");
                 disarm();
                 log::setLogLevel(log::WARNING);
                 log::log(log::WARNING, "tag", "a line");
                 return shown(other->lines - before == 1);
             });
         },
         {},
         nullptr,
         true},
        {"levels and flags",
         "ERROR",
         {},
         [] {
             return Action([] {
                 log::setDepsDebuggable(!log::getDepsDebuggable());
                 log::setDepsDebuggable(!log::getDepsDebuggable());
                 log::setLogLevel(log::getLogLevel());
                 return shown(log::logLevelToName(log::getLogLevel()));
             });
         }},
    };
}

}  // namespace ovra::faults
