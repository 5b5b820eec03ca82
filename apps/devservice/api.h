#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "devservice/device_links.h"
#include "devservice/options.h"
#include "devservice/store.h"

namespace kestro::devservice {

using Request = boost::beast::http::request<boost::beast::http::string_body>;
using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// The answer to one request, and how to send it.
struct Reply {
    Response response;
    /// Wait this long before answering (the slow sample endpoint).
    std::chrono::milliseconds delay{0};
    /// A short remark for the request's console line (the error given, the device concerned).
    std::string note;
};

/// A WebSocket link request that passed its checks.
struct LinkRequest {
    std::string deviceId;
    std::string keyKind;
};

/// The six actions a device understands.
inline constexpr const char* kActions[] = {"enable_mock_request", "disable_mock_request",
                                           "open_kestro_sheet",   "enable_break_point",
                                           "disable_break_point", "send_ping"};

/// Builds the text frame a device decodes: {"action": ..., "payload": text or null}.
std::string commandFrame(std::string_view action, const std::optional<std::string>& payload);

/// Every HTTP endpoint of the service: the SDK's uploads (/v1/...), the control API (/api/...)
/// and the sample API (/sample/...). Stateless apart from the store and the link registry it
/// is given, which outlive it; safe to call from several threads at once.
class ApiRouter {
  public:
    ApiRouter(const DevServiceOptions& options, DevStore& store, DeviceLinks& links);

    /// Answers one complete request.
    Reply route(const Request& request) const;

    /// Checks a WebSocket upgrade request: "api-key" of the right form and a non-empty
    /// "device-id" in its query. Gives the link's parameters, or the error reply to send.
    std::variant<LinkRequest, Reply> checkLink(const Request& request) const;

    /// A JSON error reply: {"error": message}.
    static Reply error(unsigned status, std::string message, unsigned version = 11);

  private:
    Reply upload(const Request& request, bool device) const;
    Reply control(const Request& request, std::string_view path) const;
    Reply sample(const Request& request, std::string_view path) const;
    Reply command(const Request& request, const std::string& deviceId) const;
    boost::json::object deviceJSON(const DeviceRow& row) const;

    DevServiceOptions options_;
    DevStore& store_;
    DeviceLinks& links_;
    std::chrono::steady_clock::time_point started_;
};

/// Seconds since 1970 now, as the records write points in time.
double nowSeconds();

/// The request target with the API key's secret part hidden, for console lines.
std::string redactTarget(std::string_view target);

}  // namespace kestro::devservice
