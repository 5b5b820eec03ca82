#include "devservice/upload_check.h"

#include <initializer_list>

#include "kestro/core/json_numbers.h"
#include "kestro/records/records.h"

namespace kestro::devservice {
namespace internal {
namespace {

enum class Kind { text, number, integer, object, textMap };

struct Field {
    const char* key;
    Kind kind;
};

const char* describe(Kind kind) {
    switch (kind) {
        case Kind::text:
            return "a string";
        case Kind::number:
            return "a number";
        case Kind::integer:
            return "an integer";
        case Kind::object:
            return "an object";
        case Kind::textMap:
            return "an object of strings";
    }
    return "";
}

bool fits(const boost::json::value& v, Kind kind) {
    switch (kind) {
        case Kind::text:
            return v.is_string();
        case Kind::number:
            return v.is_number();
        case Kind::integer:
            return jsonInteger(v).has_value();
        case Kind::object:
            return v.is_object();
        case Kind::textMap:
            if (!v.is_object()) return false;
            for (const auto& kv : v.as_object()) {
                if (!kv.value().is_string()) return false;
            }
            return true;
    }
    return false;
}

std::optional<std::string> checkFields(const boost::json::object& o, std::string_view where,
                                       std::initializer_list<Field> fields) {
    for (const auto& f : fields) {
        const std::string name = std::string(where) + f.key;
        const auto* v = o.if_contains(f.key);
        if (!v) return "\"" + name + "\" is missing";
        if (!fits(*v, f.kind)) return "\"" + name + "\" must be " + describe(f.kind);
    }
    return std::nullopt;
}

std::optional<std::string> checkNetwork(const boost::json::object& o) {
    if (auto e = checkFields(o, "",
                             {{"type", Kind::text},
                              {"sentAt", Kind::number},
                              {"createdAt", Kind::number},
                              {"details", Kind::object}})) {
        return e;
    }
    const auto& details = o.at("details").as_object();
    // The halves are optional, but one that is sent must be whole: a broken half would be
    // dropped silently by every reader.
    if (const auto* r = details.if_contains("request")) {
        if (!r->is_object()) return std::string("\"details.request\" must be an object");
        if (auto e = checkFields(r->as_object(), "details.request.",
                                 {{"url", Kind::text},
                                  {"method", Kind::text},
                                  {"headers", Kind::textMap},
                                  {"startedAt", Kind::number},
                                  {"body", Kind::text}})) {
            return e;
        }
    }
    if (const auto* r = details.if_contains("response")) {
        if (!r->is_object()) return std::string("\"details.response\" must be an object");
        if (auto e = checkFields(r->as_object(), "details.response.",
                                 {{"statusCode", Kind::integer},
                                  {"headers", Kind::textMap},
                                  {"receivedAt", Kind::number},
                                  {"body", Kind::text}})) {
            return e;
        }
    }
    return std::nullopt;
}

std::optional<std::string> checkLog(const boost::json::object& o) {
    if (auto e = checkFields(o, "",
                             {{"type", Kind::text},
                              {"level", Kind::text},
                              {"sentAt", Kind::number},
                              {"createdAt", Kind::number},
                              {"details", Kind::object}})) {
        return e;
    }
    return checkFields(o.at("details").as_object(), "details.",
                       {{"message", Kind::text},
                        {"subsystem", Kind::text},
                        {"category", Kind::text},
                        {"filePath", Kind::text},
                        {"file", Kind::text},
                        {"line", Kind::integer}});
}

std::optional<std::string> checkEvent(const boost::json::object& o) {
    if (auto e = checkFields(o, "",
                             {{"type", Kind::text},
                              {"sentAt", Kind::number},
                              {"createdAt", Kind::number},
                              {"details", Kind::object}})) {
        return e;
    }
    return checkFields(o.at("details").as_object(), "details.",
                       {{"name", Kind::text}, {"category", Kind::text}, {"payload", Kind::object}});
}

}  // namespace
}  // namespace internal

using internal::Kind;

std::optional<std::string> checkApiKey(std::optional<std::string_view> key) {
    if (!key) return std::string("the \"Api-Key\" header is missing");
    if (!key->starts_with("kt-prod-") && !key->starts_with("kt-dev-")) {
        return std::string("the API key must begin with \"kt-prod-\" or \"kt-dev-\"");
    }
    return std::nullopt;
}

std::string keyKind(std::string_view key) { return key.starts_with("kt-prod-") ? "prod" : "dev"; }

namespace {

// The "id" every upload carries: a non-empty string.
std::optional<std::string> checkId(const boost::json::object& o) {
    const auto* id = o.if_contains("id");
    if (!id) return std::string("\"id\" is missing");
    if (!id->is_string()) return std::string("\"id\" must be a string");
    if (id->as_string().empty()) return std::string("\"id\" must not be empty");
    return std::nullopt;
}

}  // namespace

std::optional<std::string> checkDevice(const boost::json::value& body) {
    if (!body.is_object()) return std::string("the body must be a JSON object");
    const auto& o = body.as_object();
    if (auto e = checkId(o)) return e;
    for (const auto& kv : o) {
        if (!kv.value().is_string()) {
            return "\"" + std::string(kv.key()) + "\" must be a string";
        }
    }
    return std::nullopt;
}

std::optional<std::string> checkItem(const boost::json::value& body) {
    if (!body.is_object()) return std::string("the body must be a JSON object");
    const auto& o = body.as_object();
    const auto* eventType = o.if_contains("eventType");
    if (!eventType) return std::string("\"eventType\" is missing");
    if (!eventType->is_string()) return std::string("\"eventType\" must be a string");
    // The id joins the two uploads of an exchange; without one there is nothing to join on.
    if (auto e = checkId(o)) return e;

    std::optional<std::string> error;
    const auto& type = eventType->as_string();
    if (type == "networkRequest") {
        error = internal::checkNetwork(o);
    } else if (type == "log") {
        error = internal::checkLog(o);
    } else if (type == "customEvent") {
        error = internal::checkEvent(o);
    } else {
        return "\"eventType\" must be \"networkRequest\", \"log\" or \"customEvent\", not \"" +
               std::string(type) + "\"";
    }
    if (error) return error;

    const auto* device = o.if_contains("device");
    if (!device) return std::string("\"device\" is missing");
    if (!device->is_object()) return std::string("\"device\" must be an object");
    if (auto e = checkDevice(*device)) return "in \"device\": " + *e;

    // The records' own decoder has the last word, so that whatever is accepted here reads back.
    if (!RequestEventType::decode(o)) {
        return "the body does not decode as a " + std::string(type) + " record";
    }
    return std::nullopt;
}

std::optional<std::string> checkMockRule(const boost::json::value& rule) {
    if (!rule.is_object()) return std::string("the mock rule must be a JSON object");
    const auto& o = rule.as_object();
    const auto* url = o.if_contains("url");
    if (!url) return std::string("the mock rule's \"url\" is missing");
    if (!url->is_string()) return std::string("the mock rule's \"url\" must be a string");
    for (const internal::Field f :
         {internal::Field{"mockedUrl", Kind::text}, internal::Field{"statusCode", Kind::integer},
          internal::Field{"headers", Kind::textMap}, internal::Field{"body", Kind::text}}) {
        const auto* v = o.if_contains(f.key);
        if (v && !v->is_null() && !internal::fits(*v, f.kind)) {
            return "the mock rule's \"" + std::string(f.key) + "\" must be " +
                   internal::describe(f.kind);
        }
    }
    return std::nullopt;
}

}  // namespace kestro::devservice
