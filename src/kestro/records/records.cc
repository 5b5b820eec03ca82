#include "kestro/records/records.h"

#include <fmt/compile.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/json/serialize.hpp>
#include <cmath>
#include <cstring>

#include "kestro/core/json_numbers.h"

namespace kestro {
namespace {

namespace json = boost::json;

// --- Reading: each helper gives nothing when the key is missing or of the wrong kind. -------

const json::value* find(const JSONDictionary& d, std::string_view key) {
    return d.if_contains(key);
}

std::optional<std::string> text(const JSONDictionary& d, std::string_view key) {
    const json::value* v = find(d, key);
    if (v == nullptr || !v->is_string()) return std::nullopt;
    return std::string(v->get_string());
}

// A number, integral or not.
std::optional<double> number(const JSONDictionary& d, std::string_view key) {
    const json::value* v = find(d, key);
    if (v == nullptr) return std::nullopt;
    if (v->is_int64()) return static_cast<double>(v->get_int64());
    if (v->is_uint64()) return static_cast<double>(v->get_uint64());
    if (v->is_double()) return v->get_double();
    return std::nullopt;
}

// An integral number that fits a signed 64-bit integer. A fractional number with no fraction
// (12.0) counts as integral; 12.5 does not.
std::optional<std::int64_t> integer(const JSONDictionary& d, std::string_view key) {
    const json::value* v = find(d, key);
    if (v == nullptr) return std::nullopt;
    return jsonInteger(*v);
}

const JSONDictionary* object(const JSONDictionary& d, std::string_view key) {
    const json::value* v = find(d, key);
    return v != nullptr && v->is_object() ? &v->get_object() : nullptr;
}

std::optional<TextMap> textMap(const JSONDictionary& d, std::string_view key) {
    const JSONDictionary* o = object(d, key);
    if (o == nullptr) return std::nullopt;
    TextMap out;
    for (const auto& kv : *o) {
        if (!kv.value().is_string()) return std::nullopt;
        out.emplace(std::string(kv.key()), std::string(kv.value().get_string()));
    }
    return out;
}

std::optional<TimePoint> time(const JSONDictionary& d, std::string_view key) {
    auto n = number(d, key);
    if (!n) return std::nullopt;
    return fromSecondsSince1970(*n);
}

json::object encodeMap(const TextMap& m) {
    json::object o;
    o.reserve(m.size());
    for (const auto& [k, v] : m) o.emplace(k, v);
    return o;
}

// --- Writing JSON text directly, for the store and the upload. ------------------------------

// Bytes that JSON text cannot carry as they are: controls, quote and backslash.
constexpr auto kNeedsEscape = [] {
    std::array<bool, 256> t{};
    for (int c = 0; c < 0x20; ++c) t[c] = true;
    t['"'] = t['\\'] = true;
    return t;
}();

// Writes into a std::string through a raw cursor: room is reserved per piece (escaping grows a
// byte to at most six), so the hot loops are plain stores with no per-character checks.
class Writer {
  public:
    // Writes from position at (the end of out by default) on; out may already be sized
    // beyond it, and is cut to what was written when the writer goes.
    explicit Writer(std::string& out, bool atObjectStart = true, std::size_t at = std::string::npos)
        : out_(out), pos_(at == std::string::npos ? out.size() : at), first_(atObjectStart) {}
    ~Writer() { out_.resize(pos_); }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void open() {
        put('{');
        first_ = true;
    }
    void close() {
        put('}');
        first_ = false;
    }

    void key(std::string_view k) {
        if (!first_) put(',');
        first_ = false;
        string(k);
        put(':');
    }
    void field(std::string_view k, std::string_view v) { key(k), string(v); }
    void field(std::string_view k, std::int64_t v) {
        key(k);
        const fmt::format_int text(v);
        std::memcpy(room(text.size()), text.data(), text.size());
        pos_ += text.size();
    }
    void field(std::string_view k, TimePoint t) { key(k), real(secondsSince1970(t)); }
    void field(std::string_view k, double d) { key(k), real(d); }
    void field(std::string_view k, const TextMap& m) {
        key(k);
        open();
        for (const auto& [mk, mv] : m) field(mk, mv);
        close();
    }
    void raw(std::string_view k, const json::object& v) {
        key(k);
        const std::string text = json::serialize(v);
        std::memcpy(room(text.size()), text.data(), text.size());
        pos_ += text.size();
    }

    void string(std::string_view s) {
        char* p = room(s.size() * 6 + 2);
        *p++ = '"';
        const char* in = s.data();
        const char* const end = in + s.size();
        // Eight bytes at a time while none of them needs escaping.
        while (end - in >= 8) {
            std::uint64_t v;
            std::memcpy(&v, in, 8);
            if (!cleanWord(v)) break;
            std::memcpy(p, in, 8);
            p += 8, in += 8;
        }
        for (; in < end; ++in) {
            const char ch = *in;
            const auto c = static_cast<unsigned char>(ch);
            if (!kNeedsEscape[c]) {
                *p++ = ch;
                continue;
            }
            *p++ = '\\';
            switch (c) {
                case '"':
                    *p++ = '"';
                    break;
                case '\\':
                    *p++ = '\\';
                    break;
                case '\n':
                    *p++ = 'n';
                    break;
                case '\r':
                    *p++ = 'r';
                    break;
                case '\t':
                    *p++ = 't';
                    break;
                case '\b':
                    *p++ = 'b';
                    break;
                case '\f':
                    *p++ = 'f';
                    break;
                default: {
                    static constexpr char kHex[] = "0123456789abcdef";
                    *p++ = 'u', *p++ = '0', *p++ = '0';
                    *p++ = kHex[c >> 4], *p++ = kHex[c & 15];
                }
            }
        }
        *p++ = '"';
        pos_ = static_cast<std::size_t>(p - out_.data());
    }

    // A double that reads back as a double: the shortest exact form, with ".0" added when it
    // would otherwise look integral.
    void real(double d) {
        if (!std::isfinite(d)) d = 0;
        char* start = room(48);
        char* end = fmt::format_to(start, FMT_COMPILE("{}"), d);
        if (std::find_if(start, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) ==
            end) {
            *end++ = '.', *end++ = '0';
        }
        pos_ = static_cast<std::size_t>(end - out_.data());
    }

  private:
    // True when no byte of v is a control, a quote or a backslash.
    static bool cleanWord(std::uint64_t v) {
        constexpr std::uint64_t kOnes = 0x0101010101010101ULL, kHighs = 0x8080808080808080ULL;
        const auto hasZero = [](std::uint64_t x) { return (x - kOnes) & ~x & kHighs; };
        const std::uint64_t below20 = (v - kOnes * 0x20) & ~v & kHighs;
        return (below20 | hasZero(v ^ (kOnes * '"')) | hasZero(v ^ (kOnes * '\\'))) == 0;
    }
    void put(char c) { *room(1) = c, ++pos_; }
    // At least n writable bytes at the cursor.
    char* room(std::size_t n) {
        if (pos_ + n > out_.size()) out_.resize(std::max(out_.size() * 2, pos_ + n + 256));
        return out_.data() + pos_;
    }

    std::string& out_;
    std::size_t pos_;
    bool first_ = true;
};

void writeLogBody(Writer& w, const RequestTypeLog& r) {
    w.field("id", r.id);
    w.field("type", r.type);
    w.field("level", r.level);
    w.field("sentAt", r.sentAt);
    w.field("createdAt", r.createdAt);
    w.key("details");
    w.open();
    const auto& d = r.details;
    w.field("message", d.message);
    w.field("subsystem", d.subsystem);
    w.field("category", d.category);
    w.field("filePath", d.filePath);
    w.field("file", d.file);
    w.field("line", d.line);
    w.close();
}

void writeEventBody(Writer& w, const RequestTypeEvent& r) {
    w.field("id", r.id);
    w.field("type", r.type);
    w.field("sentAt", r.sentAt);
    w.field("createdAt", r.createdAt);
    w.key("details");
    w.open();
    w.field("name", r.details.name);
    w.field("category", r.details.category);
    w.raw("payload", r.details.payload);
    w.close();
}

void writeRequestBody(Writer& w, const RequestTypeRequest& r) {
    w.field("id", r.id);
    w.field("type", r.type);
    w.key("details");
    w.open();
    if (const auto& q = r.details.request) {
        w.key("request");
        w.open();
        w.field("url", q->url);
        w.field("method", q->method);
        w.field("headers", q->headers);
        w.field("startedAt", q->startedAt);
        w.field("body", q->body);
        if (q->bodyTotalBytes) w.field("bodyTotalBytes", *q->bodyTotalBytes);
        w.close();
    }
    if (const auto& s = r.details.response) {
        w.key("response");
        w.open();
        w.field("statusCode", s->statusCode);
        w.field("headers", s->headers);
        w.field("receivedAt", s->receivedAt);
        w.field("body", s->body);
        if (s->bodyTotalBytes) w.field("bodyTotalBytes", *s->bodyTotalBytes);
        if (const auto& t = s->timings) {
            w.key("timings");
            w.open();
            w.field("nameLookup", t->nameLookup);
            w.field("connect", t->connect);
            w.field("tls", t->tls);
            w.field("firstByte", t->firstByte);
            w.field("transfer", t->transfer);
            w.close();
        }
        w.close();
    }
    w.close();
    w.field("sentAt", r.sentAt);
    w.field("createdAt", r.createdAt);
}

}  // namespace

// --- encode ---------------------------------------------------------------------------------

JSONDictionary RequestTypeLogDetails::encode() const {
    return {{"message", message},   {"subsystem", subsystem}, {"category", category},
            {"filePath", filePath}, {"file", file},           {"line", line}};
}

namespace {

// The top-level fields of each record kind, appended to an object that may already hold
// "eventType", so that a record's full dictionary is built in one object.
void appendFields(const RequestTypeLog& r, json::object& o) {
    o.emplace("id", r.id);
    o.emplace("type", r.type);
    o.emplace("level", r.level);
    o.emplace("sentAt", secondsSince1970(r.sentAt));
    o.emplace("createdAt", secondsSince1970(r.createdAt));
    o.emplace("details", r.details.encode());
}

void appendFields(const RequestTypeEvent& r, json::object& o) {
    o.emplace("id", r.id);
    o.emplace("type", r.type);
    o.emplace("sentAt", secondsSince1970(r.sentAt));
    o.emplace("createdAt", secondsSince1970(r.createdAt));
    o.emplace("details", r.details.encode());
}

void appendFields(const RequestTypeRequest& r, json::object& o) {
    o.emplace("id", r.id);
    o.emplace("type", r.type);
    o.emplace("details", r.details.encode());
    o.emplace("sentAt", secondsSince1970(r.sentAt));
    o.emplace("createdAt", secondsSince1970(r.createdAt));
}

constexpr std::size_t fieldCount(const RequestTypeLog&) { return 6; }
constexpr std::size_t fieldCount(const RequestTypeEvent&) { return 5; }
constexpr std::size_t fieldCount(const RequestTypeRequest&) { return 5; }

template <typename Record>
json::object encodeRecord(const Record& r) {
    json::object o;
    o.reserve(fieldCount(r));
    appendFields(r, o);
    return o;
}

}  // namespace

JSONDictionary RequestTypeLog::encode() const { return encodeRecord(*this); }

JSONDictionary RequestTypeEventDetails::encode() const {
    return {{"name", name}, {"category", category}, {"payload", payload}};
}

JSONDictionary RequestTypeEvent::encode() const { return encodeRecord(*this); }

JSONDictionary RequestTypeRequestTimings::encode() const {
    return {{"nameLookup", nameLookup},
            {"connect", connect},
            {"tls", tls},
            {"firstByte", firstByte},
            {"transfer", transfer}};
}

JSONDictionary RequestTypeRequestDetailsRequest::encode() const {
    JSONDictionary o{{"url", url},
                     {"method", method},
                     {"headers", encodeMap(headers)},
                     {"startedAt", secondsSince1970(startedAt)},
                     {"body", body}};
    if (bodyTotalBytes) o.emplace("bodyTotalBytes", *bodyTotalBytes);
    return o;
}

JSONDictionary RequestTypeRequestDetailsResponse::encode() const {
    JSONDictionary o{{"statusCode", statusCode},
                     {"headers", encodeMap(headers)},
                     {"receivedAt", secondsSince1970(receivedAt)},
                     {"body", body}};
    if (bodyTotalBytes) o.emplace("bodyTotalBytes", *bodyTotalBytes);
    if (timings) o.emplace("timings", timings->encode());
    return o;
}

JSONDictionary RequestTypeRequestDetails::encode() const {
    JSONDictionary o;
    o.reserve(2);
    if (request) o.emplace("request", request->encode());
    if (response) o.emplace("response", response->encode());
    return o;
}

JSONDictionary RequestTypeRequest::encode() const { return encodeRecord(*this); }

JSONDictionary RequestEventType::encode() const {
    return std::visit(
        [this](const auto& r) {
            json::object out;
            out.reserve(fieldCount(r) + 1);
            out.emplace("eventType", eventTypeText());
            appendFields(r, out);
            return out;
        },
        value_);
}

namespace {

// Room for the text toJSON() writes when no string needs escaping: the strings themselves
// plus the keys, quotes, numbers and punctuation around them. Sizing the buffer once spares
// the reallocations (and their zero-filling) of growing it from nothing.
std::size_t jsonSizeHint(const TextMap& m) {
    std::size_t n = 2;
    for (const auto& [k, v] : m) n += k.size() + v.size() + 6;
    return n;
}
std::size_t jsonSizeHint(const RequestTypeLog& r) {
    const auto& d = r.details;
    return r.id.size() + r.type.size() + r.level.size() + d.message.size() + d.subsystem.size() +
           d.category.size() + d.filePath.size() + d.file.size() + 220;
}
std::size_t jsonSizeHint(const RequestTypeEvent& r) {
    return r.id.size() + r.type.size() + r.details.name.size() + r.details.category.size() +
           r.details.payload.size() * 24 + 160;
}
std::size_t jsonSizeHint(const RequestTypeRequest& r) {
    std::size_t n = r.id.size() + r.type.size() + 160;
    if (const auto& q = r.details.request)
        n += q->url.size() + q->method.size() + jsonSizeHint(q->headers) + q->body.size() + 80;
    if (const auto& s = r.details.response) n += jsonSizeHint(s->headers) + s->body.size() + 80;
    return n;
}

}  // namespace

std::string RequestEventType::toJSON() const {
    std::string out;
    out.resize(std::visit([](const auto& r) { return jsonSizeHint(r); }, value_) + 32);
    {
        Writer w(out, true, 0);
        w.open();
        w.field("eventType", eventTypeText());
        std::visit(
            [&](const auto& r) {
                using T = std::decay_t<decltype(r)>;
                if constexpr (std::is_same_v<T, RequestTypeLog>)
                    writeLogBody(w, r);
                else if constexpr (std::is_same_v<T, RequestTypeEvent>)
                    writeEventBody(w, r);
                else
                    writeRequestBody(w, r);
            },
            value_);
        w.close();
    }
    return out;
}

// --- decode ---------------------------------------------------------------------------------

std::optional<RequestTypeLogDetails> RequestTypeLogDetails::decode(const JSONDictionary& d) {
    auto message = text(d, "message");
    auto subsystem = text(d, "subsystem");
    auto category = text(d, "category");
    auto filePath = text(d, "filePath");
    auto file = text(d, "file");
    auto line = integer(d, "line");
    if (!message || !subsystem || !category || !filePath || !file || !line) return std::nullopt;
    return RequestTypeLogDetails{std::move(*message),  std::move(*subsystem), std::move(*category),
                                 std::move(*filePath), std::move(*file),      *line};
}

std::optional<RequestTypeLog> RequestTypeLog::decode(const JSONDictionary& d) {
    auto id = text(d, "id");
    auto type = text(d, "type");
    auto level = text(d, "level");
    auto sentAt = time(d, "sentAt");
    auto createdAt = time(d, "createdAt");
    const JSONDictionary* details = object(d, "details");
    if (!id || !type || !level || !sentAt || !createdAt || details == nullptr) return std::nullopt;
    auto decoded = RequestTypeLogDetails::decode(*details);
    if (!decoded) return std::nullopt;
    return RequestTypeLog{std::move(*id), std::move(*type), std::move(*level),
                          *sentAt,        *createdAt,       std::move(*decoded)};
}

std::optional<RequestTypeEventDetails> RequestTypeEventDetails::decode(const JSONDictionary& d) {
    auto name = text(d, "name");
    auto category = text(d, "category");
    const JSONDictionary* payload = object(d, "payload");
    if (!name || !category || payload == nullptr) return std::nullopt;
    return RequestTypeEventDetails{std::move(*name), std::move(*category), *payload};
}

std::optional<RequestTypeEvent> RequestTypeEvent::decode(const JSONDictionary& d) {
    auto id = text(d, "id");
    auto type = text(d, "type");
    auto sentAt = time(d, "sentAt");
    auto createdAt = time(d, "createdAt");
    const JSONDictionary* details = object(d, "details");
    if (!id || !type || !sentAt || !createdAt || details == nullptr) return std::nullopt;
    auto decoded = RequestTypeEventDetails::decode(*details);
    if (!decoded) return std::nullopt;
    return RequestTypeEvent{std::move(*id), std::move(*type), *sentAt, *createdAt,
                            std::move(*decoded)};
}

std::optional<RequestTypeRequestDetailsRequest> RequestTypeRequestDetailsRequest::decode(
    const JSONDictionary& d) {
    auto url = text(d, "url");
    auto method = text(d, "method");
    auto headers = textMap(d, "headers");
    auto startedAt = time(d, "startedAt");
    auto body = text(d, "body");
    if (!url || !method || !headers || !startedAt || !body) return std::nullopt;
    return RequestTypeRequestDetailsRequest{std::move(*url),     std::move(*method),
                                            std::move(*headers), *startedAt,
                                            std::move(*body),    integer(d, "bodyTotalBytes")};
}

std::optional<RequestTypeRequestTimings> RequestTypeRequestTimings::decode(
    const JSONDictionary& d) {
    auto nameLookup = number(d, "nameLookup");
    auto connect = number(d, "connect");
    auto tls = number(d, "tls");
    auto firstByte = number(d, "firstByte");
    auto transfer = number(d, "transfer");
    if (!nameLookup || !connect || !tls || !firstByte || !transfer) return std::nullopt;
    return RequestTypeRequestTimings{*nameLookup, *connect, *tls, *firstByte, *transfer};
}

std::optional<RequestTypeRequestDetailsResponse> RequestTypeRequestDetailsResponse::decode(
    const JSONDictionary& d) {
    auto statusCode = integer(d, "statusCode");
    auto headers = textMap(d, "headers");
    auto receivedAt = time(d, "receivedAt");
    auto body = text(d, "body");
    if (!statusCode || !headers || !receivedAt || !body) return std::nullopt;
    std::optional<RequestTypeRequestTimings> timings;
    if (const JSONDictionary* t = object(d, "timings")) timings = RequestTypeRequestTimings::decode(*t);
    return RequestTypeRequestDetailsResponse{*statusCode,      std::move(*headers),
                                             *receivedAt,      std::move(*body),
                                             integer(d, "bodyTotalBytes"), timings};
}

std::optional<RequestTypeRequestDetails> RequestTypeRequestDetails::decode(
    const JSONDictionary& d) {
    RequestTypeRequestDetails out;
    if (const JSONDictionary* q = object(d, "request"))
        out.request = RequestTypeRequestDetailsRequest::decode(*q);
    if (const JSONDictionary* s = object(d, "response"))
        out.response = RequestTypeRequestDetailsResponse::decode(*s);
    return out;
}

std::optional<RequestTypeRequest> RequestTypeRequest::decode(const JSONDictionary& d) {
    auto id = text(d, "id");
    auto type = text(d, "type");
    auto sentAt = time(d, "sentAt");
    auto createdAt = time(d, "createdAt");
    const JSONDictionary* details = object(d, "details");
    if (!id || !type || !sentAt || !createdAt || details == nullptr) return std::nullopt;
    return RequestTypeRequest{std::move(*id), std::move(*type),
                              *RequestTypeRequestDetails::decode(*details), *sentAt, *createdAt};
}

std::optional<RequestEventType> RequestEventType::decode(const JSONDictionary& d) {
    auto eventType = text(d, "eventType");
    if (!eventType) return std::nullopt;
    if (*eventType == "networkRequest") {
        if (auto r = RequestTypeRequest::decode(d)) return RequestEventType(std::move(*r));
    } else if (*eventType == "log") {
        if (auto r = RequestTypeLog::decode(d)) return RequestEventType(std::move(*r));
    } else if (*eventType == "customEvent") {
        if (auto r = RequestTypeEvent::decode(d)) return RequestEventType(std::move(*r));
    }
    return std::nullopt;
}

// --- accessors ------------------------------------------------------------------------------

const char* RequestEventType::eventTypeText() const {
    switch (kind()) {
        case Kind::networkRequest:
            return "networkRequest";
        case Kind::log:
            return "log";
        case Kind::customEvent:
            return "customEvent";
    }
    return "log";
}

const std::string& RequestEventType::id() const {
    return std::visit([](const auto& r) -> const std::string& { return r.id; }, value_);
}

TimePoint RequestEventType::timestamp() const {
    return std::visit([](const auto& r) { return r.createdAt; }, value_);
}

// --- UTF-8 repair ---------------------------------------------------------------------------

void repairUTF8(RequestTypeLog& r) {
    for (std::string* text : {&r.id, &r.type, &r.level, &r.details.message, &r.details.subsystem,
                              &r.details.category, &r.details.filePath, &r.details.file}) {
        repairUTF8(*text);
    }
}

void repairUTF8(RequestTypeEvent& r) {
    for (std::string* text : {&r.id, &r.type, &r.details.name, &r.details.category}) {
        repairUTF8(*text);
    }
    repairUTF8(r.details.payload);
}

namespace {
void repairMapUTF8(TextMap& map) {
    bool keysValid = true;
    for (auto& [key, value] : map) {
        repairUTF8(value);
        keysValid = keysValid && isValidUTF8(key);
    }
    if (keysValid) return;
    // Keys are constant inside the map: build it again with repaired keys.
    TextMap repaired;
    for (auto& [key, value] : map) {
        std::string k = key;
        repairUTF8(k);
        repaired.emplace(std::move(k), std::move(value));
    }
    map = std::move(repaired);
}
}  // namespace

void repairUTF8(RequestTypeRequest& r) {
    repairUTF8(r.id);
    repairUTF8(r.type);
    if (auto& q = r.details.request) {
        repairUTF8(q->url);
        repairUTF8(q->method);
        repairMapUTF8(q->headers);
        repairUTF8(q->body);
    }
    if (auto& s = r.details.response) {
        repairMapUTF8(s->headers);
        repairUTF8(s->body);
    }
}

void repairUTF8(json::value& value) {
    switch (value.kind()) {
        case json::kind::string: {
            json::string& text = value.get_string();
            if (!isValidUTF8(text)) {
                std::string repaired;
                appendRepairedUTF8(repaired, text);
                text = repaired;
            }
            return;
        }
        case json::kind::array:
            for (json::value& element : value.get_array()) repairUTF8(element);
            return;
        case json::kind::object:
            repairUTF8(value.get_object());
            return;
        default:
            return;
    }
}

void repairUTF8(JSONDictionary& object) {
    bool keysValid = true;
    for (auto& member : object) {
        repairUTF8(member.value());
        keysValid = keysValid && isValidUTF8(member.key());
    }
    if (keysValid) return;
    // Keys are constant inside the object: build it again with repaired keys, in order. Two
    // keys that repair to the same text keep the first one's value.
    JSONDictionary repaired(object.storage());
    repaired.reserve(object.size());
    for (auto& member : object) {
        std::string key;
        appendRepairedUTF8(key, member.key());
        repaired.emplace(key, std::move(member.value()));
    }
    object = std::move(repaired);
}

std::string lastPathComponent(std::string_view path) {
    std::size_t end = path.size();
    while (end > 0 && path[end - 1] == '/') --end;
    if (end == 0) return path.empty() ? std::string() : std::string("/");
    const std::size_t slash = path.rfind('/', end - 1);
    const std::size_t start = slash == std::string_view::npos ? 0 : slash + 1;
    return std::string(path.substr(start, end - start));
}

}  // namespace kestro
