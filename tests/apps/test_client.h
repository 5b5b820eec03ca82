#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>

namespace kestro::test {

/// A fresh directory under the system's temporary directory, removed with its contents.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

struct HttpResult {
    unsigned status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    /// The body parsed as JSON (null when it is not JSON).
    boost::json::value json() const;
    std::string header(const std::string& lowerName) const;
};

/// One HTTP/1.1 exchange with a loopback server over a fresh connection. Every socket
/// operation has a deadline, so a server that never answers fails the test instead of hanging.
HttpResult httpRequest(std::uint16_t port, const std::string& method, const std::string& target,
                       const std::string& body = {},
                       const std::map<std::string, std::string>& headers = {});

/// The SDK's upload: POST with "Api-Key" and "Content-Type: application/json".
HttpResult upload(std::uint16_t port, const std::string& path, const std::string& body,
                  const std::string& apiKey);

/// Writes raw bytes on a fresh connection and reads whatever comes back until the server
/// closes or the deadline passes.
std::string rawExchange(std::uint16_t port, const std::string& bytes, bool closeAfterWrite = false);

/// A WebSocket client of a loopback server, with read deadlines.
class WsClient {
  public:
    /// Connects and performs the handshake for `target` with the header fields given;
    /// `status` receives the HTTP status of a refused handshake (0 when it succeeded or failed
    /// otherwise).
    bool connect(std::uint16_t port, const std::string& target, unsigned* status = nullptr,
                 const std::map<std::string, std::string>& headers = {});
    /// A small receive buffer for the next connect: a client that reads slowly then pushes
    /// back on the server at once.
    void setReceiveBuffer(int bytes) { receiveBuffer_ = bytes; }
    /// The handshake's answer.
    const boost::beast::websocket::response_type& response() const { return response_; }
    /// Reads one message; nothing when the connection closed or the deadline passed.
    std::optional<std::string> read(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    void write(const std::string& text);
    /// Writes raw bytes on the underlying socket (to send a broken frame).
    void writeRaw(const std::string& bytes);
    /// Sends a ping; its pong is counted by pongs() during the next read().
    void ping();
    int pongs() const { return pongs_; }
    /// The close code the server sent, once read() has seen the close.
    int closeCode() const;
    boost::asio::ip::tcp::socket& socket() { return ws_->next_layer(); }

  private:
    boost::asio::io_context ioc_;
    std::optional<boost::beast::websocket::stream<boost::asio::ip::tcp::socket>> ws_;
    boost::beast::flat_buffer buffer_;
    boost::beast::websocket::response_type response_;
    int receiveBuffer_ = 0;
    int pongs_ = 0;
};

/// A page following the service's push channel: it offers the token as a subprotocol and
/// reads the messages one at a time (a frame may hold several, one per line).
class LivePage {
  public:
    bool open(std::uint16_t port, const std::string& token, unsigned* status = nullptr,
              std::map<std::string, std::string> headers = {});
    /// The next message; nothing when the channel closed or the deadline passed.
    std::optional<boost::json::object> next(
        std::chrono::milliseconds timeout = std::chrono::seconds(5));
    /// Reads until a message matches, and gives it; nothing when none did in time.
    std::optional<boost::json::object> waitFor(
        const std::function<bool(const boost::json::object&)>& match,
        std::chrono::milliseconds timeout = std::chrono::seconds(5));
    WsClient& client() { return ws_; }

  private:
    WsClient ws_;
    std::deque<boost::json::object> pending_;
};

/// A message's "type", and for item and device messages their "change".
std::string messageType(const boost::json::object& message);

/// A self-signed certificate for 127.0.0.1 and localhost that is its own authority, and its
/// key, written as PEM files into `dir`.
struct CertificateFiles {
    std::filesystem::path cert;
    std::filesystem::path key;
};
CertificateFiles writeCertificate(const std::filesystem::path& dir);

/// Sets receive and send time-outs on a socket.
void setTimeouts(boost::asio::ip::tcp::socket& socket, std::chrono::milliseconds timeout);

}  // namespace kestro::test
