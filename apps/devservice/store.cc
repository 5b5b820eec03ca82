#include "devservice/store.h"

#include "kestro/core/json_numbers.h"
#include "kestro/core/utf8.h"

namespace kestro::devservice {
namespace {

namespace json = boost::json;

// Cuts a text to at most `limit` bytes without splitting a UTF-8 sequence.
std::string clip(std::string_view text, std::size_t limit) {
    if (text.size() <= limit) return std::string(text);
    return std::string(utf8Prefix(text, limit)) + "…";
}

const json::object* objectAt(const json::object& o, const char* key) {
    const auto* v = o.if_contains(key);
    return v && v->is_object() ? &v->as_object() : nullptr;
}

std::optional<std::string> textAt(const json::object* o, const char* key) {
    if (!o) return std::nullopt;
    const auto* v = o->if_contains(key);
    if (!v || !v->is_string()) return std::nullopt;
    return std::string(v->as_string());
}

std::optional<double> numberAt(const json::object* o, const char* key) {
    if (!o) return std::nullopt;
    const auto* v = o->if_contains(key);
    if (!v || !v->is_number()) return std::nullopt;
    return v->to_number<double>();
}

// The list keeps the first words of a message and URL; the item itself has them whole.
constexpr std::size_t kMessageLimit = 200;
constexpr std::size_t kUrlLimit = 2048;

}  // namespace

std::string RuleRow::url() const {
    const auto* v = rule.if_contains("url");
    return v && v->is_string() ? std::string(v->as_string()) : std::string();
}

json::object joinRecords(const json::object& stored, const json::object& incoming) {
    const auto* storedType = stored.if_contains("eventType");
    const auto* incomingType = incoming.if_contains("eventType");
    const bool bothNetwork = storedType && incomingType && *storedType == *incomingType &&
                             *storedType == "networkRequest";
    if (!bothNetwork) return incoming;

    // The exchange's first upload fixes the record; later uploads bring the halves they carry
    // (the response half, normally), which replace a half of the same name.
    json::object joined = stored;
    const auto* inDetails = incoming.if_contains("details");
    if (!inDetails || !inDetails->is_object()) return joined;
    auto* outDetails = joined.if_contains("details");
    if (!outDetails || !outDetails->is_object()) {
        joined["details"] = json::object();
        outDetails = joined.if_contains("details");
    }
    for (const char* half : {"request", "response"}) {
        if (const auto* h = inDetails->as_object().if_contains(half); h && h->is_object()) {
            outDetails->as_object()[half] = *h;
        }
    }
    return joined;
}

ItemSummary summarize(const json::object& record) {
    ItemSummary s;
    s.kind = textAt(&record, "eventType").value_or("");
    s.time = numberAt(&record, "createdAt");
    const json::object* details = objectAt(record, "details");
    if (s.kind == "networkRequest") {
        const json::object* request = details ? objectAt(*details, "request") : nullptr;
        const json::object* response = details ? objectAt(*details, "response") : nullptr;
        s.method = textAt(request, "method");
        if (auto url = textAt(request, "url")) s.url = clip(*url, kUrlLimit);
        s.waiting = response == nullptr;
        if (response) {
            if (const auto* code = response->if_contains("statusCode"))
                s.status = jsonInteger(*code);
            const auto started = numberAt(request, "startedAt");
            const auto received = numberAt(response, "receivedAt");
            if (started && received) s.durationMs = (*received - *started) * 1000.0;
            // A mocked answer is reported with this header, which the application never sees.
            if (const json::object* headers = objectAt(*response, "headers")) {
                for (const auto& field : *headers) {
                    if (field.value().is_string() && field.value().as_string() == "true" &&
                        field.key().size() == 18) {
                        std::string name(field.key());
                        for (auto& c : name)
                            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                        s.mocked = s.mocked || name == "kestro-intercepted";
                    }
                }
            }
        }
    } else if (s.kind == "log") {
        s.level = textAt(&record, "level");
        if (auto message = textAt(details, "message")) s.message = clip(*message, kMessageLimit);
        s.category = textAt(details, "category");
    } else {
        s.name = textAt(details, "name");
        s.category = textAt(details, "category");
    }
    return s;
}

}  // namespace kestro::devservice
