#include "devservice/cli.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "devservice/api.h"
#include "devservice/service.h"
#include "kestro/core/console.h"
#include "kestro/core/time_text.h"

namespace kestro::devservice {
namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
namespace json = boost::json;
using tcp = net::ip::tcp;

namespace internal {
namespace {

void setSocketTimeout(tcp::socket& socket, std::chrono::milliseconds timeout) {
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((timeout.count() % 1000) * 1000);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(socket.native_handle(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

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
    std::size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return std::string(text.substr(0, end)) + "…";
}

std::string itemLine(const json::object& item) {
    const std::string type = field(item, "eventType");
    const auto* s = item.if_contains("summary");
    const json::object empty;
    const json::object& summary = s && s->is_object() ? s->as_object() : empty;
    std::string what;
    if (type == "networkRequest") {
        what = field(summary, "method") + " " + field(summary, "url") + " → " +
               field(summary, "statusCode");
    } else if (type == "log") {
        what = "[" + field(summary, "level") + "] " + field(summary, "message");
    } else {
        what = field(summary, "name") + " (" + field(summary, "category") + ")";
    }
    return fmt::format("{:>6}  {}  {}  {:<14}  {}  {}", field(item, "seq"),
                       timeText(item, "receivedAt"), field(item, "deviceId"), type,
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

std::optional<HttpAnswer> httpExchange(const std::string& host, std::uint16_t port,
                                       const std::string& method, const std::string& target,
                                       const std::string& body, std::string* error,
                                       std::chrono::milliseconds timeout) {
    auto fail = [&](std::string message) -> std::optional<HttpAnswer> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };
    try {
        net::io_context ioc;
        tcp::resolver resolver(ioc);
        beast::error_code ec;
        const auto endpoints = resolver.resolve(host, std::to_string(port), ec);
        if (ec) return fail("cannot resolve " + host + ": " + ec.message());
        tcp::socket socket(ioc);
        net::connect(socket, endpoints, ec);
        if (ec) {
            return fail(
                fmt::format("cannot reach the service at {}:{}: {}", host, port, ec.message()));
        }
        internal::setSocketTimeout(socket, timeout);

        http::request<http::string_body> request(http::string_to_verb(method), target, 11);
        request.set(http::field::host, fmt::format("{}:{}", host, port));
        request.set(http::field::user_agent, "kestro-devservice");
        if (!body.empty()) request.set(http::field::content_type, "application/json");
        request.body() = body;
        request.prepare_payload();
        http::write(socket, request, ec);
        if (ec) return fail("sending the request failed: " + ec.message());

        beast::flat_buffer buffer;
        http::response_parser<http::string_body> parser;
        parser.body_limit(256 * 1024 * 1024);
        http::read(socket, buffer, parser, ec);
        if (ec) return fail("reading the answer failed: " + ec.message());
        const auto& response = parser.get();
        socket.shutdown(tcp::socket::shutdown_both, ec);
        return HttpAnswer{response.result_int(), std::string(response[http::field::content_type]),
                          response.body()};
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}

int runClientCommand(const CommandLine& line, std::ostream& out, std::ostream& err) {
    const auto port = line.options.port;
    auto call = [&](const std::string& method, const std::string& target,
                    const std::string& body) -> std::optional<HttpAnswer> {
        std::string error;
        auto answer = httpExchange(line.host, port, method, target, body, &error);
        if (!answer) err << "❌ " << error << "\n";
        return answer;
    };
    // Prints the service's error body and gives the exit code for a refused request.
    auto refused = [&](const HttpAnswer& a) {
        boost::system::error_code ec;
        const auto v = json::parse(a.body, ec);
        const json::object* o = !ec && v.is_object() ? &v.as_object() : nullptr;
        const auto* message = o ? o->if_contains("error") : nullptr;
        err << "❌ " << a.status << ": "
            << (message && message->is_string() ? std::string(message->as_string()) : a.body)
            << "\n";
        return 1;
    };
    // Parses an answer that should be a JSON object. Anything else (a proxy's page, another
    // program on the port, a service of another version) is reported, never thrown.
    auto notExpected = [&](const HttpAnswer& a, const std::string& why) {
        err << "❌ The answer (" << a.status << ") is not the JSON this command expects (" << why
            << "): " << internal::clipText(a.body, 200) << "\n";
    };
    auto expectObject = [&](const HttpAnswer& a) -> std::optional<json::object> {
        boost::system::error_code ec;
        auto v = json::parse(a.body, ec);
        if (!ec && v.is_object()) return std::move(v.as_object());
        notExpected(a, ec ? "not JSON" : "not an object");
        return std::nullopt;
    };
    auto needWords = [&](std::size_t min, std::size_t max, const char* usage) {
        if (line.words.size() < min || line.words.size() > max) {
            err << "usage: kestro-devservice " << usage << "\n";
            return false;
        }
        return true;
    };
    // GETs a listing. With --json it is printed as it came; a listing without entries prints
    // none. Gives the parsed listing only when its rows are still to be printed; code is the
    // exit code otherwise.
    auto listing = [&](const std::string& target, const char* key, const char* none,
                       int& code) -> std::optional<json::value> {
        auto a = call("GET", target, "");
        if (!a) {
            code = 3;
            return std::nullopt;
        }
        if (a->status != 200) {
            code = refused(*a);
            return std::nullopt;
        }
        code = 0;
        if (line.json) {
            out << a->body << "\n";
            return std::nullopt;
        }
        code = 4;
        auto v = expectObject(*a);
        if (!v) return std::nullopt;
        const auto* rows = v->if_contains(key);
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
            out << none << "\n";
            return std::nullopt;
        }
        return json::value(std::move(*v));
    };

    const std::string& command = line.command;
    if (command == "health" || command == "device" || command == "item") {
        std::string target = "/api/health";
        if (command == "device") {
            if (!needWords(1, 1, "device <device-id>")) return 2;
            target = "/api/devices/" + internal::encode(line.words[0]);
        } else if (command == "item") {
            if (!needWords(1, 1, "item <item-id>")) return 2;
            target = "/api/items/" + internal::encode(line.words[0]);
        } else if (!needWords(0, 0, "health")) {
            return 2;
        }
        auto a = call("GET", target, "");
        if (!a) return 3;
        if (a->status != 200) return refused(*a);
        out << (line.json ? a->body : prettyJSON(a->body)) << "\n";
        return 0;
    }
    if (command == "devices") {
        if (!needWords(0, 0, "devices [--json]")) return 2;
        int code = 0;
        const auto v = listing("/api/devices", "devices", "No devices yet.", code);
        if (!v) return code;
        const auto& list = v->at("devices").as_array();
        out << fmt::format("{:<36}  {:<9}  {:>5}  {:<24}  {:<20}  {}\n", "ID", "CONNECTED", "ITEMS",
                           "LAST SEEN", "NAME", "MODEL / OS");
        for (const auto& d : list) {
            const auto& o = d.as_object();
            out << fmt::format(
                "{:<36}  {:<9}  {:>5}  {:<24}  {:<20}  {} / {} {}\n", internal::field(o, "id"),
                o.if_contains("connected") && *o.if_contains("connected") == true ? "yes" : "no",
                internal::field(o, "itemCount"), internal::timeText(o, "lastSeen"),
                internal::field(o, "name"), internal::field(o, "model"),
                internal::field(o, "osName"), internal::field(o, "osVersion"));
        }
        return 0;
    }
    if (command == "items") {
        if (!needWords(0, 0, "items [--device ID] [--limit N] [--json]")) return 2;
        std::string target = fmt::format("/api/items?limit={}", line.limit.value_or(50));
        if (line.deviceFilter) target += "&device=" + internal::encode(*line.deviceFilter);
        int code = 0;
        const auto v = listing(target, "items", "No items yet.", code);
        if (!v) return code;
        for (const auto& item : v->at("items").as_array())
            out << internal::itemLine(item.as_object()) << "\n";
        return 0;
    }
    if (command == "send") {
        if (!needWords(2, 3, "send <device-id> <action> [payload]")) return 2;
        json::object body{{"action", line.words[1]}};
        if (line.words.size() == 3) {
            body["payload"] = line.words[2];
        } else {
            body["payload"] = nullptr;
        }
        auto a = call("POST", "/api/devices/" + internal::encode(line.words[0]) + "/commands",
                      json::serialize(body));
        if (!a) return 3;
        if (a->status != 202) return refused(*a);
        const auto v = expectObject(*a);
        if (!v) return 4;
        out << "✅ Sent to " << line.words[0] << ": " << internal::field(*v, "frame") << "\n";
        return 0;
    }
    err << usageText();
    return 2;
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
    printI(
        fmt::format("🐶 Kestro development service listening on {} (WebSocket {}/?api-key=…"
                    "&device-id=…), control API {}/api, sample API {}/sample, database {}",
                    service.httpURL(), service.webSocketURL(), service.httpURL(), service.httpURL(),
                    (line->options.dataDirectory / kDatabaseFileName).string()),
        LogLevel::info);
    int received = 0;
    sigwait(&signals, &received);
    printI(fmt::format("🐶 {} received, stopping", received == SIGINT ? "SIGINT" : "SIGTERM"),
           LogLevel::info);
    service.stop();
    printI("🐶 Stopped", LogLevel::info);
    return 0;
}

}  // namespace kestro::devservice
