#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestro::test {

/// A loopback WebSocket server for tests, on Boost.Beast, listening on 127.0.0.1 only.
///
/// The first start() binds port 0 (the system picks a free port); later start() calls after a
/// stop() bind the same port again, so a client can find the server "back" where it was.
/// Plain ws by default; with Options::tls it speaks wss with a self-signed certificate made at
/// construction for "127.0.0.1" and "localhost" (caCertificatePem() gives it to the client so
/// that the client can trust it).
///
/// What it records, readable at any time from any thread:
///   - targets(): the request target ("/path?query") of every upgrade request, accepted or not;
///   - texts(): every text frame received from any client, in arrival order;
///   - closeCodes(): the close code of every close frame a client sent;
///   - accepted() / openSessions(): upgrades accepted so far / sessions still open.
///
/// What it can be told to do (any thread; each takes effect on the server's own thread soon
/// after the call returns; wait for its effect with waitUntil):
///   - sendText / sendBinary to every open session;
///   - setAnswerPings(false): every session stops reading from its socket, so pings stay
///     unanswered (and nothing else is read either) until setAnswerPings(true);
///   - setRefuseUpgrades(true): upgrade requests get "403 Forbidden" and the socket is closed;
///   - closeAll(code): a close handshake with that code on every open session;
///   - stop(): closes the listener and drops every socket at once (like a crashed server).
///
/// All I/O runs on one thread owned by the server; the destructor stops and joins it.
class WsServer {
  public:
    struct Options {
        bool tls = false;
    };

    WsServer();
    explicit WsServer(Options options);
    ~WsServer();
    WsServer(const WsServer&) = delete;
    WsServer& operator=(const WsServer&) = delete;

    /// Starts listening; returns false if the port could not be bound. Idempotent.
    bool start();
    /// Stops listening and drops every connection; waits for the server thread to finish.
    void stop();
    bool running() const;

    std::uint16_t port() const;
    /// "ws://127.0.0.1:<port>" or "wss://127.0.0.1:<port>", no trailing slash.
    std::string url() const;
    /// The PEM text of the self-signed certificate (empty without TLS).
    std::string caCertificatePem() const;

    std::vector<std::string> targets() const;
    std::vector<std::string> texts() const;
    std::vector<int> closeCodes() const;
    std::size_t accepted() const;
    std::size_t openSessions() const;

    void sendText(const std::string& text);
    void sendBinary(const std::string& bytes);
    void setAnswerPings(bool answer);
    void setRefuseUpgrades(bool refuse);
    void closeAll(int code);

    struct State;

  private:
    std::shared_ptr<State> state_;
};

}  // namespace kestro::test
