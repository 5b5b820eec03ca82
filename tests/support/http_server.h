#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/certificate_authority.h"

namespace kestro::test {

/// One request as the test server received it.
struct ReceivedRequest {
    std::string method;
    std::string target;                                        // path and query, as sent
    std::vector<std::pair<std::string, std::string>> headers;  // in order, names as sent
    std::string body;
    std::uint64_t connection = 0;  // 1, 2, ... in order of accepted connections
    bool tls = false;

    /// The first field of that name, compared case-insensitively.
    std::optional<std::string> header(std::string_view name) const;
};

/// The byte at offset i of a generated body (HttpReply::generatedBodySize): a fixed pattern
/// that is not periodic on any power-of-two boundary, so a lost or repeated block shows.
inline std::uint8_t patternByte(std::uint64_t i) {
    return static_cast<std::uint8_t>((i * 7 + (i >> 13) * 3) % 251);
}

/// Writes patternByte(offset + k) for k < len to out, without a division per byte.
inline void fillPattern(std::uint64_t offset, char* out, std::size_t len) {
    std::uint32_t v = patternByte(offset);
    for (std::size_t k = 0; k < len; ++k) {
        out[k] = static_cast<char>(v);
        const std::uint64_t next = offset + k + 1;
        v += 7;
        if ((next & 8191) == 0) v += 3;
        while (v >= 251) v -= 251;
    }
}

/// What the server answers to one request. The default is "200 OK" with an empty body.
struct HttpReply {
    enum class Fault {
        none,
        neverAnswer,         // keep the connection open and silent until the server stops
        closeWithoutAnswer,  // close the connection without writing anything
        closeMidBody,        // announce the whole body, send half of it, close
        invalidStatusLine,   // answer with a status line that is not HTTP, then close
    };

    int status = 200;
    /// Fields written as given, in order. Content-Length or Transfer-Encoding are added by
    /// the server; do not set them.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    /// When non-zero, the body is this many bytes of patternByte(i), produced while writing
    /// (never held whole in memory), and `body` is ignored.
    std::uint64_t generatedBodySize = 0;
    /// Send the body with chunked transfer coding (pieces of at most 4096 bytes).
    bool chunked = false;
    /// Compress the body with gzip and add "Content-Encoding: gzip".
    bool gzip = false;
    /// Close the connection after this answer (otherwise HTTP/1.1 keep-alive applies).
    bool closeConnection = false;
    /// Wait this long before answering.
    std::chrono::milliseconds delay{0};
    /// Wait this long before each piece of the body after the first (pieces of 4096 bytes when
    /// chunked, 256 KiB otherwise): a slow but steady answer.
    std::chrono::milliseconds pieceInterval{0};
    Fault fault = Fault::none;

    static HttpReply text(int status, std::string body, std::string contentType = "text/plain");
};

/// A loopback HTTP/1.1 server for tests, on Boost.Beast: listens on 127.0.0.1 with a port
/// chosen by the kernel, plain HTTP or HTTPS (a self-signed certificate for 127.0.0.1 and
/// localhost, made when the server starts; trust it through certificatePem()). Every request
/// is recorded, then answered with what the handler returns; the handler may ask for any
/// status, header fields and body, chunked or gzip coding, a delay, or one of the faults above.
///
/// Threads: the server runs on one thread of its own; the handler is called there, one request
/// at a time, and must not block (use HttpReply::delay to answer late). All members may be
/// called from any thread. stop() (or the destructor) closes every connection and joins the
/// thread; requests still waiting for a delayed or withheld answer see their connection close.
class HttpServer {
  public:
    using Handler = std::function<HttpReply(const ReceivedRequest&)>;
    enum class Scheme { http, https };

    /// Starts listening at once. Without a handler every request is answered "200 OK", empty.
    explicit HttpServer(Handler handler = {}, Scheme scheme = Scheme::http);
    /// Serves HTTPS with the given certificate and key (one a test's CertificateAuthority
    /// issued, say).
    HttpServer(Handler handler, const TlsIdentity& identity);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    void stop();
    void setHandler(Handler handler);

    std::uint16_t port() const { return port_; }
    /// "http://127.0.0.1:<port>" + path (or "https://...").
    std::string url(std::string_view path = "/") const;
    /// "https://localhost:<port>" + path, for checks of the certificate's host name.
    std::string localhostUrl(std::string_view path = "/") const;
    /// The PEM of the server's certificate (https only; empty for http).
    const std::string& certificatePem() const { return certificatePem_; }

    /// The requests received while they were being kept (the default), oldest first.
    std::vector<ReceivedRequest> requests() const;
    /// Every request received, kept or not.
    std::size_t requestCount() const;
    /// Benchmarks that send many requests only count them: a server that keeps each one grows
    /// without bound and spends its time copying them.
    void keepRequests(bool keep);
    /// Connections accepted so far.
    std::size_t connectionCount() const { return connections_.load(); }
    /// Waits until at least n requests were received or the deadline passes.
    bool waitForRequests(std::size_t n,
                         std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    struct Impl;

  private:
    friend struct Impl;
    void start(const TlsIdentity* identity);
    std::unique_ptr<Impl> impl_;
    std::uint16_t port_ = 0;
    Scheme scheme_;
    std::string certificatePem_;
    std::atomic<std::size_t> connections_{0};
};

}  // namespace kestro::test
