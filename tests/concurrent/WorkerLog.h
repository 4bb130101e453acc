#pragma once

#include <cstdio>

#include <tests/support/LogRecorder.h>

namespace ovra::concurrent {

/// What a worker logs at its start and at its end.
inline constexpr char STARTING[] =
    "[TaskExecutorWorker::run():INFO] Starting task executor worker thread.";
inline constexpr char TERMINATING[] =
    "[TaskExecutorWorker::run():INFO] Terminating task executor worker thread.";

/// What is logged at `ERROR`, on the standard error stream.
class PrintedErrors {
public:
    PrintedErrors() {
        recorder.onLine(
            [](test::LogLine const& line) { std::fputs((line.text + "\n").c_str(), stderr); });
    }

private:
    test::LogRecorder recorder{log::ERROR};
};

}  // namespace ovra::concurrent
