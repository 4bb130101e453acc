#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace manifest {

/// Computes one SHA-256 digest. Throws `std::runtime_error` should the cryptographic library fail.
class Sha256 {
public:
    Sha256();

    /// Makes the cryptographic library initialise itself, which it does at its first digest. Call
    /// this before a shared executor is used: what is initialised first is destroyed last, so at
    /// the exit of the process the executor's worker ends before the cryptographic library does.
    static void setUpLibrary();

    void add(char const* data, std::size_t size);
    /// The digest of all that was added, in lower-case hexadecimal. Call it once.
    std::string finish();

private:
    struct Free {
        void operator()(evp_md_ctx_st* allocated) const;
    };

    std::unique_ptr<evp_md_ctx_st, Free> context;
};

}  // namespace manifest
