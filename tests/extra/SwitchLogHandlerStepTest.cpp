// What other threads do to a switch between two instructions of an exchange.

#include <gtest/gtest.h>

#include <tests/support/Bounded.h>

#if defined(__x86_64__)

#include <link.h>
#include <linux/futex.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <ovra/extra/SwitchLogHandler.h>
#include <tests/log/LogTestSupport.h>
#include <tests/support/NextFunction.h>

namespace ovra::extra {
namespace {

using ovra::test::FunctionSink;

std::function<void()>* beforeFutexWait = nullptr;
std::function<void()>* atInstruction = nullptr;
std::uintptr_t codeBegin = 0;
std::uintptr_t codeEnd = 0;

void findCode() {
    dl_iterate_phdr(
        [](dl_phdr_info* object, std::size_t, void*) {
            if (std::strstr(object->dlpi_name, "libovra-extra.so") == nullptr) {
                return 0;
            }
            for (int i = 0; i < object->dlpi_phnum; ++i) {
                auto const& segment = object->dlpi_phdr[i];
                if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
                    codeBegin = object->dlpi_addr + segment.p_vaddr;
                    codeEnd = codeBegin + segment.p_memsz;
                }
            }
            return 1;
        },
        nullptr);
}

void onTrap(int, siginfo_t*, void* context) {
    auto const& registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
    auto const place = static_cast<std::uintptr_t>(registers[REG_RIP]);
    if (place >= codeBegin && place < codeEnd) {
        (*atInstruction)();
    }
}

// Calls `visit` before each instruction of the library that `action` executes.
void step(std::function<void()> const& action, std::function<void()> visit) {
    struct sigaction trap = {};
    struct sigaction before = {};
    trap.sa_sigaction = onTrap;
    trap.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &trap, &before);
    atInstruction = &visit;
    asm volatile("pushfq; orq $0x100, (%%rsp); popfq" : : : "cc", "memory");
    action();
    asm volatile("pushfq; andq $~0x100, (%%rsp); popfq" : : : "cc", "memory");
    sigaction(SIGTRAP, &before, nullptr);
}

class SwitchLogHandlerStepTest : public test::BoundedTest {
protected:
    void SetUp() override {
        BoundedTest::SetUp();
        if (test::SANITIZED) {
            GTEST_SKIP() << "the sanitizer adds instructions of its own";
        }
        findCode();
        ASSERT_NE(codeBegin, 0u);
    }
};

TEST_F(SwitchLogHandlerStepTest, AChildThatIsForkedDuringAnExchangeLogsToOneOfTheTwo) {
    long passed = 0;
    auto const makeTarget = [&] {
        return std::make_shared<FunctionSink>([&](char const*, log::LogLevel) { ++passed; });
    };
    SwitchLogHandler sink(makeTarget());
    auto next = makeTarget();
    int forks = 0;
    int losses = 0;
    step([&] { sink.exchange(std::move(next)); },
         [&] {
             pid_t const child = fork();
             if (child == 0) {
                 alarm(test::deadlineSeconds());
                 sink.handleLogMessage("a line", log::INFO);
                 _exit(passed == 1 ? 0 : 1);
             }
             int status = -1;
             waitpid(child, &status, 0);
             ++forks;
             losses += status == 0 ? 0 : 1;
         });
    EXPECT_GT(forks, 10);
    EXPECT_EQ(losses, 0);
}

TEST_F(SwitchLogHandlerStepTest, HandsEveryTargetBackWhereTwoThreadsExchange) {
    bool isReached = true;
    for (int round = 0; isReached && !HasFailure(); ++round) {
        std::vector<std::shared_ptr<log::LogHandler>> held(3);
        for (auto& target : held) {
            target = std::make_shared<ovra::test::RecordingSink>();
        }
        std::set<std::shared_ptr<log::LogHandler>> const made(held.begin(), held.end());
        SwitchLogHandler sink(std::move(held[0]));
        sem_t mayChange;
        sem_t hasStopped;  // The change has been made, or waits for the lock.
        sem_init(&mayChange, 0, 0);
        sem_init(&hasStopped, 0, 0);
        std::function<void()> const stopped = [&] { sem_post(&hasStopped); };
        auto onWait = stopped;
        beforeFutexWait = &onWait;
        std::thread other([&] {
            while (sem_wait(&mayChange) != 0) {
            }
            held[1] = sink.exchange(std::move(held[1]));
            stopped();
        });
        int left = round;
        isReached = false;
        step([&] { held[2] = sink.exchange(std::move(held[2])); },
             [&] {
                 if (left-- == 0) {
                     isReached = true;
                     sem_post(&mayChange);
                     while (sem_wait(&hasStopped) != 0) {
                     }
                 }
             });
        sem_post(&mayChange);  // If this round did not come there.
        other.join();
        beforeFutexWait = nullptr;
        held[0] = sink.exchange(nullptr);
        EXPECT_EQ(std::set(held.begin(), held.end()), made) << round;
    }
}

}  // namespace
}  // namespace ovra::extra

// Not a local of the function below: to wait for a local's initialisation takes that function.
static auto* const realSyscall =
    ovra::test::nextFunction<long(long, long, long, long, long, long, long)>("syscall");

// The library's locks wait by this function.
extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, number);
    long values[6];
    for (long& value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    bool const isWait = number == SYS_futex && (values[1] & FUTEX_CMD_MASK) == FUTEX_WAIT;
    if (isWait && ovra::extra::beforeFutexWait != nullptr) {
        (*ovra::extra::beforeFutexWait)();
    }
    return realSyscall(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

#endif
