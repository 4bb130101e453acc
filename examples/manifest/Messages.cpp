#include "Messages.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <system_error>

#include <ovra/log/Log.h>

namespace manifest {

namespace {

std::string whyNotOpened(std::string const& path, int flags) {
    int const opened = open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC | flags);
    if (opened == -1) {
        return std::generic_category().message(errno);
    }
    close(opened);
    return {};
}

int outputError = 0;

}  // namespace

void say(std::string const& message) {
    std::cerr << "ovra-manifest: " + message + '\n';
}

void complain(std::string const& message) {
    say(message);
    ovra::log::log(ovra::log::WARNING, "complain()", "%s", forLog(message).c_str());
}

void print(std::string const& text) {
    if (std::cout && !(std::cout << text)) {
        outputError = errno;
    }
}

void flushOutput() {
    if (std::cout && !std::cout.flush()) {
        outputError = errno;
    }
}

bool finishOutput() {
    flushOutput();
    if (!std::cout) {
        complain("standard output: " + std::generic_category().message(outputError));
    }
    return std::cout.good();
}

std::string forLog(std::string const& text) {
    std::string result;
    result.reserve(text.size());
    for (char const c : text) {
        bool const isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
        result += isControl ? '?' : c;
        if (c == '%') {
            result += '%';
        }
    }
    return result;
}

std::string whyFileNotOpened(std::string const& path) {
    return whyNotOpened(path, O_NONBLOCK);
}

std::string whyDirectoryNotOpened(std::string const& path) {
    return whyNotOpened(path, O_DIRECTORY);
}

}  // namespace manifest
