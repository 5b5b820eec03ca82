#include "kestro/core/config.h"

#include <cstdlib>
#include <string_view>

#ifndef KESTRO_DEV_HOST_DEFAULT
#define KESTRO_DEV_HOST_DEFAULT "127.0.0.1"
#endif
#ifndef KESTRO_PROD_HOST_DEFAULT
#define KESTRO_PROD_HOST_DEFAULT ""
#endif

namespace kestro {
namespace {

// Read on every call so that tests and operators can point the SDK elsewhere at run time.
//
// The production host has no default: Kestro is self-hosted, and a default domain that nobody
// running Kestro controls would send captured traffic to a stranger. An empty KESTRO_PROD_HOST
// names no production service even where the build names one (an operator's way to keep a
// build from uploading); an empty KESTRO_DEV_HOST means the default development host.
std::string hostFor(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) {
        const char* value = std::getenv("KESTRO_PROD_HOST");
        return value != nullptr ? value : KESTRO_PROD_HOST_DEFAULT;
    }
    if (const char* value = std::getenv("KESTRO_DEV_HOST"); value != nullptr && *value != '\0') {
        return value;
    }
    return KESTRO_DEV_HOST_DEFAULT;
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

bool hasServiceHost(KestroEnvironment env) { return !hostFor(env).empty(); }

std::string getAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) {
        std::string host = hostFor(env);
        return host.empty() ? std::string() : "https://" + host;
    }
    return "http://" + devAuthority();
}

std::string getWSAPIEndpoint(KestroEnvironment env) {
    if (env == KestroEnvironment::prod) {
        std::string host = hostFor(env);
        return host.empty() ? std::string() : "wss://" + host;
    }
    return "ws://" + devAuthority();
}

const char* toString(LogLevel level) {
    switch (level) {
        case LogLevel::verbose:
            return "verbose";
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::warning:
            return "warning";
        case LogLevel::error:
            return "error";
    }
    return "verbose";
}

}  // namespace kestro
