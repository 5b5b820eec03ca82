#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kestro/core/export.h"
#include "kestro/network/url_protocol.h"
#include "kestro/network/url_request.h"

namespace kestro {

namespace network::internal {
struct TaskCore;
struct SessionState;
struct TaskAccess;
}  // namespace network::internal

/// How a session loads. A plain value, copied into the session when it is made.
struct KESTRO_API URLSessionConfiguration {
    static URLSessionConfiguration defaultSessionConfiguration() { return {}; }

    /// Longest wait for the next byte of a transfer (connecting included), for requests that
    /// carry no timeoutInterval of their own. Both time-outs apply whether the network or a
    /// protocol handler loads the request (for a handler, its client's calls are the bytes);
    /// a task past either fails with URLErrorCode::timedOut.
    std::chrono::milliseconds timeoutIntervalForRequest{std::chrono::seconds(60)};
    /// Longest time a whole task may take, from resume() on.
    std::chrono::milliseconds timeoutIntervalForResource{std::chrono::hours(24 * 7)};
    /// Handler classes this session consults for each request, first match wins. Empty: no
    /// handler is consulted and every request goes to the network.
    std::vector<std::shared_ptr<const URLProtocolClass>> protocolClasses;
    /// Largest response body a task accepts (after content decoding). A longer body fails the
    /// task with URLErrorCode::dataLengthExceedsMaximum as soon as the limit is passed (at once
    /// when a declared Content-Length is already larger), so no response can exhaust memory.
    std::uint64_t maximumResponseBodySize = 512ull * 1024 * 1024;
    /// Redirects followed before a task fails with httpTooManyRedirects. POST becomes GET on
    /// 301, 302 and 303, as browsers do.
    int maximumRedirects = 20;
    /// Header fields added to every request that does not set them itself.
    HTTPHeaderFields httpAdditionalHeaders;
    /// Extra certificate authorities to trust for HTTPS, besides the system's trust store: a
    /// PEM file, and/or PEM text. A file that cannot be read gives a console line and is
    /// ignored. The system's trust store is the bundle file and the certificate folder named by
    /// SSL_CERT_FILE and SSL_CERT_DIR when they are set, otherwise libcurl's built-in ones,
    /// as they are when the session is made.
    std::optional<std::string> additionalTrustedCAFile;
    std::optional<std::string> additionalTrustedCAPEM;
};

/// One load of one request. Made suspended by URLSession::dataTask; resume() starts it.
/// The completion runs exactly once: with the body bytes and the response on success, or with
/// an error (and the response head, when one had arrived) on failure. A cancelled task
/// completes with URLErrorCode::cancelled.
///
/// Threads: every member may be called from any thread and returns at once. The completion
/// runs on one of the layer's two loading threads (a lone request, so that its result costs no
/// further thread switch) or on a worker of the global executor; never inside resume() or
/// cancel(), and never on a thread of the application. It may start other requests and may
/// wait: a completion that keeps a loading thread for more than a few milliseconds hands the
/// other transfers to the second loading thread, so they are never held up for longer.
///
/// Ownership: a running task keeps itself alive until it has completed; the caller may drop
/// its handle right after resume().
class KESTRO_API URLSessionDataTask {
  public:
    enum class State : std::uint8_t { suspended, running, canceling, completed };
    using CompletionHandler =
        std::function<void(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                           std::optional<URLError> error)>;

    ~URLSessionDataTask();
    URLSessionDataTask(const URLSessionDataTask&) = delete;
    URLSessionDataTask& operator=(const URLSessionDataTask&) = delete;

    /// Starts the task. A second call does nothing.
    void resume();
    /// Ends the task with URLErrorCode::cancelled, unless it has already completed. A
    /// transfer in progress is dropped; a protocol handler loading the request is told
    /// stopLoading().
    void cancel();

    State state() const;
    std::uint64_t taskIdentifier() const;
    const URLRequest& originalRequest() const;

  private:
    friend class URLSession;
    friend struct network::internal::TaskAccess;
    explicit URLSessionDataTask(std::shared_ptr<network::internal::TaskCore> core);
    std::shared_ptr<network::internal::TaskCore> core_;
};

/// What a streamed task hands on while its answer arrives (see URLSession::streamingTask).
struct KESTRO_API URLSessionStreamHandlers {
    /// The final response head, once, before the first bytes of its body; for an empty body,
    /// just before the completion. May be empty.
    std::function<void(const HTTPURLResponse&)> response;
    /// The body bytes (after content decoding), in order, in pieces of any size.
    std::function<void(std::string_view)> data;
};

/// A source of data tasks with one configuration.
///
/// Every session's transfers run on one shared loop (libcurl's multi interface, driven by one
/// of two loading threads at a time): connections are kept alive and reused between transfers,
/// HTTP/2 is used where the server offers it over TLS, HTTPS is verified against the system's
/// trust store, and gzip / brotli bodies are decoded. The shared session consults the handler
/// classes registered with URLProtocol::registerClass; a session made from a configuration
/// consults only the classes listed in it.
///
/// A session is cheap to make and may be destroyed while its tasks run: they still complete.
/// Thread safety: every member may be called from any thread.
class KESTRO_API URLSession {
  public:
    using CompletionHandler = URLSessionDataTask::CompletionHandler;

    /// The process-wide session; lives for the whole process.
    static URLSession& shared();

    explicit URLSession(URLSessionConfiguration configuration =
                            URLSessionConfiguration::defaultSessionConfiguration());
    ~URLSession();
    URLSession(const URLSession&) = delete;
    URLSession& operator=(const URLSession&) = delete;

    const URLSessionConfiguration& configuration() const;

    /// A suspended task for the request; call resume() on it.
    std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request, CompletionHandler completion);
    std::shared_ptr<URLSessionDataTask> dataTask(std::string url, CompletionHandler completion);

    /// A suspended task whose answer is handed on as it arrives instead of being collected, for
    /// bodies of any size: the body goes to `handlers` and the completion gets an empty body
    /// (maximumResponseBodySize does not apply). The handlers run one call at a time, in order,
    /// on workers of the global executor (or on the thread of a protocol handler's client call),
    /// never while the layer holds a lock: they may start, cancel and wait for other tasks.
    /// The completion comes after the last of them; after cancel() none is called again.
    /// While more than kStreamBufferBytes wait for a slow handler, the transfer is paused, so
    /// the bytes held for the task stay within that bound.
    std::shared_ptr<URLSessionDataTask> streamingTask(URLRequest request,
                                                      URLSessionStreamHandlers handlers,
                                                      CompletionHandler completion);
    static constexpr std::size_t kStreamBufferBytes = 512 * 1024;

    /// Transfers currently held by the loop, for all sessions (diagnostics, tests).
    static std::size_t activeTransferCount();

  private:
    struct SharedTag {};
    URLSession(SharedTag);
    std::shared_ptr<const network::internal::SessionState> state_;
};

}  // namespace kestro
