#include "kestro/core/config.h"

#include <cstdlib>
#include <string_view>

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

// Whether a host text already names its port: "host:port" or "[v6 address]:port".
bool hasPort(std::string_view host) {
    const auto colon = host.rfind(':');
    if (colon == std::string_view::npos || colon + 1 == host.size()) return false;
    if (host.find_first_not_of("0123456789", colon + 1) != std::string_view::npos) return false;
    return host.front() == '[' ? host[colon - 1] == ']' : host.find(':') == colon;
}

// The development service listens on 3007 unless the host override names another port.
std::string devAuthority() {
    std::string host = hostFor(KestroEnvironment::dev);
    return hasPort(host) ? host : host + ":3007";
}

}  // namespace

std::string getAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) return "https://" + hostFor(env);
    return "http://" + devAuthority();
}

std::string getWSAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) return "wss://" + hostFor(env);
    return "ws://" + devAuthority();
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
