#include <glog/logging.h>

#include <benchmarks/log/LogBenchmarks.h>

namespace ovra::bench {

namespace {

void open(benchmark::State const&) {
    if (!google::IsGoogleLoggingInitialized()) {
        google::InitGoogleLogging("benchmark-log");
    }
    FLAGS_logtostderr = false;
    FLAGS_stderrthreshold = google::NUM_SEVERITIES;
    FLAGS_log_prefix = false;
    FLAGS_logbufsecs = 0;  // Flush each line.
    FLAGS_minloglevel = google::INFO;
    google::SetLogDestination(google::INFO, (logFile() + ".glog.").c_str());
}

void writeLine(int number, char const* text) {
    LOG(INFO) << "[bench:INFO] Moving current task " << number << " into " << text << " state.";
}

bool add() {
    addLogBenchmark(
        "filtered/glog", 1, open,
        [](int number, char const* text) {
            VLOG(1) << "[bench:INFO] Moving current task " << number << " into " << text
                    << " state.";
        },
        nothing);
    addLogBenchmark("file/glog", 1, open, writeLine, nothing);
    addLogBenchmark("file/glog/threads:4", 4, open, writeLine, nothing);
    if (isSystemLogDrained()) {
        auto const writeBoth = [](int number, char const* text) {
            SYSLOG(INFO) << "[bench:INFO] Moving current task " << number << " into " << text
                         << " state.";
        };
        addLogBenchmark("file+syslog/glog", 1, open, writeBoth, nothing);
        addLogBenchmark("file+syslog/glog/threads:4", 4, open, writeBoth, nothing);
    }
    return true;
}

[[maybe_unused]] bool const isAdded = add();

}  // namespace

}  // namespace ovra::bench
