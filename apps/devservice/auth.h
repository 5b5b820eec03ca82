#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kestro::devservice {

/// The file in the data directory that holds the dashboard token.
inline constexpr const char* kTokenFileName = "dashboard-token";

/// The subprotocol the push channel speaks, and the prefix of the one that carries the token.
inline constexpr std::string_view kLiveProtocol = "kestro.v1";
inline constexpr std::string_view kTokenProtocolPrefix = "kestro.token.";

/// `bytes` random bytes from the kernel, as lower-case hexadecimal.
std::string randomHex(std::size_t bytes);

/// A new API key of the SDK's form: "kt-dev-" and 32 hexadecimal digits.
std::string newApiKey();

/// Reads the dashboard token from `directory`, making it (64 hexadecimal digits, in a file of
/// mode 0600) when there is none. `created` tells which. Nothing and `error` when the file can
/// be neither read nor written, or holds something that is not a token.
std::optional<std::string> loadOrCreateToken(const std::filesystem::path& directory, bool* created,
                                             std::string* error);

/// Reads the dashboard token from `directory` without making one.
std::optional<std::string> readToken(const std::filesystem::path& directory, std::string* error);

/// Compares two secrets in a time that does not depend on where they differ.
bool sameSecret(std::string_view a, std::string_view b);

/// The token of an "Authorization: Bearer <token>" field value, or nothing.
std::optional<std::string_view> bearerToken(std::string_view authorization);

/// The token among the subprotocols a WebSocket upgrade offers ("kestro.v1, kestro.token.<t>"),
/// and whether kestro.v1 is among them.
struct OfferedProtocols {
    bool live = false;
    std::optional<std::string_view> token;
};
OfferedProtocols offeredProtocols(std::string_view header);

/// Whether a request that carries `origin` comes from the service's own origin: the scheme the
/// service speaks followed by the request's own Host. "null" and anything else is foreign.
bool sameOrigin(std::string_view origin, std::string_view host, bool tls);

/// The warning to print when the service listens where other machines can reach it without
/// TLS, or nothing (loopback addresses, or TLS configured).
std::optional<std::string> reachWarning(const std::string& address, bool tls);

/// The dashboard's address for a service reachable at `base` ("http://127.0.0.1:3007").
std::string dashboardAddress(const std::string& base, const std::string& token);

}  // namespace kestro::devservice
