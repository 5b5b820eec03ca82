#include "kestro/core/config.h"

#include <cstdlib>

#ifndef KESTRO_DEV_HOST_DEFAULT
#define KESTRO_DEV_HOST_DEFAULT "127.0.0.1"
#endif
#ifndef KESTRO_PROD_HOST_DEFAULT
#define KESTRO_PROD_HOST_DEFAULT "api.kestro.dev"
#endif

namespace kestro {
namespace {

// Read on every call so that tests and operators can point the SDK elsewhere at run time.
std::string hostFor(KestroEnvironment env) {
    const char* name = env == KestroEnvironment::dev ? "KESTRO_DEV_HOST" : "KESTRO_PROD_HOST";
    if (const char* value = std::getenv(name); value != nullptr && *value != '\0') return value;
    return env == KestroEnvironment::dev ? KESTRO_DEV_HOST_DEFAULT : KESTRO_PROD_HOST_DEFAULT;
}

}  // namespace

std::string getAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) return "https://" + hostFor(env);
    return "http://" + hostFor(env) + ":3007";
}

std::string getWSAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) return "wss://" + hostFor(env);
    return "ws://" + hostFor(env) + ":3007";
}

const char* toString(LogLevel level) {
    switch (level) {
        case LogLevel::verbose: return "verbose";
        case LogLevel::debug: return "debug";
        case LogLevel::info: return "info";
        case LogLevel::warning: return "warning";
        case LogLevel::error: return "error";
    }
    return "verbose";
}

}  // namespace kestro
