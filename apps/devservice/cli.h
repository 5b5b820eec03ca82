#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "devservice/options.h"

namespace kestro::devservice {

/// An HTTP answer as the command line needs it.
struct HttpAnswer {
    unsigned status = 0;
    std::string contentType;
    std::string body;
};

/// One blocking HTTP/1.1 exchange with a running service (the command line's client). Gives
/// nothing and sets `error` when the service cannot be reached or does not answer in time.
/// Any thread.
std::optional<HttpAnswer> httpExchange(
    const std::string& host, std::uint16_t port, const std::string& method,
    const std::string& target, const std::string& body, std::string* error,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// Runs one client subcommand (devices, device, items, item, send, health) against the service
/// that `line` points at, writing what it shows to `out` and problems to `err`. Returns the
/// process exit code: 0 success, 1 refused by the service, 2 bad usage, 3 service unreachable,
/// 4 an answer that is not what the command expects (another program on the port, say).
int runClientCommand(const CommandLine& line, std::ostream& out, std::ostream& err);

/// JSON text laid out with two-space indentation, for people to read.
std::string prettyJSON(std::string_view json);

/// The whole program: parses the command line, then serves until SIGINT or SIGTERM or runs a
/// client subcommand. Call from main() only (it blocks those signals for the process).
int runMain(int argc, char** argv);

}  // namespace kestro::devservice
