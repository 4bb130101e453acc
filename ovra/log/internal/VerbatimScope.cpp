#include <ovra/log/internal/VerbatimScope.h>

namespace ovra::log {

namespace {

// In the block that a thread has from its start. By the model that a shared object gets otherwise,
// the first look on a thread allocates, and ends the process when memory is short. Of the bytes
// that the C library sets aside for libraries loaded later, this takes one, which `dlclose`
// returns.
__attribute__((tls_model("initial-exec"))) thread_local bool verbatim = false;

}  // namespace

VerbatimScope::VerbatimScope(bool isText) : outer(verbatim) {
    verbatim = isText;
}

VerbatimScope::~VerbatimScope() {
    verbatim = outer;
}

bool VerbatimScope::isVerbatim() {
    return verbatim;
}

}  // namespace ovra::log
