// Macros with arguments, as logging macros often are, stand beside the library's names.
#define DEBUG(...) static_cast<void>(0)
#define ERROR(...) static_cast<void>(0)
#define INFO(...) static_cast<void>(0)
#define SUCCESS() 0

#include <ovra/ovra.h>

ovra::concurrent::Executable::Result logAndSucceed() {
    DEBUG("nothing");
    ERROR("nothing");
    INFO("nothing");
    ovra::log::log(ovra::log::ERROR, "tag", "level %d", ovra::log::DEBUG);
    ovra::log::setLogLevel(ovra::log::INFO);
    return ovra::concurrent::Executable::SUCCESS;
}
