#pragma once

#include <chrono>
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
    /// Address to listen on. Loopback by default; any other address without TLS is warned
    /// about at start.
    std::string address = "127.0.0.1";
    /// 0 picks a free port (tests).
    std::uint16_t port = 3007;
    /// Where the database file lives; created if missing.
    std::filesystem::path dataDirectory;
    /// Largest request body accepted; larger ones are answered 413.
    std::size_t maxBodyBytes = 10 * 1024 * 1024;
    /// Threads running the network loop.
    unsigned threads = 2;
    /// What may wait to be written to one page of the push channel before it counts as fallen
    /// behind (see README.md, "A slow page").
    std::size_t liveQueueMessages = 2048;
    std::size_t liveQueueBytes = 8 * 1024 * 1024;
    /// Upper bound of GET /sample/slow?ms=.
    unsigned maxSlowMs = 10000;
    /// Whether each request is written to the console as one line.
    bool logRequests = true;
    /// Items that arrived more than this many days ago are deleted; 0 keeps them.
    unsigned keepDays = 30;
    /// Each device keeps at most this many items, its newest; 0 keeps all.
    std::int64_t maxItemsPerDevice = 100000;
    /// How often retention runs (it also runs at start).
    std::chrono::milliseconds retentionInterval = std::chrono::minutes(1);
    /// PEM certificate chain and private key: when both are set, every connection is TLS.
    std::filesystem::path tlsCert;
    std::filesystem::path tlsKey;
    /// The time now, in seconds since 1970; the system clock when empty (tests set their own
    /// to age items).
    std::function<double()> clock;

    bool tls() const { return !tlsCert.empty() && !tlsKey.empty(); }
};

/// The database file inside the data directory.
inline constexpr const char* kDatabaseFileName = "devservice.sqlite";

/// The data directory when none is configured: $XDG_DATA_HOME/kestro-devservice, else
/// ~/.local/share/kestro-devservice, else ./kestro-devservice-data.
std::filesystem::path defaultDataDirectory(
    const std::function<std::optional<std::string>(const char*)>& env);

/// A command line split into its subcommand, positional words and the service options.
struct CommandLine {
    // serve, dashboard, keys, devices, device, items, item, send, health, help
    std::string command = "serve";
    std::vector<std::string> words;
    DevServiceOptions options;
    /// Where the client subcommands connect (the listen address unless it is a wildcard).
    std::string host = "127.0.0.1";
    std::optional<std::string> deviceFilter;
    std::optional<std::int64_t> limit;
    bool json = false;
};

/// Reads the environment (KESTRO_DEVSERVICE_PORT, _ADDRESS, _DATA_DIR, _MAX_BODY, _KEEP_DAYS,
/// _MAX_ITEMS, _TLS_CERT, _TLS_KEY) and then the arguments, which win.
/// Returns nothing and sets `error` when an argument or variable is malformed.
std::optional<CommandLine> parseCommandLine(
    const std::vector<std::string>& args,
    const std::function<std::optional<std::string>(const char*)>& env, std::string* error);

/// Usage text of the program.
std::string usageText();

}  // namespace kestro::devservice
