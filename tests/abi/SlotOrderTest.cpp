#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <ovra/ovra.h>

#include <tests/support/VirtualTable.h>

namespace ovra {

namespace {

using concurrent::Executable;
using concurrent::HighestPriorityTaskRankingStrategy;
using concurrent::NoStarveTaskRankingStrategy;
using concurrent::SubmittedTask;
using concurrent::Task;
using concurrent::TaskExecutor;
using concurrent::TaskExecutorImpl;
using concurrent::TaskHandle;
using concurrent::TaskPriority;
using concurrent::TaskRankingStrategy;
using fs::FileHandleBackend;
using fs::FileHandleBackendImpl;
using fs::FileIteratorBackend;
using fs::FileIteratorBackendImpl;
using test::virtualSlot;

using Callback = std::function<void(std::shared_ptr<Task>)>;

// The places of a class's operations behind the destructor's two, as an application built against
// an earlier version has compiled them in, and the size of the exported table.
struct Table {
    char const* mangledName;
    std::vector<std::size_t> slots;
};

void PrintTo(Table const& table, std::ostream* out) {
    *out << table.slots.size() << " operations";
}

template <typename Class>
std::vector<std::size_t> slotsOfExecutor() {
    using SubmitObject = std::shared_ptr<TaskHandle> (Class::*)(std::shared_ptr<Task> const&,
                                                                TaskPriority, Callback const&);
    using SubmitFunction = std::shared_ptr<TaskHandle> (Class::*)(
        std::function<Executable::Result()> const&, TaskPriority, Callback const&, char const*);
    return {virtualSlot(static_cast<SubmitObject>(&Class::submitTask)),
            virtualSlot(static_cast<SubmitFunction>(&Class::submitTask)),
            virtualSlot(&Class::isIdle)};
}

template <typename Class>
std::vector<std::size_t> slotsOfHandleBackend() {
    return {virtualSlot(&Class::Path),
            virtualSlot(&Class::Exists),
            virtualSlot(&Class::IsFile),
            virtualSlot(&Class::IsDirectory),
            virtualSlot(&Class::IsSymbolicLink),
            virtualSlot(&Class::ListDirectory),
            virtualSlot(&Class::Size),
            virtualSlot(&Class::ModificationTime),
            virtualSlot(&Class::Open),
            virtualSlot(&Class::CreateDirectory),
            virtualSlot(&Class::RemoveDirectory),
            virtualSlot(&Class::CreateSymbolicLink),
            virtualSlot(&Class::Copy),
            virtualSlot(&Class::Move),
            virtualSlot(&Class::Rename),
            virtualSlot(&Class::Remove),
            virtualSlot(&Class::UserId),
            virtualSlot(&Class::SetUserId),
            virtualSlot(&Class::GroupId),
            virtualSlot(&Class::SetGroupId),
            virtualSlot(&Class::Permissions),
            virtualSlot(&Class::SetPermissions),
            virtualSlot(&Class::CreateInputStream),
            virtualSlot(&Class::CreateOutputStream),
            virtualSlot(&Class::UpdateFileStatus)};
}

template <typename Class>
std::vector<std::size_t> slotsOfIteratorBackend() {
    return {virtualSlot(&Class::Valid), virtualSlot(&Class::Path), virtualSlot(&Class::Index),
            virtualSlot(&Class::Name), virtualSlot(&Class::Next)};
}

std::vector<Table> tables() {
    using Lambda = SubmittedTask::LambdaFunctionTask;
    return {
        {"N4ovra10concurrent10ExecutableE", {virtualSlot(&Executable::execute)}},
        {"N4ovra10concurrent4TaskE", {virtualSlot(&Task::execute), virtualSlot(&Task::name)}},
        {"N4ovra10concurrent13SubmittedTask18LambdaFunctionTaskE",
         {virtualSlot(&Lambda::execute), virtualSlot(&Lambda::name)}},
        {"N4ovra10concurrent13SubmittedTaskE",
         {virtualSlot(&SubmittedTask::getRank), virtualSlot(&SubmittedTask::getPriority),
          virtualSlot(&SubmittedTask::setState), virtualSlot(&SubmittedTask::setResult)}},
        {"N4ovra10concurrent10TaskHandleE", {}},
        {"N4ovra10concurrent19TaskRankingStrategyE",
         {virtualSlot(&TaskRankingStrategy::updateRank)}},
        {"N4ovra10concurrent34HighestPriorityTaskRankingStrategyE",
         {virtualSlot(&HighestPriorityTaskRankingStrategy::updateRank)}},
        {"N4ovra10concurrent27NoStarveTaskRankingStrategyE",
         {virtualSlot(&NoStarveTaskRankingStrategy::updateRank)}},
        {"N4ovra10concurrent19SubmittedTasksQueueE", {}},
        {"N4ovra10concurrent12TaskExecutorE", slotsOfExecutor<TaskExecutor>()},
        {"N4ovra10concurrent16TaskExecutorImplE", slotsOfExecutor<TaskExecutorImpl>()},
        {"N4ovra10concurrent18TaskExecutorWorkerE", {}},
        {"N4ovra3log10LogHandlerE", {virtualSlot(&log::LogHandler::handleLogMessage)}},
        {"N4ovra3log18PlatformLogHandlerE",
         {virtualSlot(&log::PlatformLogHandler::handleLogMessage)}},
        {"N4ovra3log24StandardStreamLogHandlerE",
         {virtualSlot(&log::StandardStreamLogHandler::handleLogMessage)}},
        {"N4ovra3log14FileLogHandlerE", {virtualSlot(&log::FileLogHandler::handleLogMessage)}},
        {"N4ovra2fs10FileHandleE", {}},
        {"N4ovra2fs17FileHandleBackendE", slotsOfHandleBackend<FileHandleBackend>()},
        {"N4ovra2fs21FileHandleBackendImplE", slotsOfHandleBackend<FileHandleBackendImpl>()},
        {"N4ovra2fs19FileIteratorBackendE", slotsOfIteratorBackend<FileIteratorBackend>()},
        {"N4ovra2fs23FileIteratorBackendImplE", slotsOfIteratorBackend<FileIteratorBackendImpl>()},
    };
}

// From the table that the shared object exports.
std::size_t exportedSlotCount(std::string const& mangledName) {
    void* const table = dlsym(RTLD_DEFAULT, ("_ZTV" + mangledName).c_str());
    Dl_info info;
    void* entry = nullptr;
    if (table == nullptr || dladdr1(table, &info, &entry, RTLD_DL_SYMENT) == 0) {
        return 0;
    }
    // Before the operations stand the offset to the top and the type information.
    return static_cast<ElfW(Sym) const*>(entry)->st_size / sizeof(void*) - 2;
}

// What the exported table holds at a place; null if there is none.
void* exportedEntry(std::string const& mangledName, std::size_t place) {
    void* const table = dlsym(RTLD_DEFAULT, ("_ZTV" + mangledName).c_str());
    return table != nullptr ? static_cast<void**>(table)[2 + place] : nullptr;
}

class SlotOrderTest : public ::testing::TestWithParam<Table> {};

TEST_P(SlotOrderTest, OperationsFollowTheDestructorInTheirOrder) {
    std::string const mangled = GetParam().mangledName;
    std::vector<std::size_t> const& slots = GetParam().slots;
    bool const isAbstract = std::any_of(slots.begin(), slots.end(), [&](std::size_t slot) {
        return exportedEntry(mangled, slot) == dlsym(RTLD_DEFAULT, "__cxa_pure_virtual");
    });
    // That of a whole object, and the one that frees its memory as well. A compiler may leave them
    // out of the table of an abstract class.
    std::string const destructor = "_Z" + mangled.substr(0, mangled.size() - 1);
    for (std::size_t place = 0; place < 2 && !isAbstract; ++place) {
        void* const expected =
            dlsym(RTLD_DEFAULT, (destructor + (place == 0 ? "D1Ev" : "D0Ev")).c_str());
        // Not exported where the class declares none.
        EXPECT_TRUE(exportedEntry(mangled, place) == expected || expected == nullptr) << place;
        EXPECT_NE(exportedEntry(mangled, place), nullptr) << place;
    }

    for (std::size_t place = 0; place < slots.size(); ++place) {
        EXPECT_EQ(slots[place], 2 + place);
    }
}

TEST_P(SlotOrderTest, ExportedTableHoldsNothingElse) {
    EXPECT_EQ(exportedSlotCount(GetParam().mangledName), 2 + GetParam().slots.size());
}

// The class's own name: what follows the last length, up to the closing E.
std::string nameOf(::testing::TestParamInfo<Table> const& table) {
    std::string const mangled = table.param.mangledName;
    std::size_t const start = mangled.find_last_of("0123456789") + 1;
    return mangled.substr(start, mangled.size() - start - 1);
}

INSTANTIATE_TEST_SUITE_P(Classes, SlotOrderTest, ::testing::ValuesIn(tables()), nameOf);

}  // namespace

}  // namespace ovra
