#include "devservice/cli.h"

#include <fmt/format.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <thread>

#include "devservice/auth.h"
#include "devservice/client.h"
#include "devservice/service.h"
#include "kestro/core/console.h"
#include "kestro/core/time_text.h"
#include "kestro/core/utf8.h"

namespace kestro::devservice {
namespace json = boost::json;

namespace internal {
namespace {

void pretty(const json::value& v, std::string& out, int depth) {
    const std::string indent(static_cast<std::size_t>(depth) * 2, ' ');
    const std::string inner(static_cast<std::size_t>(depth + 1) * 2, ' ');
    if (v.is_object() && !v.as_object().empty()) {
        out += "{\n";
        bool first = true;
        for (const auto& kv : v.as_object()) {
            if (!first) out += ",\n";
            first = false;
            out += inner + json::serialize(json::string(kv.key())) + ": ";
            pretty(kv.value(), out, depth + 1);
        }
        out += "\n" + indent + "}";
    } else if (v.is_array() && !v.as_array().empty()) {
        out += "[\n";
        bool first = true;
        for (const auto& item : v.as_array()) {
            if (!first) out += ",\n";
            first = false;
            out += inner;
            pretty(item, out, depth + 1);
        }
        out += "\n" + indent + "]";
    } else {
        out += json::serialize(v);
    }
}

std::string text(const json::value& v) {
    if (v.is_string()) return std::string(v.as_string());
    if (v.is_null()) return "-";
    return json::serialize(v);
}

std::string field(const json::object& o, const char* key) {
    const auto* v = o.if_contains(key);
    return v ? text(*v) : "-";
}

std::string timeText(const json::object& o, const char* key) {
    const auto* v = o.if_contains(key);
    if (!v || !v->is_number()) return "-";
    return iso8601WithMilliseconds(fromSecondsSince1970(v->to_number<double>()));
}

// At most `limit` bytes of a text for a message, cut on a UTF-8 boundary.
std::string clipText(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) return std::string(text);
    return std::string(utf8Prefix(text, limit)) + "…";
}

std::string itemLine(const json::object& item) {
    const std::string kind = field(item, "kind");
    std::string what;
    if (kind == "networkRequest") {
        const auto* waiting = item.if_contains("waiting");
        what = field(item, "method") + " " + field(item, "url") + " → " +
               (waiting && *waiting == true ? "waiting" : field(item, "status"));
    } else if (kind == "log") {
        what = "[" + field(item, "level") + "] " + field(item, "message");
    } else {
        what = field(item, "name") + " (" + field(item, "category") + ")";
    }
    return fmt::format("{:>6}  {}  {}  {:<14}  {}  {}", field(item, "seq"),
                       timeText(item, "receivedAt"), field(item, "deviceId"), kind,
                       field(item, "id"), what);
}

// Percent-encodes a path segment or query value.
std::string encode(std::string_view text) {
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out.push_back(static_cast<char>(c));
        } else {
            out += fmt::format("%{:02X}", c);
        }
    }
    return out;
}

std::optional<std::string> envValue(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::optional<std::string>(v) : std::nullopt;
}

// One client subcommand's conversation with the service: each call reports its own failure on
// `err` and gives the exit code to return.
class Client {
  public:
    Client(const CommandLine& line, std::ostream& out, std::ostream& err)
        : line_(line), out_(out), err_(err) {
        service_.host = line.host;
        service_.port = line.options.port;
        service_.trust = line.options.tlsCert;
    }

    int run();

  private:
    bool needWords(std::size_t min, std::size_t max, const char* usage) {
        if (line_.words.size() < min || line_.words.size() > max) {
            err_ << "usage: kestro-devservice " << usage << "\n";
            return false;
        }
        return true;
    }

    std::optional<HttpAnswer> call(const std::string& method, const std::string& target,
                                   const std::string& body = "") {
        std::string error;
        auto answer = httpExchange(service_, method, target, body, &error);
        if (!answer) err_ << "❌ " << error << "\n";
        return answer;
    }

    // Prints the service's error body and gives the exit code for a refused request.
    int refused(const HttpAnswer& a) {
        boost::system::error_code ec;
        const auto v = json::parse(a.body, ec);
        const json::object* o = !ec && v.is_object() ? &v.as_object() : nullptr;
        const auto* message = o ? o->if_contains("error") : nullptr;
        err_ << "❌ " << a.status << ": "
             << (message && message->is_string() ? std::string(message->as_string()) : a.body)
             << "\n";
        return 1;
    }

    void notExpected(const HttpAnswer& a, const std::string& why) {
        err_ << "❌ The answer (" << a.status << ") is not the JSON this command expects (" << why
             << "): " << clipText(a.body, 200) << "\n";
    }

    // Parses an answer that should be a JSON object. Anything else (a proxy's page, another
    // program on the port, a service of another version) is reported, never thrown.
    std::optional<json::object> expectObject(const HttpAnswer& a) {
        boost::system::error_code ec;
        auto v = json::parse(a.body, ec);
        if (!ec && v.is_object()) return std::move(v.as_object());
        notExpected(a, ec ? "not JSON" : "not an object");
        return std::nullopt;
    }

    // GETs `target` expecting `status`; gives the answer's object, or sets `code`.
    std::optional<json::object> getObject(const std::string& method, const std::string& target,
                                          unsigned status, int& code,
                                          const std::string& body = "") {
        auto a = call(method, target, body);
        if (!a) {
            code = 3;
            return std::nullopt;
        }
        if (a->status != status) {
            code = refused(*a);
            return std::nullopt;
        }
        auto o = expectObject(*a);
        code = o ? 0 : 4;
        return o;
    }

    // GETs a listing under `key`. With --json it is printed as it came; a listing without
    // entries prints `none`. Gives the rows only when they are still to be printed; `code` is
    // the exit code otherwise.
    std::optional<json::array> listing(const std::string& target, const char* key, const char* none,
                                       int& code) {
        auto a = call("GET", target);
        if (!a) {
            code = 3;
            return std::nullopt;
        }
        if (a->status != 200) {
            code = refused(*a);
            return std::nullopt;
        }
        code = 0;
        if (line_.json) {
            out_ << a->body << "\n";
            return std::nullopt;
        }
        code = 4;
        auto v = expectObject(*a);
        if (!v) return std::nullopt;
        auto* rows = v->if_contains(key);
        if (!rows || !rows->is_array()) {
            notExpected(*a, std::string("no \"") + key + "\" list");
            return std::nullopt;
        }
        for (const auto& row : rows->as_array()) {
            if (!row.is_object()) {
                notExpected(*a, std::string("an entry of \"") + key + "\" is not an object");
                return std::nullopt;
            }
        }
        code = 0;
        if (rows->as_array().empty()) {
            out_ << none << "\n";
            return std::nullopt;
        }
        return std::move(rows->as_array());
    }

    int keys();
    int send();

    const CommandLine& line_;
    std::ostream& out_;
    std::ostream& err_;
    ServiceAddress service_;
};

int Client::run() {
    const std::string& command = line_.command;
    std::string problem;
    const auto token = readToken(line_.options.dataDirectory, &problem);
    if (!token) {
        err_ << "❌ " << problem << "\n";
        return 3;
    }
    service_.token = *token;

    if (command == "dashboard") {
        if (!needWords(0, 0, "dashboard")) return 2;
        out_ << dashboardAddress(service_.base(), *token) << "\n";
        return 0;
    }
    if (command == "keys") return keys();
    if (command == "health" || command == "device" || command == "item") {
        std::string target = "/api/health";
        if (command == "device") {
            if (!needWords(1, 1, "device <device-id>")) return 2;
            target = "/api/devices/" + encode(line_.words[0]);
        } else if (command == "item") {
            if (!needWords(1, 1, "item <item-id>")) return 2;
            target = "/api/items/" + encode(line_.words[0]);
            if (line_.deviceFilter) {
                target = "/api/devices/" + encode(*line_.deviceFilter) + "/items/" +
                         encode(line_.words[0]);
            }
        } else if (!needWords(0, 0, "health")) {
            return 2;
        }
        auto a = call("GET", target);
        if (!a) return 3;
        if (a->status != 200) return refused(*a);
        out_ << (line_.json ? a->body : prettyJSON(a->body)) << "\n";
        return 0;
    }
    if (command == "devices") {
        if (!needWords(0, 0, "devices [--json]")) return 2;
        int code = 0;
        const auto rows = listing("/api/devices", "devices", "No devices yet.", code);
        if (!rows) return code;
        out_ << fmt::format("{:<36}  {:<9}  {:>5}  {:<24}  {:<20}  {}\n", "ID", "CONNECTED",
                            "ITEMS", "LAST SEEN", "NAME", "MODEL / OS");
        for (const auto& d : *rows) {
            const auto& o = d.as_object();
            const auto* connected = o.if_contains("connected");
            out_ << fmt::format("{:<36}  {:<9}  {:>5}  {:<24}  {:<20}  {} / {} {}\n",
                                field(o, "id"), connected && *connected == true ? "yes" : "no",
                                field(o, "itemCount"), timeText(o, "lastSeen"), field(o, "name"),
                                field(o, "model"), field(o, "osName"), field(o, "osVersion"));
        }
        return 0;
    }
    if (command == "items") {
        if (!needWords(0, 0, "items [--device ID] [--limit N] [--json]")) return 2;
        std::string target = fmt::format("/api/items?limit={}", line_.limit.value_or(50));
        if (line_.deviceFilter) target += "&device=" + encode(*line_.deviceFilter);
        int code = 0;
        const auto rows = listing(target, "items", "No items yet.", code);
        if (!rows) return code;
        for (const auto& item : *rows) out_ << itemLine(item.as_object()) << "\n";
        return 0;
    }
    if (command == "send") return send();
    err_ << usageText();
    return 2;
}

int Client::keys() {
    const std::string sub = line_.words.empty() ? "list" : line_.words[0];
    int code = 0;
    if (sub == "list") {
        if (!needWords(0, 1, "keys list [--json]")) return 2;
        const auto rows = listing("/api/keys", "keys", "No keys.", code);
        if (!rows) return code;
        out_ << fmt::format("{:>4}  {:<39}  {:<16}  {:>7}  {}\n", "ID", "KEY", "NAME", "DEVICES",
                            "STATE");
        for (const auto& k : *rows) {
            const auto& o = k.as_object();
            const auto* revoked = o.if_contains("revokedAt");
            out_ << fmt::format("{:>4}  {:<39}  {:<16}  {:>7}  {}\n", field(o, "id"),
                                field(o, "key"), field(o, "name"), field(o, "devices"),
                                revoked && !revoked->is_null()
                                    ? "revoked " + timeText(o, "revokedAt")
                                    : std::string("active"));
        }
        return 0;
    }
    if (sub == "add") {
        if (!needWords(1, 2, "keys add [NAME]")) return 2;
        const json::object body{{"name", line_.words.size() == 2 ? line_.words[1] : ""}};
        const auto made = getObject("POST", "/api/keys", 201, code, json::serialize(body));
        if (!made) return code;
        const auto* key = made->if_contains("key");
        if (!key || !key->is_object()) return 4;
        // Only the key on standard output, so that a script can take it.
        out_ << field(key->as_object(), "key") << "\n";
        return 0;
    }
    if (sub == "show" || sub == "revoke") {
        if (!needWords(2, 2, sub == "show" ? "keys show ID|NAME" : "keys revoke ID")) return 2;
        const std::string& which = line_.words[1];
        if (sub == "revoke") {
            const auto revoked = getObject("DELETE", "/api/keys/" + encode(which), 200, code);
            if (!revoked) return code;
            out_ << "✅ Key " << which << " revoked; its devices' links are closed\n";
            return 0;
        }
        const auto all = getObject("GET", "/api/keys", 200, code);
        if (!all) return code;
        const auto* rows = all->if_contains("keys");
        if (!rows || !rows->is_array()) return 4;
        // By id, else the newest active key of that name.
        std::optional<std::string> found;
        for (const auto& k : rows->as_array()) {
            if (!k.is_object()) continue;
            const auto& o = k.as_object();
            const auto* revoked = o.if_contains("revokedAt");
            const bool active = !revoked || revoked->is_null();
            if (field(o, "id") == which || (active && field(o, "name") == which)) {
                found = field(o, "key");
            }
        }
        if (!found) {
            err_ << "❌ No active key with id or name " << which << "\n";
            return 1;
        }
        out_ << *found << "\n";
        return 0;
    }
    err_ << "usage: kestro-devservice keys list | add [NAME] | show ID|NAME | revoke ID\n";
    return 2;
}

int Client::send() {
    if (!needWords(2, 3, "send <device-id> <action> [payload]")) return 2;
    json::object body{{"action", line_.words[1]}};
    if (line_.words.size() == 3) {
        body["payload"] = line_.words[2];
    } else {
        body["payload"] = nullptr;
    }
    const std::string& device = line_.words[0];
    auto a = call("POST", "/api/devices/" + encode(device) + "/commands", json::serialize(body));
    if (!a) return 3;
    if (a->status != 202) return refused(*a);
    const auto v = expectObject(*a);
    const auto* command = v ? v->if_contains("command") : nullptr;
    if (!command || !command->is_object()) {
        if (v) notExpected(*a, "no \"command\"");
        return 4;
    }
    // The frame is queued; its outcome (written to the device's socket, or why not) follows
    // within moments unless the device is not reading.
    const std::string id = field(command->as_object(), "id");
    const std::string frame = field(command->as_object(), "frame");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    std::string status = field(command->as_object(), "status");
    std::string error;
    while (status == "queued" && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::string ignored;
        const auto now = httpExchange(service_, "GET", "/api/commands/" + encode(id), "", &ignored);
        boost::system::error_code ec;
        const auto parsed = now && now->status == 200 ? json::parse(now->body, ec) : json::value();
        if (ec || !parsed.is_object()) break;
        status = field(parsed.as_object(), "status");
        error = field(parsed.as_object(), "error");
    }
    if (status == "delivered") {
        out_ << "✅ Delivered to " << device << ": " << frame << "\n";
        return 0;
    }
    if (status == "failed") {
        err_ << "❌ Not delivered to " << device << ": " << error << "\n";
        return 1;
    }
    out_ << "⏳ Queued for " << device << " (not yet written to its connection): " << frame << "\n";
    return 0;
}

}  // namespace
}  // namespace internal

std::string prettyJSON(std::string_view text) {
    boost::system::error_code ec;
    const auto v = json::parse(text, ec);
    if (ec) return std::string(text);
    std::string out;
    internal::pretty(v, out, 0);
    return out;
}

int runClientCommand(const CommandLine& line, std::ostream& out, std::ostream& err) {
    return internal::Client(line, out, err).run();
}

int runMain(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    const auto line = parseCommandLine(args, internal::envValue, &error);
    if (!line) {
        std::cerr << "kestro-devservice: " << error << "\n\n" << usageText();
        return 2;
    }
    if (line->command == "help") {
        std::cout << usageText();
        return 0;
    }
    if (line->command != "serve") {
        // Client output is meant to be read and piped, so it goes through plain streams.
        return runClientCommand(*line, std::cout, std::cerr);
    }
    if (!line->words.empty()) {
        std::cerr << "kestro-devservice: serve takes no arguments\n\n" << usageText();
        return 2;
    }

    // The service's threads inherit this mask, so the signals reach sigwait below only.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    setConsoleLevel(LogLevel::info);
    DevService service(line->options);
    if (!service.start(&error)) {
        printI("❌ The development service could not start: " + error, LogLevel::error);
        return 1;
    }
    printI(fmt::format("🐶 Kestro development service listening on {} (WebSocket {}/?api-key=…"
                       "&device-id=…), dashboard API {}/api, sample API {}/sample, data {}",
                       service.httpURL(), service.webSocketURL(), service.httpURL(),
                       service.httpURL(), line->options.dataDirectory.string()),
           LogLevel::info);
    if (auto warning = reachWarning(line->options.address, line->options.tls())) {
        printI(*warning, LogLevel::warning);
    }
    if (service.made().apiKey) {
        printI("🔑 First API key (give it to the SDK's initialize): " + *service.made().apiKey +
                   " — kestro-devservice keys lists, adds and revokes keys",
               LogLevel::info);
    }
    // The address with the token is printed once, when the token is made; `dashboard` prints
    // it again on request, so that it does not end up in every log.
    const std::string base = line->options.address == "0.0.0.0" || line->options.address == "::"
                                 ? service.httpURL().substr(0, service.httpURL().find("://") + 3) +
                                       "127.0.0.1:" + std::to_string(service.port())
                                 : service.httpURL();
    if (service.made().token) {
        printI("🖥 Dashboard: " + dashboardAddress(base, service.dashboardToken()),
               LogLevel::info);
    } else {
        printI("🖥 Dashboard: " + base +
                   "/ (kestro-devservice dashboard prints its address with "
                   "the token)",
               LogLevel::info);
    }
    int received = 0;
    sigwait(&signals, &received);
    printI(fmt::format("🐶 {} received, stopping", received == SIGINT ? "SIGINT" : "SIGTERM"),
           LogLevel::info);
    service.stop();
    printI("🐶 Stopped", LogLevel::info);
    return 0;
}

}  // namespace kestro::devservice
