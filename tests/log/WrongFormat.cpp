// Must not compile where formats are checked.
#include <ovra/log/Log.h>

void logAWrongArgument() {
    ovra::log::log(ovra::log::ERROR, "tag", "%s", 1);
}
