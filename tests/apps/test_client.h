#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <cstdint>
#include <filesystem>
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
    int pongs_ = 0;
};

/// Sets receive and send time-outs on a socket.
void setTimeouts(boost::asio::ip::tcp::socket& socket, std::chrono::milliseconds timeout);

}  // namespace kestro::test
