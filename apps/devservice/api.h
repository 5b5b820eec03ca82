#pragma once

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "devservice/context.h"

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

/// A device link request that passed its checks; the device is claimed for its key.
struct LinkRequest {
    std::string deviceId;
    Writer writer;
};

/// Every HTTP endpoint of the service: the SDK's uploads (/v1/...), the dashboard API
/// (/api/...), the sample API (/sample/...), and the checks of WebSocket upgrades. It holds no
/// state of its own; safe to call from several threads at once.
class ApiRouter {
  public:
    explicit ApiRouter(Context& context) : context_(context) {}

    /// Answers one complete request that is not a WebSocket upgrade.
    Reply route(const Request& request) const;

    /// A refusal for a request from another origin (a browser on another page), or nothing.
    std::optional<Reply> checkOrigin(const Request& request) const;

    /// Whether an upgrade request is for the push channel rather than a device link.
    static bool isLiveChannel(const Request& request);
    /// Checks an upgrade to the push channel: the token among the offered subprotocols.
    std::optional<Reply> checkLive(const Request& request) const;
    /// Checks a device link upgrade: a known "api-key" and a non-empty "device-id" of that key
    /// in its query. Gives the link's parameters, or the error reply to send.
    std::variant<LinkRequest, Reply> checkLink(const Request& request) const;

    /// A JSON error reply: {"error": message}.
    static Reply error(unsigned status, std::string message, unsigned version = 11);

  private:
    std::variant<Writer, Reply> checkKey(std::optional<std::string_view> key,
                                         unsigned version) const;
    std::optional<Reply> checkToken(const Request& request) const;
    Reply upload(const Request& request, bool device) const;
    Reply control(const Request& request) const;
    Reply health(const Request& request) const;
    Reply listItems(const Request& request) const;
    Reply itemDetail(const Request& request, const ItemRow& row) const;
    Reply keys(const Request& request) const;
    Reply steering(const Request& request) const;
    Reply command(const Request& request, const std::string& deviceId) const;
    Reply rules(const Request& request, const std::string& deviceId) const;
    Reply sample(const Request& request) const;
    boost::json::object fullDevice(const DeviceRow& row) const;

    Context& context_;
};

/// The request target with the API key's secret part hidden, for console lines.
std::string redactTarget(std::string_view target);

}  // namespace kestro::devservice
