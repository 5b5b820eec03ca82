#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

#include "devservice/options.h"

namespace kestro::devservice {

/// Runs one client subcommand (dashboard, keys, devices, device, items, item, send, health)
/// against the service that `line` points at, with the dashboard token from its data
/// directory, writing what it shows to `out` and problems to `err`. Returns the process exit
/// code: 0 success, 1 refused by the service (or a command it could not deliver), 2 bad usage,
/// 3 service unreachable or no token, 4 an answer that is not what the command expects
/// (another program on the port, say).
int runClientCommand(const CommandLine& line, std::ostream& out, std::ostream& err);

/// JSON text laid out with two-space indentation, for people to read.
std::string prettyJSON(std::string_view json);

/// The whole program: parses the command line, then serves until SIGINT or SIGTERM or runs a
/// client subcommand. Call from main() only (it blocks those signals for the process).
int runMain(int argc, char** argv);

}  // namespace kestro::devservice
