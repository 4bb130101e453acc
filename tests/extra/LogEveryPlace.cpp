// Logs from an inline function, such as one in a header. Two shared objects contain it.

#include <ovra/extra/LogEvery.h>

namespace ovra::extra::test {

inline void logFromInlineFunction() {
    OVRA_LOG_EVERY(100, log::INFO, "tag", "inline");
}

}  // namespace ovra::extra::test

extern "C" __attribute__((visibility("default"))) void OVRA_TEST_PLACE() {
    ovra::extra::test::logFromInlineFunction();
}
