#pragma once

#include <cstddef>
#include <memory>

#include "Digest.h"

struct evp_md_ctx_st;

namespace manifest {

/// Computes SHA-256 digests, one after another. Throws `std::runtime_error` should the
/// cryptographic library fail. The constructor takes locks that all threads share, so a thread that
/// computes many digests should keep one object.
class Sha256 {
public:
    Sha256();

    /// Forgets what was added: the next digest begins.
    void restart();

    /// Makes the cryptographic library initialise itself, which it does at its first digest. Call
    /// this before a shared executor is used: what is initialised first is destroyed last, so at
    /// the exit of the process the executor's worker ends before the cryptographic library does.
    static void setUpLibrary();

    void add(char const* data, std::size_t size);
    /// The digest of all that was added. `restart()` comes next, if anything.
    Digest finish();

private:
    struct Free {
        void operator()(evp_md_ctx_st* allocated) const;
    };

    std::unique_ptr<evp_md_ctx_st, Free> context;
};

}  // namespace manifest
