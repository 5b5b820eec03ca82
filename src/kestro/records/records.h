#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "kestro/core/export.h"
#include "kestro/core/time_text.h"
#include "kestro/core/utf8.h"

namespace kestro {

/// A dictionary from text to any JSON value: the one form of a record in the database and on
/// the wire. Boost.JSON keeps integral and fractional numbers apart and keeps insertion order.
using JSONDictionary = boost::json::object;
/// A map of texts (header fields). Ordered by key so that equal maps compare equal.
using TextMap = std::map<std::string, std::string>;

struct KESTRO_API RequestTypeLogDetails {
    std::string message;
    std::string subsystem;
    std::string category;
    std::string filePath;
    std::string file;
    std::int64_t line = 0;

    JSONDictionary encode() const;
    static std::optional<RequestTypeLogDetails> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeLogDetails&) const = default;
};

struct KESTRO_API RequestTypeLog {
    std::string id;
    std::string type;
    std::string level;
    TimePoint sentAt;
    TimePoint createdAt;
    RequestTypeLogDetails details;

    JSONDictionary encode() const;
    static std::optional<RequestTypeLog> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeLog&) const = default;
};

struct KESTRO_API RequestTypeEventDetails {
    std::string name;
    std::string category;
    JSONDictionary payload;

    JSONDictionary encode() const;
    static std::optional<RequestTypeEventDetails> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeEventDetails&) const = default;
};

struct KESTRO_API RequestTypeEvent {
    std::string id;
    std::string type;
    TimePoint sentAt;
    TimePoint createdAt;
    RequestTypeEventDetails details;

    JSONDictionary encode() const;
    static std::optional<RequestTypeEvent> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeEvent&) const = default;
};

/// How long each phase of a real exchange took, in milliseconds, as the HTTP client measured
/// it: name lookup, connecting (TCP), the TLS handshake, waiting from the request's being sent
/// to the answer's first byte, and receiving the rest. A phase that did not happen (a reused
/// connection's lookup and connect, TLS over plain HTTP) is 0. Mocked answers have none.
struct KESTRO_API RequestTypeRequestTimings {
    double nameLookup = 0;
    double connect = 0;
    double tls = 0;
    double firstByte = 0;
    double transfer = 0;

    /// {"nameLookup", "connect", "tls", "firstByte", "transfer"}, each a number of ms.
    JSONDictionary encode() const;
    /// Nothing unless all five are numbers.
    static std::optional<RequestTypeRequestTimings> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeRequestTimings&) const = default;
};

struct KESTRO_API RequestTypeRequestDetailsRequest {
    std::string url;
    std::string method;
    TextMap headers;
    TimePoint startedAt;
    std::string body;
    /// When the body was cut to the capture limit: the size of the whole body in bytes (as the
    /// application sent it). Key "bodyTotalBytes", written only when set.
    std::optional<std::int64_t> bodyTotalBytes;

    JSONDictionary encode() const;
    static std::optional<RequestTypeRequestDetailsRequest> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeRequestDetailsRequest&) const = default;
};

struct KESTRO_API RequestTypeRequestDetailsResponse {
    std::int64_t statusCode = 0;
    TextMap headers;
    TimePoint receivedAt;
    std::string body;
    /// When the body was cut to the capture limit: the size of the whole body in bytes (as the
    /// application received it). Key "bodyTotalBytes", written only when set.
    std::optional<std::int64_t> bodyTotalBytes;
    /// The phases of a real exchange. Key "timings", written only when set.
    std::optional<RequestTypeRequestTimings> timings;

    JSONDictionary encode() const;
    static std::optional<RequestTypeRequestDetailsResponse> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeRequestDetailsResponse&) const = default;
};

/// The two halves of a network exchange; either may be absent.
struct KESTRO_API RequestTypeRequestDetails {
    std::optional<RequestTypeRequestDetailsRequest> request;
    std::optional<RequestTypeRequestDetailsResponse> response;

    JSONDictionary encode() const;
    /// Never gives nothing: a malformed half is simply absent.
    static std::optional<RequestTypeRequestDetails> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeRequestDetails&) const = default;
};

struct KESTRO_API RequestTypeRequest {
    std::string id;
    std::string type;
    RequestTypeRequestDetails details;  // the only part that changes after creation
    TimePoint sentAt;
    TimePoint createdAt;

    JSONDictionary encode() const;
    static std::optional<RequestTypeRequest> decode(const JSONDictionary& from);
    bool operator==(const RequestTypeRequest&) const = default;
};

/// A custom event as a plain value for host applications.
struct KESTRO_API CustomEvent {
    std::string name;
    std::string category;
    JSONDictionary payload;

    CustomEvent(std::string name, std::string category, JSONDictionary payload)
        : name(std::move(name)), category(std::move(category)), payload(std::move(payload)) {}
    bool operator==(const CustomEvent&) const = default;
};

/// One captured item: a network exchange, a log line or a custom event.
class KESTRO_API RequestEventType {
  public:
    enum class Kind : std::uint8_t { networkRequest, log, customEvent };

    RequestEventType(RequestTypeRequest r) : value_(std::move(r)) {}
    RequestEventType(RequestTypeLog r) : value_(std::move(r)) {}
    RequestEventType(RequestTypeEvent r) : value_(std::move(r)) {}

    static RequestEventType networkRequest(RequestTypeRequest r) { return {std::move(r)}; }
    static RequestEventType log(RequestTypeLog r) { return {std::move(r)}; }
    static RequestEventType customEvent(RequestTypeEvent r) { return {std::move(r)}; }

    Kind kind() const { return static_cast<Kind>(value_.index()); }
    /// "networkRequest", "log" or "customEvent".
    const char* eventTypeText() const;

    const std::string& id() const;
    TimePoint timestamp() const;

    const RequestTypeRequest* asNetworkRequest() const { return std::get_if<0>(&value_); }
    const RequestTypeLog* asLog() const { return std::get_if<1>(&value_); }
    const RequestTypeEvent* asCustomEvent() const { return std::get_if<2>(&value_); }
    RequestTypeRequest* asNetworkRequest() { return std::get_if<0>(&value_); }

    /// The record's dictionary with "eventType" first.
    JSONDictionary encode() const;
    static std::optional<RequestEventType> decode(const JSONDictionary& from);

    /// encode() serialised compactly, written directly without building the dictionary.
    /// Parses to a value equal to encode().
    std::string toJSON() const;

    bool operator==(const RequestEventType&) const = default;

  private:
    std::variant<RequestTypeRequest, RequestTypeLog, RequestTypeEvent> value_;
};

/// Make every text of a record well-formed UTF-8, each ill-formed sequence becoming U+FFFD
/// (repairUTF8 in core). Record texts are JSON strings in the store and in the upload, and JSON
/// text is UTF-8: without this one stray byte in a log message or a file path lost the record.
/// What builds records calls them (the log capture, the capture pipeline); texts that are
/// already well-formed, the usual case, are only checked.
KESTRO_API void repairUTF8(RequestTypeLog& record);
KESTRO_API void repairUTF8(RequestTypeEvent& record);
KESTRO_API void repairUTF8(RequestTypeRequest& record);
/// Every string and object key inside a JSON value (an event's payload).
KESTRO_API void repairUTF8(boost::json::value& value);
KESTRO_API void repairUTF8(JSONDictionary& object);

/// The last path component: the text after the last "/", a trailing "/" ignored; the whole
/// text if there is no "/".
KESTRO_API std::string lastPathComponent(std::string_view path);

}  // namespace kestro
