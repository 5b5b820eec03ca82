#include "kestro/export/har.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include "kestro/core/config.h"
#include "kestro/core/console.h"
#include "kestro/export/internal/exchange_body.h"

namespace kestro {

namespace {

using boost::json::array;
using boost::json::object;
using exporting::internal::BodyForm;
using exporting::internal::headerValue;

// A phase as HAR writes it: the integer -1 when it did not happen, else milliseconds.
boost::json::value phase(double value) {
    if (value < 0) return -1;
    return value;
}

// Milliseconds to the microsecond: enough for any phase, and short in the file.
double ms(double value) { return std::round(value * 1000.0) / 1000.0; }

array headerList(const TextMap& headers) {
    array out;
    for (const auto& [name, value] : headers)
        out.push_back(object{{"name", name}, {"value", value}});
    return out;
}

// The URL as a valid URI, as HAR requires: every byte that may not stand where it is (the "<"
// and ">" of a redacted query item, a blank, a non-ASCII character) percent-encoded; "[" and
// "]" may stand only in the host, "#" only once, "%" only before two hex digits.
std::string uriText(std::string_view url) {
    static constexpr std::string_view kKept =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!$&'()*+,;=:@/?";
    const auto hex = [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; };
    std::size_t authorityEnd = 0;
    const std::size_t colon = url.find("://");
    const bool scheme = colon != std::string_view::npos && colon > 0 &&
                        std::isalpha(static_cast<unsigned char>(url[0])) &&
                        url.substr(0, colon).find_first_not_of(
                            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+.-") ==
                            std::string_view::npos;
    if (scheme) authorityEnd = std::min(url.find_first_of("/?#", colon + 3), url.size());
    std::string out;
    out.reserve(url.size());
    bool fragment = false;
    for (std::size_t i = 0; i < url.size(); ++i) {
        const char c = url[i];
        const bool keep = kKept.find(c) != std::string_view::npos ||
                          (c == '%' && i + 2 < url.size() && hex(url[i + 1]) && hex(url[i + 2])) ||
                          ((c == '[' || c == ']') && i < authorityEnd) || (c == '#' && !fragment);
        if (c == '#') fragment = true;
        if (keep) {
            out += c;
        } else {
            static constexpr char kDigits[] = "0123456789ABCDEF";
            const auto b = static_cast<unsigned char>(c);
            out += '%';
            out += kDigits[b >> 4];
            out += kDigits[b & 15];
        }
    }
    return out;
}

// The URL's query items, decoded ('+' as a space, as a form would send it), in order.
array queryString(std::string_view url) {
    array out;
    const auto parsed = boost::urls::parse_uri_reference(url);
    if (!parsed) return out;
    for (const auto& param : parsed->params()) {
        out.push_back(object{{"name", param.key}, {"value", param.has_value ? param.value : ""}});
    }
    return out;
}

std::string cutComment(std::int64_t totalBytes) {
    return "truncated: " + std::to_string(totalBytes) + " bytes in all";
}

object harRequest(const RequestTypeRequestDetailsRequest& request) {
    const BodyForm body = exporting::internal::requestBody(request);
    const std::int64_t size = request.bodyTotalBytes.value_or(body.size);
    const std::string url = uriText(request.url);
    object out{{"method", request.method.empty() ? "GET" : request.method},
               {"url", url},
               {"httpVersion", "HTTP/1.1"},
               {"cookies", array{}},
               {"headers", headerList(request.headers)},
               {"queryString", queryString(url)},
               {"headersSize", -1},
               {"bodySize", size}};
    if (!request.body.empty()) {
        // postData has no encoding: a body held as base64 is given as that text, and says so.
        object postData{{"mimeType", headerValue(request.headers, "Content-Type").value_or("")},
                        {"text", request.body}};
        std::string comment;
        if (body.base64) comment = "base64 of the body's bytes";
        if (request.bodyTotalBytes)
            comment += (comment.empty() ? "" : "; ") + cutComment(*request.bodyTotalBytes);
        if (!comment.empty()) postData.emplace("comment", comment);
        out.emplace("postData", std::move(postData));
    }
    return out;
}

object harResponse(const RequestTypeRequestDetailsResponse& response) {
    const BodyForm body = exporting::internal::responseBody(response);
    const std::int64_t size = response.bodyTotalBytes.value_or(body.size);
    object content{{"size", size},
                   {"mimeType", headerValue(response.headers, "Content-Type").value_or("")},
                   {"text", response.body}};
    if (body.base64) content.emplace("encoding", "base64");
    if (response.bodyTotalBytes) content.emplace("comment", cutComment(*response.bodyTotalBytes));
    return object{{"status", response.statusCode},
                  {"statusText", ""},
                  {"httpVersion", "HTTP/1.1"},
                  {"cookies", array{}},
                  {"headers", headerList(response.headers)},
                  {"content", std::move(content)},
                  {"redirectURL", headerValue(response.headers, "Location").value_or("")},
                  {"headersSize", -1},
                  {"bodySize", size}};
}

object awaitedResponse() {
    return object{{"status", 0},
                  {"statusText", ""},
                  {"httpVersion", "HTTP/1.1"},
                  {"cookies", array{}},
                  {"headers", array{}},
                  {"content", object{{"size", 0}, {"mimeType", ""}}},
                  {"redirectURL", ""},
                  {"headersSize", -1},
                  {"bodySize", -1}};
}

// HAR timings: -1 for a phase that did not happen in this exchange (no lookup or connect on a
// reused connection, no TLS over plain HTTP), connect includes ssl, and the entry's time is the
// sum of every phase but ssl that is not -1.
struct Timings {
    object value;
    double time = 0;
};

Timings harTimings(const RequestTypeRequestDetails& details) {
    const auto& response = details.response;
    if (response && response->timings) {
        const RequestTypeRequestTimings& t = *response->timings;
        const double dns = t.nameLookup > 0 ? ms(t.nameLookup) : -1;
        const double ssl = t.tls > 0 ? ms(t.tls) : -1;
        const double connect = t.connect + t.tls > 0 ? ms(t.connect) + std::max(ssl, 0.0) : -1;
        const double wait = ms(std::max(t.firstByte, 0.0));
        const double receive = ms(std::max(t.transfer, 0.0));
        return {object{{"blocked", -1},
                       {"dns", phase(dns)},
                       {"connect", phase(connect)},
                       {"ssl", phase(ssl)},
                       {"send", 0},
                       {"wait", wait},
                       {"receive", receive}},
                std::max(dns, 0.0) + std::max(connect, 0.0) + wait + receive};
    }
    // Not measured (a mocked answer, an older record, an answer still awaited): the whole span
    // from the request's start to the answer counts as waiting.
    double span = 0;
    if (response && details.request) {
        span = ms(std::chrono::duration<double, std::milli>(response->receivedAt -
                                                            details.request->startedAt)
                      .count());
        if (!(span > 0)) span = 0;  // a clock that jumped back, or NaN
    }
    return {object{{"blocked", -1},
                   {"dns", -1},
                   {"connect", -1},
                   {"ssl", -1},
                   {"send", 0},
                   {"wait", span},
                   {"receive", 0}},
            span};
}

object harEntry(const RequestTypeRequest& exchange) {
    const RequestTypeRequestDetails& details = exchange.details;
    const TimePoint started = details.request ? details.request->startedAt : exchange.createdAt;
    Timings timings = harTimings(details);
    const bool mocked =
        details.response && headerValue(details.response->headers, "Kestro-Intercepted") == "true";
    return object{
        {"startedDateTime", iso8601WithMilliseconds(started)},
        {"time", timings.time},
        {"request", details.request ? harRequest(*details.request)
                                    : harRequest(RequestTypeRequestDetailsRequest{})},
        {"response", details.response ? harResponse(*details.response) : awaitedResponse()},
        {"cache", object{}},
        {"timings", std::move(timings.value)},
        {"_kestroId", exchange.id},
        {"_mocked", mocked},
        {"_waiting", !details.response.has_value()},
    };
}

std::string fileStamp(TimePoint now) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &local);
    return text;
}

bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

}  // namespace

std::string harDocument(std::span<const RequestTypeRequest> exchanges) {
    array entries;
    entries.reserve(exchanges.size());
    for (const RequestTypeRequest& exchange : exchanges) entries.push_back(harEntry(exchange));
    const object document{
        {"log", object{{"version", "1.2"},
                       {"creator", object{{"name", "Kestro"}, {"version", SDK_VERSION}}},
                       {"entries", std::move(entries)}}}};
    return boost::json::serialize(document);
}

std::optional<std::filesystem::path> writeHARFile(std::span<const RequestTypeRequest> exchanges,
                                                  const std::filesystem::path& directory) {
    std::string text;
    try {
        text = harDocument(exchanges);
    } catch (const std::exception& e) {
        printI(std::string("❌ The HAR file could not be made: ") + e.what(), LogLevel::error);
        return std::nullopt;
    }
    const std::string stem = "kestro-" + fileStamp(std::chrono::system_clock::now());
    int fd = -1;
    std::filesystem::path path;
    int error = 0;
    // O_EXCL: two exports in the same second never write over each other.
    for (int n = 1; n <= 100 && fd < 0; ++n) {
        path = directory / (stem + (n == 1 ? "" : "-" + std::to_string(n)) + ".har");
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        error = fd < 0 ? errno : 0;
        if (fd < 0 && error != EEXIST) break;
    }
    if (fd < 0) {
        printI("❌ The HAR file could not be written in " + directory.string() + ": " +
                   std::strerror(error),
               LogLevel::error);
        return std::nullopt;
    }
    const bool written = writeAll(fd, text);
    error = errno;
    if (::close(fd) != 0 || !written) {
        if (written) error = errno;
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        printI("❌ The HAR file " + path.string() + " could not be written: " + std::strerror(error),
               LogLevel::error);
        return std::nullopt;
    }
    return path;
}

}  // namespace kestro
