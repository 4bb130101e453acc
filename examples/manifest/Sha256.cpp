#include "Sha256.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <stdexcept>

namespace manifest {

namespace {

void require(int succeeded) {
    if (succeeded != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
}

}  // namespace

void Sha256::Free::operator()(evp_md_ctx_st* allocated) const {
    EVP_MD_CTX_free(allocated);
}

Sha256::Sha256() : context(EVP_MD_CTX_new()) {
    require(EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr));
}

void Sha256::restart() {
    require(EVP_DigestInit_ex(context.get(), nullptr, nullptr));  // The same algorithm again.
}

void Sha256::setUpLibrary() {
    // No file of settings changes what a digest is, and none is read.
    require(OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr));
    Sha256().finish();
}

void Sha256::add(char const* data, std::size_t size) {
    require(EVP_DigestUpdate(context.get(), data, size));
}

Digest Sha256::finish() {
    Digest digest = {};
    require(EVP_DigestFinal_ex(context.get(), digest.data(), nullptr));
    return digest;
}

}  // namespace manifest
