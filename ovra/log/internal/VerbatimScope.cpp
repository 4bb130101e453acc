#include <ovra/log/internal/VerbatimScope.h>

namespace ovra::log {

namespace {

// In the block of thread-local data that a thread has from its start (the initial-exec model). By
// the model that a shared object gets otherwise, the first access on a thread allocates, and ends
// the process if memory is short. The C library reserves some bytes for libraries loaded later;
// this takes one of them, which `dlclose` returns.
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
