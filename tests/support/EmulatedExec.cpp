// Under an emulator that the kernel does not know of, a process cannot become another program for
// the target: the kernel refuses its file. These definitions hide the C library's and name the
// emulator where that happens.

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace {

char const* const EMULATOR[] = {OVRA_TEST_EMULATOR};

long becomeAtOnce(char const* path, char* const arguments[]) {
    return syscall(SYS_execve, path, arguments, environ);
}

}  // namespace

extern "C" {

int execv(char const* path, char* const arguments[]) noexcept {
    if (becomeAtOnce(path, arguments) != -1 || errno != ENOEXEC) {
        return -1;
    }
    std::vector<char*> emulated;
    for (char const* const word : EMULATOR) {
        emulated.push_back(const_cast<char*>(word));
    }
    emulated.push_back(const_cast<char*>(path));
    for (char* const* argument = arguments + 1; *argument != nullptr; ++argument) {
        emulated.push_back(*argument);
    }
    emulated.push_back(nullptr);
    return static_cast<int>(becomeAtOnce(emulated[0], emulated.data()));
}

int execvp(char const* file, char* const arguments[]) noexcept {
    if (file[0] == '/') {
        return execv(file, arguments);
    }
    return execvpe(file, arguments, environ);
}

}  // extern "C"
