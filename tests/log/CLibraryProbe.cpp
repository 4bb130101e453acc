#include <tests/log/CLibraryProbe.h>

#include <malloc.h>
#include <pthread.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <new>

#include <tests/support/NextFunction.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define OVRA_TEST_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(OVRA_TEST_SANITIZED)
// Part of the sanitizers' interface; not every compiler brings its header.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#define OVRA_TEST_HEAP_IN_USE() __sanitizer_get_current_allocated_bytes()
#else
#define OVRA_TEST_HEAP_IN_USE() (mallinfo2().uordblks + mallinfo2().hblkhd)
#endif

namespace ovra::log::test {

using ovra::test::NextFunction;

namespace {

// Plain pointers: they must be usable on every thread from its first moment to its last.
thread_local CLibraryProbe* currentProbe = nullptr;
thread_local AllocationProbe* currentAllocationProbe = nullptr;

// The probe of this thread, unless it is one of its hooks that calls.
CLibraryProbe* watchingProbe() {
    CLibraryProbe* const probe = currentProbe;
    return probe != nullptr && !probe->insideHook ? probe : nullptr;
}

class InsideHook {
public:
    explicit InsideHook(CLibraryProbe& probe) : flag(probe.insideHook) { flag = true; }
    InsideHook(InsideHook const&) = delete;
    InsideHook& operator=(InsideHook const&) = delete;
    ~InsideHook() { flag = false; }

private:
    bool& flag;
};

NextFunction<int(char**, char const*, std::va_list)> hiddenVasprintf("vasprintf");
NextFunction<int(pthread_mutex_t*)> hiddenMutexLock("pthread_mutex_lock");
NextFunction<int(pthread_mutex_t*)> hiddenMutexUnlock("pthread_mutex_unlock");

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// What a failure leaves in the caller's pointer: neither text nor from the heap.
char undefined[] = "undefined";

int formatText(Formatting outcome, char** text, char const* format, std::va_list arguments) {
    switch (outcome) {
        case Formatting::REAL:
            break;
        case Formatting::FAILS:
            *text = undefined;
            return -1;
        case Formatting::LEAVES_NULL:
            *text = nullptr;
            return 0;
    }
    return hiddenVasprintf(text, format, arguments);
}

int formatMessage(char** text, char const* format, std::va_list arguments) {
    CLibraryProbe* const probe = watchingProbe();
    if (probe != nullptr) {
        ++probe->vasprintfCalls;
    }
    return formatText(probe != nullptr ? probe->vasprintfOutcome : Formatting::REAL, text, format,
                      arguments);
}

int formatLine(char** text, char const* format, std::va_list arguments) {
    CLibraryProbe* const probe = watchingProbe();
    if (probe != nullptr) {
        ++probe->asprintfCalls;
    }
    return formatText(probe != nullptr ? probe->asprintfOutcome : Formatting::REAL, text, format,
                      arguments);
}

void writeToSystemLog(int priority, char const* format, std::va_list arguments) {
    CLibraryProbe* const probe = watchingProbe();
    if (probe == nullptr) {
        return;
    }
    std::va_list again;
    va_copy(again, arguments);
    int const length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    probe->systemLogCalls.push_back({priority, format, std::move(text)});
    if (probe->onSystemLog) {
        InsideHook const insideHook(*probe);
        probe->onSystemLog();
    }
}

#pragma GCC diagnostic pop

void* allocate(std::size_t size) noexcept {
    if (AllocationProbe* const probe = currentAllocationProbe) {
        if (probe->failingAllocation > 0 && --probe->failingAllocation == 0) {
            return nullptr;
        }
        ++probe->allocations;
    }
    return std::malloc(size != 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    if (void* const memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void release(void* memory) noexcept {
    if (AllocationProbe* const probe = currentAllocationProbe; probe != nullptr && memory) {
        ++probe->releases;
    }
    std::free(memory);
}

}  // namespace

CLibraryProbe::CLibraryProbe() : outer(currentProbe) {
    currentProbe = this;
}

CLibraryProbe::~CLibraryProbe() {
    currentProbe = outer;
}

std::vector<std::string> CLibraryProbe::systemLogLines() const {
    std::vector<std::string> lines;
    for (SystemLogCall const& call : systemLogCalls) {
        lines.push_back(call.text);
    }
    return lines;
}

AllocationProbe::AllocationProbe() {
    currentAllocationProbe = this;
}

AllocationProbe::~AllocationProbe() {
    currentAllocationProbe = nullptr;
}

std::size_t heapInUse() {
    return OVRA_TEST_HEAP_IN_USE();
}

std::size_t openDescriptors() {
    std::filesystem::directory_iterator const descriptors("/proc/self/fd");
    // The scan itself holds one.
    return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors))) - 1;
}

}  // namespace ovra::log::test

// The C library's functions, as the library sees them. Its fortified variants too: which of them
// the library calls depends on how it was built.

namespace hidden = ovra::log::test;

extern "C" {

int vasprintf(char** text, char const* format, std::va_list arguments) noexcept {
    return hidden::formatMessage(text, format, arguments);
}

int __vasprintf_chk(char** text, int, char const* format, std::va_list arguments) noexcept {
    return hidden::formatMessage(text, format, arguments);
}

int asprintf(char** text, char const* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    int const length = hidden::formatLine(text, format, arguments);
    va_end(arguments);
    return length;
}

int __asprintf_chk(char** text, int, char const* format, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    int const length = hidden::formatLine(text, format, arguments);
    va_end(arguments);
    return length;
}

void syslog(int priority, char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    hidden::writeToSystemLog(priority, format, arguments);
    va_end(arguments);
}

void __syslog_chk(int priority, int, char const* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    hidden::writeToSystemLog(priority, format, arguments);
    va_end(arguments);
}

void vsyslog(int priority, char const* format, std::va_list arguments) {
    hidden::writeToSystemLog(priority, format, arguments);
}

void __vsyslog_chk(int priority, int, char const* format, std::va_list arguments) {
    hidden::writeToSystemLog(priority, format, arguments);
}

void openlog(char const*, int, int) {
    if (hidden::CLibraryProbe* const probe = hidden::watchingProbe()) {
        ++probe->openlogCalls;
    }
}

void closelog() {
    if (hidden::CLibraryProbe* const probe = hidden::watchingProbe()) {
        ++probe->closelogCalls;
    }
}

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    hidden::CLibraryProbe* const probe = hidden::watchingProbe();
    if (probe != nullptr && probe->onLock) {
        hidden::InsideHook const insideHook(*probe);
        if (int const failure = probe->onLock(mutex)) {
            return failure;
        }
    }
    return hidden::hiddenMutexLock(mutex);
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    hidden::CLibraryProbe* const probe = hidden::watchingProbe();
    if (probe != nullptr && probe->onUnlock) {
        hidden::InsideHook const insideHook(*probe);
        probe->onUnlock(mutex);
    }
    return hidden::hiddenMutexUnlock(mutex);
}

}  // extern "C"

void* operator new(std::size_t size) {
    return hidden::allocateOrThrow(size);
}

void* operator new[](std::size_t size) {
    return hidden::allocateOrThrow(size);
}

void* operator new(std::size_t size, std::nothrow_t const&) noexcept {
    return hidden::allocate(size);
}

void* operator new[](std::size_t size, std::nothrow_t const&) noexcept {
    return hidden::allocate(size);
}

void operator delete(void* memory) noexcept {
    hidden::release(memory);
}

void operator delete[](void* memory) noexcept {
    hidden::release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    hidden::release(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    hidden::release(memory);
}

void operator delete(void* memory, std::nothrow_t const&) noexcept {
    hidden::release(memory);
}

void operator delete[](void* memory, std::nothrow_t const&) noexcept {
    hidden::release(memory);
}
