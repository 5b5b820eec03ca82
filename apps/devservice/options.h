#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestro::devservice {

/// How the service runs. A plain value.
struct DevServiceOptions {
    /// Address to listen on. Loopback by default: the service has no authentication beyond the
    /// form of the API key and must not be reachable from other machines unless asked for.
    std::string address = "127.0.0.1";
    /// 0 picks a free port (tests).
    std::uint16_t port = 3007;
    /// Where the database file lives; created if missing.
    std::filesystem::path dataDirectory;
    /// Largest request body accepted; larger ones are answered 413.
    std::size_t maxBodyBytes = 10 * 1024 * 1024;
    /// Threads running the network loop.
    unsigned threads = 2;
    /// Upper bound of GET /sample/slow?ms=.
    unsigned maxSlowMs = 10000;
    /// Whether each request is written to the console as one line.
    bool logRequests = true;
};

/// The database file inside the data directory.
inline constexpr const char* kDatabaseFileName = "devservice.sqlite";

/// The data directory when none is configured: $XDG_DATA_HOME/kestro-devservice, else
/// ~/.local/share/kestro-devservice, else ./kestro-devservice-data.
std::filesystem::path defaultDataDirectory(
    const std::function<std::optional<std::string>(const char*)>& env);

/// A command line split into its subcommand, positional words and the service options.
struct CommandLine {
    std::string command = "serve";  // serve, devices, device, items, item, send, health, help
    std::vector<std::string> words;
    DevServiceOptions options;
    /// Where the client subcommands connect (the listen address unless it is a wildcard).
    std::string host = "127.0.0.1";
    std::optional<std::string> deviceFilter;
    std::optional<std::int64_t> limit;
    bool json = false;
};

/// Reads the environment (KESTRO_DEVSERVICE_PORT, KESTRO_DEVSERVICE_ADDRESS,
/// KESTRO_DEVSERVICE_DATA_DIR, KESTRO_DEVSERVICE_MAX_BODY) and then the arguments, which win.
/// Returns nothing and sets `error` when an argument or variable is malformed.
std::optional<CommandLine> parseCommandLine(
    const std::vector<std::string>& args,
    const std::function<std::optional<std::string>(const char*)>& env, std::string* error);

/// Usage text of the program.
std::string usageText();

}  // namespace kestro::devservice
