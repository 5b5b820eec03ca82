#include "kestro/network/tls_runtime.h"

#include <openssl/crypto.h>

namespace kestro {

void initTLSRuntime() {
    static const bool initialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    (void)initialised;
}

namespace {
// Runs at start-up in every program that links this file, ahead of anything that could make
// OpenSSL register its clean-up first.
const bool kInitialisedAtStartUp = (initTLSRuntime(), true);
}  // namespace

}  // namespace kestro
