// A shared object that contains the library.

#include <ovra/ovra.h>

extern "C" __attribute__((visibility("default"))) void setLevel(int level) {
    ovra::log::setLogLevel(static_cast<ovra::log::LogLevel>(level));
}

extern "C" __attribute__((visibility("default"))) int getLevel() {
    return ovra::log::getLogLevel();
}
