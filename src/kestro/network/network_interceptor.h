#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "kestro/core/export.h"
#include "kestro/network/breakpoint_gate.h"
#include "kestro/network/intercepted.h"
#include "kestro/network/mock_cache.h"
#include "kestro/network/url_protocol.h"
#include "kestro/network/url_session.h"

namespace kestro {

/// Captures the host application's HTTP traffic on the shared URL session.
///
/// While intercepting, a handler class is registered with the URL-loading layer. For every
/// request it admits (not the SDK's own uploads, which carry "SkipIntercept", and not its own
/// forwarded copies, which carry "Intercepted") it reports the start to the callback under a
/// new request id, holds the request while breakpoints are on, answers it from a matching
/// mock rule or loads it for real on a private session that consults no handlers, hands the
/// response to the application unchanged, and reports the response under the same id.
///
/// Ownership: the facade owns one interceptor for the process; tests make their own. Requests
/// in flight keep the interceptor's shared state alive, so destroying the interceptor while
/// requests run is safe (their reports then go to nobody).
///
/// Thread safety: every member may be called from any thread. The callback is called from
/// workers of the global executor, possibly concurrently for different requests; the start
/// report of a request always comes before its response report.
class KESTRO_API NetworkInterceptor {
  public:
    using Callback = std::function<void(const InterceptedRequestWrapper&)>;

    /// How long a request may wait at a breakpoint before it fails with a time-out error (it
    /// fails sooner at its own time-out, when that comes first).
    static constexpr std::chrono::seconds kBreakpointTimeout{300};

    /// Answers mocked requests from `mockCache`, which the interceptor shares.
    explicit NetworkInterceptor(std::shared_ptr<MockCache> mockCache);
    ~NetworkInterceptor();
    NetworkInterceptor(const NetworkInterceptor&) = delete;
    NetworkInterceptor& operator=(const NetworkInterceptor&) = delete;

    /// Registers the handler class with the shared session, then installs `handler`.
    void startIntercepting(Callback handler);
    /// Unregisters the handler class, then removes the callback and waits (up to
    /// 10 s) for reports it is making to return: afterwards it is never
    /// called again. Requests already running finish normally; their reports go to nobody.
    void stopIntercepting();
    bool isIntercepting() const;

    /// Whether a capture callback is installed.
    bool hasCallback() const;
    /// Replaces the capture callback (an empty one removes it); once this returns, the
    /// previous callback is no longer running and is never called again.
    void setCallback(Callback callback);

    /// The breakpoint switch: while on, every newly started request waits at the gate. It is
    /// read once per request, when the request starts.
    bool isBreakPointEnabled() const;
    void setBreakPointEnabled(bool enabled);
    /// The gate held requests wait at. release() lets every held request go on; with none
    /// held it keeps one spare permit for the next request that would be held.
    BreakpointGate& semaphore();

    /// Looks the request URL up in the mock cache: the rule found (if any) and whether one was.
    std::pair<std::optional<MockCacheEntry>, bool> shouldBeMocked(const URLRequest& request) const;

    /// The mock cache the interceptor answers from.
    MockCache& mockCache();

    /// The size above which a captured body (request or response) is cut: the reports carry
    /// its first bytes and its whole size. 0 or less: no limit. Applies to requests started
    /// after the call; the application's request and answer are never cut.
    void setMaxBodyBytes(std::int64_t maxBodyBytes);
    std::int64_t maxBodyBytes() const;

    /// Replaces the time a held request waits before it gives up (tests shorten it).
    void setBreakpointTimeout(std::chrono::steady_clock::duration timeout);

    /// The class registered with the URL-loading layer (for tests that put it in a session's
    /// configuration of their own).
    std::shared_ptr<const URLProtocolClass> protocolClass() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

/// The per-request handler of the interceptor.
class KESTRO_API NetworkInterceptorRequest : public URLProtocol {
  public:
    /// The admission test: a request carrying "Intercepted" (any value) is declined; one
    /// carrying a boolean "SkipIntercept" is admitted exactly when it is false; any other
    /// request is admitted.
    static bool canInit(const URLRequest& request);

    NetworkInterceptorRequest(URLRequest request, std::shared_ptr<URLProtocolClient> client,
                              std::shared_ptr<NetworkInterceptor::State> state);
    ~NetworkInterceptorRequest() override;

    void startLoading() override;
    /// Cancels what the request is doing: a hold at the breakpoint or the private load.
    void stopLoading() override;

    /// Header fields as a plain text-to-text dictionary.
    static std::map<std::string, std::string> headersToMap(const HTTPHeaderFields& headers);

  private:
    struct Flow;
    std::shared_ptr<Flow> flow_;
};

}  // namespace kestro
