#include "devservice/options.h"

#include <charconv>

namespace kestro::devservice {
namespace {

template <typename T>
bool parseNumber(const std::string& text, T min, T max, T* out) {
    T value{};
    const auto* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc() || ptr != end || value < min || value > max) return false;
    *out = value;
    return true;
}

// Sizes may carry a K, M or G suffix (powers of 1024).
bool parseSize(std::string text, std::size_t* out) {
    std::size_t scale = 1;
    if (!text.empty()) {
        switch (text.back()) {
            case 'K':
            case 'k':
                scale = 1024;
                break;
            case 'M':
            case 'm':
                scale = 1024 * 1024;
                break;
            case 'G':
            case 'g':
                scale = 1024 * 1024 * 1024;
                break;
            default:
                break;
        }
        if (scale != 1) text.pop_back();
    }
    std::size_t value = 0;
    if (!parseNumber<std::size_t>(text, 1, SIZE_MAX / scale, &value)) return false;
    *out = value * scale;
    return true;
}

}  // namespace

std::filesystem::path defaultDataDirectory(
    const std::function<std::optional<std::string>(const char*)>& env) {
    if (auto xdg = env("XDG_DATA_HOME"); xdg && !xdg->empty()) {
        return std::filesystem::path(*xdg) / "kestro-devservice";
    }
    if (auto home = env("HOME"); home && !home->empty()) {
        return std::filesystem::path(*home) / ".local" / "share" / "kestro-devservice";
    }
    return std::filesystem::path("kestro-devservice-data");
}

std::optional<CommandLine> parseCommandLine(
    const std::vector<std::string>& args,
    const std::function<std::optional<std::string>(const char*)>& env, std::string* error) {
    CommandLine line;
    auto fail = [&](std::string message) -> std::optional<CommandLine> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };

    if (auto v = env("KESTRO_DEVSERVICE_PORT")) {
        if (!parseNumber<std::uint16_t>(*v, 0, 65535, &line.options.port)) {
            return fail("KESTRO_DEVSERVICE_PORT must be a port number, not \"" + *v + "\"");
        }
    }
    if (auto v = env("KESTRO_DEVSERVICE_ADDRESS"); v && !v->empty()) line.options.address = *v;
    if (auto v = env("KESTRO_DEVSERVICE_DATA_DIR"); v && !v->empty()) {
        line.options.dataDirectory = *v;
    }
    if (auto v = env("KESTRO_DEVSERVICE_MAX_BODY")) {
        if (!parseSize(*v, &line.options.maxBodyBytes)) {
            return fail("KESTRO_DEVSERVICE_MAX_BODY must be a size such as 10M, not \"" + *v +
                        "\"");
        }
    }

    if (auto v = env("KESTRO_DEVSERVICE_KEEP_DAYS")) {
        if (!parseNumber<unsigned>(*v, 0, 36500, &line.options.keepDays)) {
            return fail("KESTRO_DEVSERVICE_KEEP_DAYS must be a number of days, not \"" + *v + "\"");
        }
    }
    if (auto v = env("KESTRO_DEVSERVICE_MAX_ITEMS")) {
        if (!parseNumber<std::int64_t>(*v, 0, INT64_MAX, &line.options.maxItemsPerDevice)) {
            return fail("KESTRO_DEVSERVICE_MAX_ITEMS must be a number, not \"" + *v + "\"");
        }
    }
    if (auto v = env("KESTRO_DEVSERVICE_TLS_CERT"); v && !v->empty()) line.options.tlsCert = *v;
    if (auto v = env("KESTRO_DEVSERVICE_TLS_KEY"); v && !v->empty()) line.options.tlsKey = *v;

    bool commandSeen = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        // Both "--port 80" and "--port=80".
        std::string name = a;
        std::optional<std::string> inlineValue;
        if (a.starts_with("--")) {
            if (auto eq = a.find('='); eq != std::string::npos) {
                name = a.substr(0, eq);
                inlineValue = a.substr(eq + 1);
            }
        }
        auto value = [&]() -> std::optional<std::string> {
            if (inlineValue) return inlineValue;
            if (i + 1 < args.size()) return args[++i];
            return std::nullopt;
        };
        if (name == "--port" || name == "-p") {
            auto v = value();
            if (!v || !parseNumber<std::uint16_t>(*v, 0, 65535, &line.options.port)) {
                return fail("--port needs a port number (0 to 65535)");
            }
        } else if (name == "--address" || name == "--listen") {
            auto v = value();
            if (!v || v->empty()) return fail(name + " needs an address");
            line.options.address = *v;
        } else if (name == "--host") {
            auto v = value();
            if (!v || v->empty()) return fail("--host needs a host name or address");
            line.host = *v;
        } else if (name == "--data-dir") {
            auto v = value();
            if (!v || v->empty()) return fail("--data-dir needs a directory");
            line.options.dataDirectory = *v;
        } else if (name == "--max-body") {
            auto v = value();
            if (!v || !parseSize(*v, &line.options.maxBodyBytes)) {
                return fail("--max-body needs a size such as 10M");
            }
        } else if (name == "--threads") {
            auto v = value();
            if (!v || !parseNumber<unsigned>(*v, 1, 64, &line.options.threads)) {
                return fail("--threads needs a number from 1 to 64");
            }
        } else if (name == "--keep-days") {
            auto v = value();
            if (!v || !parseNumber<unsigned>(*v, 0, 36500, &line.options.keepDays)) {
                return fail("--keep-days needs a number of days (0 keeps items for ever)");
            }
        } else if (name == "--max-items") {
            auto v = value();
            if (!v ||
                !parseNumber<std::int64_t>(*v, 0, INT64_MAX, &line.options.maxItemsPerDevice)) {
                return fail("--max-items needs a number of items per device (0: no limit)");
            }
        } else if (name == "--tls-cert" || name == "--tls-key") {
            auto v = value();
            if (!v || v->empty()) return fail(name + " needs a PEM file");
            (name == "--tls-cert" ? line.options.tlsCert : line.options.tlsKey) = *v;
        } else if (name == "--quiet") {
            line.options.logRequests = false;
        } else if (name == "--device") {
            auto v = value();
            if (!v || v->empty()) return fail("--device needs a device id");
            line.deviceFilter = *v;
        } else if (name == "--limit") {
            auto v = value();
            std::int64_t n = 0;
            if (!v || !parseNumber<std::int64_t>(*v, 1, 500, &n)) {
                return fail("--limit needs a number from 1 to 500");
            }
            line.limit = n;
        } else if (name == "--json") {
            line.json = true;
        } else if (name == "--help" || name == "-h") {
            line.command = "help";
            commandSeen = true;
        } else if (a.starts_with("-") && a.size() > 1) {
            return fail("unknown option " + a);
        } else if (!commandSeen) {
            line.command = a;
            commandSeen = true;
        } else {
            line.words.push_back(a);
        }
    }

    static const char* const kCommands[] = {"serve", "dashboard", "keys", "devices", "device",
                                            "items", "item",      "send", "health",  "help"};
    bool known = false;
    for (const char* c : kCommands) known = known || line.command == c;
    if (!known) return fail("unknown command \"" + line.command + "\"");

    if (line.options.tlsCert.empty() != line.options.tlsKey.empty() && line.command == "serve") {
        return fail("TLS needs both --tls-cert and --tls-key");
    }
    if (line.options.dataDirectory.empty()) line.options.dataDirectory = defaultDataDirectory(env);
    if (line.host == "127.0.0.1" && line.options.address != "0.0.0.0" &&
        line.options.address != "::") {
        line.host = line.options.address;
    }
    return line;
}

std::string usageText() {
    return R"(Usage: kestro-devservice [serve] [options]
       kestro-devservice dashboard
       kestro-devservice keys list | add [NAME] | show ID|NAME | revoke ID
       kestro-devservice devices [--json]
       kestro-devservice device <device-id>
       kestro-devservice items [--device ID] [--limit N] [--json]
       kestro-devservice item <item-id>
       kestro-devservice send <device-id> <action> [payload]
       kestro-devservice health

Runs the development service, or talks to a running one over its dashboard API (with the
token from the data directory).

Actions: enable_mock_request, disable_mock_request (both take a mock rule as payload, e.g.
'{"url":"http://127.0.0.1:3007/sample/users/*","statusCode":500,"body":"{}"}'),
enable_break_point, disable_break_point, open_kestro_sheet, send_ping.

Options:
  --port, -p N        port to listen on or talk to (default 3007; env KESTRO_DEVSERVICE_PORT)
  --address ADDR      address to listen on (default 127.0.0.1; env KESTRO_DEVSERVICE_ADDRESS)
  --host HOST         host the client commands talk to (default: the listen address)
  --data-dir DIR      directory of the database (env KESTRO_DEVSERVICE_DATA_DIR; default
                      $XDG_DATA_HOME/kestro-devservice or ~/.local/share/kestro-devservice)
  --max-body SIZE     largest request body, e.g. 10M (default; env KESTRO_DEVSERVICE_MAX_BODY)
  --keep-days N       delete items older than N days (default 30; 0 keeps them; env
                      KESTRO_DEVSERVICE_KEEP_DAYS)
  --max-items N       keep each device's newest N items (default 100000; 0: all; env
                      KESTRO_DEVSERVICE_MAX_ITEMS)
  --tls-cert FILE     PEM certificate chain: serve HTTPS and WSS (with --tls-key); client
                      commands connect with TLS and trust it (env KESTRO_DEVSERVICE_TLS_CERT)
  --tls-key FILE      PEM private key of the certificate (env KESTRO_DEVSERVICE_TLS_KEY)
  --threads N         network threads (default 2)
  --quiet             do not print a line per request
  --json              client commands print the control API's JSON as it is
)";
}

}  // namespace kestro::devservice
