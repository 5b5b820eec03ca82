#include "kestro/remote/command_handler.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include "kestro/core/console.h"
#include "kestro/core/main_queue.h"
#include "kestro/core/notification_center.h"
#include "kestro/network/mock_cache.h"

namespace kestro {
namespace {

namespace json = boost::json;

// Parses a JSON object; on failure describes what was wrong.
std::optional<json::object> parseObject(std::string_view text, std::string* error) {
    boost::system::error_code ec;
    json::value v = json::parse(text, ec);
    if (ec) {
        *error = "the data is not valid JSON (" + ec.message() + ")";
        return std::nullopt;
    }
    if (!v.is_object()) {
        *error = "expected a JSON object but found " +
                 std::string(v.is_array() ? "an array" : v.is_string() ? "a string" : "a value");
        return std::nullopt;
    }
    return std::move(v.get_object());
}

std::optional<MockCacheEntry> decodeRule(const std::string& payload, std::string* error) {
    auto object = parseObject(payload, error);
    if (!object) return std::nullopt;
    auto rule = MockCacheEntry::decode(*object);
    if (!rule) *error = "the object is not a mock rule (\"url\" must be text; \"mockedUrl\" and "
                        "\"body\" text, \"statusCode\" an integer, \"headers\" an object of texts)";
    return rule;
}

}  // namespace

std::optional<WebSocketMessage> WebSocketMessage::decode(std::string_view text, std::string* error) {
    std::string ignored;
    std::string& why = error != nullptr ? *error : ignored;
    auto object = parseObject(text, &why);
    if (!object) return std::nullopt;
    const json::value* action = object->if_contains("action");
    if (action == nullptr) {
        why = "the key \"action\" is missing";
        return std::nullopt;
    }
    if (!action->is_string()) {
        why = "the value of \"action\" is not text";
        return std::nullopt;
    }
    WebSocketMessage message{std::string(action->get_string()), std::nullopt};
    if (const json::value* payload = object->if_contains("payload"); payload && !payload->is_null()) {
        if (!payload->is_string()) {
            why = "the value of \"payload\" is not text";
            return std::nullopt;
        }
        message.payload = std::string(payload->get_string());
    }
    return message;
}

std::string WebSocketMessage::encode() const {
    json::object o;
    o["action"] = action;
    if (payload) o["payload"] = *payload;
    return json::serialize(o);
}

void handleWebSocketMessage(std::string_view text, const RemoteCommandTargets& targets) {
    std::string error;
    auto message = WebSocketMessage::decode(text, &error);
    if (!message) {
        printI("❌ JSON Decoding Error: " + error, LogLevel::error);
        return;
    }
    const std::string& action = message->action;
    MainQueue& main = MainQueue::shared();

    if (action == "enable_mock_request") {
        main.post([targets, payload = message->payload] {
            if (!payload) {
                printI("Failed to convert payload to Data", LogLevel::error);
                return;
            }
            std::string why;
            auto rule = decodeRule(*payload, &why);
            if (!rule) {
                printI("❌ JSON Decoding of enable_mock_request failed: " + why, LogLevel::error);
                return;
            }
            printI("Entry added to cache " + rule->url, LogLevel::verbose);
            const std::string key = rule->url;
            targets.mockCache().addToMockCache(key, std::move(*rule));
        });
    } else if (action == "disable_mock_request") {
        if (!message->payload) return;
        std::string why;
        auto rule = decodeRule(*message->payload, &why);
        if (!rule) {
            printI("❌ JSON Decoding of disable_mock_request failed: " + why, LogLevel::error);
            return;
        }
        targets.mockCache().removeFromMockCache(rule->url);
    } else if (action == "open_kestro_sheet") {
        main.post([] { NotificationCenter::defaultCenter().post(kOpenKestroSheet); });
    } else if (action == "enable_break_point") {
        main.post([targets] {
            printI("Set breakpoint", LogLevel::verbose);
            targets.setBreakPointEnabled(true);
        });
    } else if (action == "disable_break_point") {
        main.post([targets] {
            targets.setBreakPointEnabled(false);
            targets.releaseBreakpoints();
        });
    } else if (action == "send_ping") {
        targets.logEvent("Ping", "GENERAL", json::object{});
    } else {
        printI("⚠️ Unknown action: " + action, LogLevel::warning);
    }
}

}  // namespace kestro
