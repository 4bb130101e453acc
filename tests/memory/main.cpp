#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <sstream>

#include "EndScenarios.h"
#include "ExtraScenarios.h"
#include "Scenarios.h"
#include "WorkScenarios.h"

#include "Run.h"

// memoryModel list
//     the scenarios, each with how it is searched and for how many executions
// memoryModel <scenario> <executions or 0> [-v] [<number> acq_rel|relaxed]
//     runs one: as many executions, or all; with -v shows the steps to what is wrong. Weakens the
//     unnamed accesses to the atomic with this number.

namespace {

using RunScenario = rl::test_result_e (*)(rl::test_params&, std::ostream&);

template <typename Scenario, int THREADS, int STARTED = 0>
rl::test_result_e runScenario(rl::test_params& params, std::ostream& state) {
    using Suite = model::Suite<Scenario, THREADS, STARTED>;
    constexpr rl::thread_id_t ALL = THREADS + STARTED;
    return params.search_type == rl::sched_random
               ? rl::run_test<Suite, rl::random_scheduler<ALL>>(params, state, false)
               : rl::run_test<Suite, rl::full_search_scheduler<ALL>>(params, state, false);
}

constexpr unsigned int ALL = 0;

struct Entry {
    char const* name;
    RunScenario run;
    unsigned int executions;  // ALL: until there is no other.
};

using namespace scenarios;

Entry const ENTRIES[] = {
    {"PushState", runScenario<PushState, 2>, 20000},
    {"PushResult", runScenario<PushResult, 2>, 20000},
    {"PushException", runScenario<PushException, 2>, 20000},
    {"Wait", runScenario<Wait, 2>, 20000},
    {"WaitForEnded", runScenario<WaitForEnded, 2>, 20000},
    {"WaitForEndedByProxy", runScenario<WaitForEndedByProxy, 2>, 20000},
    {"Cancel", runScenario<Cancel, 2>, 20000},
    {"CancelOfRepeat", runScenario<CancelOfRepeat, 2>, 20000},
    {"RankAgainstInsert", runScenario<RankAgainstInsert, 3>, 20000},
    {"PriorityAgainstInsert", runScenario<PriorityAgainstInsert, 2>, 20000},
    {"RankAgainstPick", runScenario<RankAgainstPick, 3>, 20000},
    {"RankAgainstScan", runScenario<RankAgainstScan, 2>, 20000},
    {"RankOfThePicked", runScenario<RankOfThePicked, 3>, 20000},
    {"RankAgainstClose", runScenario<RankAgainstClose, 3>, 20000},
    {"RankAgainstDestruction", runScenario<RankAgainstDestruction, 2>, 20000},
    {"AddToTwoQueues", runScenario<AddToTwoQueues, 2>, 20000},
    {"PushTwice", runScenario<PushTwice, 2>, 20000},
    {"HandleAgainstState", runScenario<HandleAgainstState, 2>, 20000},
    {"AddAgainstWait", runScenario<AddAgainstWait, 2>, 20000},
    {"CloseAgainstWait", runScenario<CloseAgainstWait, 3>, 20000},
    {"SubmitAgainstDestruction", runScenario<SubmitAgainstDestruction, 2, 1>, 20000},
    {"ReleaseParts", runScenario<ReleaseParts, 2>, 20000},
    {"EndAgainstWait", runScenario<EndAgainstWait, 2>, ALL},
    {"EndAgainstFuture", runScenario<EndAgainstFuture, 2>, 20000},
    {"EndTwice", runScenario<EndTwice, 3>, 20000},
    {"LogLevel", runScenario<scenarios::LogLevel, 2>, ALL},
    {"SwitchOfTarget", runScenario<SwitchOfTarget, 2>, 20000},
    {"SwitchAwaited", runScenario<SwitchAwaited, 3>, 20000},
    {"RingOfOne", runScenario<RingOfOne, 2>, 20000},
    {"RingOfTwo", runScenario<RingOfTwo, 3>, 20000},
    {"RingOfLate", runScenario<RingOfLate, 2>, 20000},
    {"StopOfRunning", runScenario<StopOfRunning, 2>, 20000},
    {"StopBeforeCancel", runScenario<StopBeforeCancel, 2>, 20000},
    {"GroupAgainstWait", runScenario<GroupAgainstWait, 2>, 20000},
    {"GroupAtItsLimit", runScenario<GroupAtItsLimit, 2>, 20000},
    {"GroupAgainstCancel", runScenario<GroupAgainstCancel, 3>, 20000},
    {"CountsOfOneMoment", runScenario<CountsOfOneMoment, 3>, 20000},
};

int runEntry(Entry const& entry, unsigned int executions, bool isVerbose) {
    std::ostringstream ignored;
    std::ostringstream state;
    rl::test_params params;
    params.output_stream = &ignored;
    params.progress_stream = &ignored;
    params.execution_depth_limit = 5000;
    params.search_type = executions == ALL ? rl::sched_full : rl::sched_random;
    params.iteration_count = executions == ALL ? 1 : executions;
    if (entry.run(params, state) == rl::test_result_success) {
        std::cout << params.stop_iteration << " executions"
                  << (executions == ALL ? ", all there are" : "") << std::endl;
        return EXIT_SUCCESS;
    }
    std::cout << rl::test_result_str(params.test_result) << " in execution "
              << params.stop_iteration << std::endl;
    if (isVerbose) {
        rl::test_params again;
        again.search_type = params.search_type;
        again.iteration_count = params.iteration_count;
        again.execution_depth_limit = params.execution_depth_limit;
        again.initial_state = state.str();
        again.collect_history = true;
        again.progress_stream = &ignored;
        entry.run(again, ignored);
    }
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "list") == 0) {
        for (Entry const& entry : ENTRIES) {
            std::cout << entry.name << ' ' << entry.executions << '\n';
        }
        return EXIT_SUCCESS;
    }
    std::fill(std::begin(model::unnamedOrders), std::end(model::unnamedOrders),
              std::memory_order_seq_cst);
    bool isVerbose = false;
    for (int i = 3; i < argc; ++i) {
        if (std::strcmp(argv[i], "-v") == 0) {
            isVerbose = true;
        } else if (i + 1 < argc) {
            int const number = std::atoi(argv[i]);
            model::unnamedOrders[number] = std::strcmp(argv[++i], "relaxed") == 0
                                               ? std::memory_order_relaxed
                                               : std::memory_order_acq_rel;
        }
    }
    for (Entry const& entry : ENTRIES) {
        if (argc >= 3 && std::strcmp(argv[1], entry.name) == 0) {
            return runEntry(entry, static_cast<unsigned int>(std::atoi(argv[2])), isVerbose);
        }
    }
    std::cerr << "not known\n";
    return 2;
}
