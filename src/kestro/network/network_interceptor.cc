#include "kestro/network/network_interceptor.h"

#include <boost/url/parse.hpp>
#include <mutex>
#include <optional>

#include "kestro/core/capture_policy.h"
#include "kestro/core/console.h"
#include "kestro/core/handler_slot.h"
#include "kestro/core/uuid.h"
#include "kestro/network/body_text.h"
#include "kestro/network/internal/handler_tasks.h"
#include "kestro/network/internal/loading_loop.h"

namespace kestro {

namespace {

constexpr const char* kIntercepted = "Intercepted";
constexpr const char* kSkipIntercept = "SkipIntercept";
constexpr const char* kRequestIdProperty = "Kes-Tro-Request-ID";

// "Parses as a URL": an absolute URL with a scheme.
bool parsesAsURL(const std::string& text) {
    return !text.empty() && boost::urls::parse_absolute_uri(text).has_value();
}

std::string lowercased(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// A status the response head can carry: three digits, as on the wire.
bool isValidStatus(std::int64_t status) { return status >= 100 && status <= 999; }

}  // namespace

// What the interceptor shares with its handler objects. Requests in flight hold it, so it
// outlives an interceptor destroyed while they run.
struct NetworkInterceptor::State : std::enable_shared_from_this<NetworkInterceptor::State> {
    explicit State(std::shared_ptr<MockCache> cache)
        : mockCache(std::move(cache)), gate(BreakpointGate::create()) {}

    std::shared_ptr<MockCache> mockCache;
    std::shared_ptr<BreakpointGate> gate;
    HandlerSlot<Callback> callback{"network capture handler"};
    std::atomic<bool> breakPointEnabled{false};
    std::atomic<std::chrono::steady_clock::duration::rep> breakpointTimeout{
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(kBreakpointTimeout)
            .count()};
    std::atomic<bool> intercepting{false};
    std::atomic<std::int64_t> maxBodyBytes{kDefaultMaxBodyBytes};
    std::shared_ptr<const URLProtocolClass> protocolClass;
    // The private session of real loads: it consults no handler classes, so a forwarded copy
    // is never offered to the interceptor again. It sets no limit of its own: the forwarded
    // copy carries the application's idle time-out, and the application's task, which the
    // layer times whoever loads it, ends the private load at its resource time-out.
    std::shared_ptr<URLSession> privateSession;

    void report(const InterceptedRequestWrapper& wrapper) const {
        runReportingThrows("The network capture handler", [&] { callback.call(wrapper); });
    }

    std::pair<std::optional<MockCacheEntry>, bool> lookup(const URLRequest& request) const {
        auto entry = mockCache->getEntry(request.url.value_or(""));
        const bool found = entry.has_value();
        return {std::move(entry), found};
    }
};

namespace {

// The handler class as the registry sees it: made per interceptor, so that each handler
// object knows the interceptor state it reports to, and each interceptor's registration is
// its own (the registry knows a class by its class object).
class InterceptorProtocolClass final : public URLProtocolClass {
  public:
    explicit InterceptorProtocolClass(std::weak_ptr<NetworkInterceptor::State> state)
        : state_(std::move(state)) {}
    bool canInit(const URLRequest& request) const override {
        return NetworkInterceptorRequest::canInit(request);
    }
    URLRequest canonicalRequest(const URLRequest& request) const override { return request; }
    std::shared_ptr<URLProtocol> create(const URLRequest& request,
                                        std::shared_ptr<URLProtocolClient> client) const override {
        auto state = state_.lock();
        if (!state) return nullptr;
        return std::make_shared<NetworkInterceptorRequest>(request, std::move(client),
                                                           std::move(state));
    }
    // The handler's start builds the forwarded copy, looks up the rules and starts the private
    // load; the capture handler is never called on the resuming thread (see reportStart()).
    bool startsOnCallingThread() const override { return true; }

  private:
    std::weak_ptr<NetworkInterceptor::State> state_;
};

}  // namespace

NetworkInterceptor::NetworkInterceptor(std::shared_ptr<MockCache> mockCache)
    : state_(std::make_shared<State>(mockCache ? std::move(mockCache)
                                               : std::make_shared<MockCache>())) {
    state_->protocolClass = std::make_shared<InterceptorProtocolClass>(state_);
    URLSessionConfiguration config = URLSessionConfiguration::defaultSessionConfiguration();
    config.timeoutIntervalForResource = std::chrono::milliseconds::max();
    config.protocolClasses.clear();
    state_->privateSession = std::make_shared<URLSession>(std::move(config));
}

NetworkInterceptor::~NetworkInterceptor() {
    if (state_->intercepting.load()) stopIntercepting();
}

void NetworkInterceptor::startIntercepting(Callback handler) {
    URLProtocol::registerClass(state_->protocolClass);
    state_->intercepting.store(true);
    setCallback(std::move(handler));
}

void NetworkInterceptor::stopIntercepting() {
    URLProtocol::unregisterClass(*state_->protocolClass);
    state_->intercepting.store(false);
    state_->callback.store(nullptr);
}

bool NetworkInterceptor::isIntercepting() const { return state_->intercepting.load(); }

bool NetworkInterceptor::hasCallback() const { return state_->callback.installed(); }

void NetworkInterceptor::setCallback(Callback callback) {
    state_->callback.store(std::move(callback));
}

bool NetworkInterceptor::isBreakPointEnabled() const { return state_->breakPointEnabled.load(); }
void NetworkInterceptor::setBreakPointEnabled(bool enabled) {
    state_->breakPointEnabled.store(enabled);
}
BreakpointGate& NetworkInterceptor::semaphore() { return *state_->gate; }

std::pair<std::optional<MockCacheEntry>, bool> NetworkInterceptor::shouldBeMocked(
    const URLRequest& request) const {
    return state_->lookup(request);
}

MockCache& NetworkInterceptor::mockCache() { return *state_->mockCache; }

void NetworkInterceptor::setMaxBodyBytes(std::int64_t maxBodyBytes) {
    state_->maxBodyBytes.store(maxBodyBytes);
}
std::int64_t NetworkInterceptor::maxBodyBytes() const { return state_->maxBodyBytes.load(); }

void NetworkInterceptor::setBreakpointTimeout(std::chrono::steady_clock::duration timeout) {
    state_->breakpointTimeout.store(timeout.count());
}

std::shared_ptr<const URLProtocolClass> NetworkInterceptor::protocolClass() const {
    return state_->protocolClass;
}

// ---------------------------------------------------------------------------------------------

// One request's journey. Its steps run one after another (start, possibly a hold, then a mock
// answer or a private load), so the client's calls never overlap; the mutex only guards what
// stopLoading() may touch from another thread.
struct NetworkInterceptorRequest::Flow : std::enable_shared_from_this<Flow> {
    std::shared_ptr<NetworkInterceptor::State> state;
    std::shared_ptr<URLProtocolClient> client;
    // The handler object, kept alive by the flow until the request has ended (the client's
    // calls name it). A cycle by design, broken at every end of the request.
    std::shared_ptr<URLProtocol> handler;
    URLRequest copy;
    UUID requestId;
    // The URL the start report gave, repeated in the response report; and the capture limit,
    // read once when the request starts.
    std::optional<std::string> reportedURL;
    std::int64_t maxBodyBytes = 0;
    // The answer's first bytes as far as the capture keeps them, and its size so far.
    std::string capturedHead;
    std::int64_t bodyBytes = 0;

    std::mutex mutex;
    bool stopped = false;
    BreakpointGate::Ticket ticket;
    std::shared_ptr<URLSessionDataTask> task;
    // The start report has been posted and not yet made; a response report waits for it.
    bool startReportPending = false;
    std::optional<InterceptedRequestWrapper> responseReportWaiting;

    // The handler while the request is still going, else null.
    std::shared_ptr<URLProtocol> current() {
        std::lock_guard lock(mutex);
        return stopped ? nullptr : handler;
    }
    // The request has ended: let the handler go.
    void ended() {
        std::shared_ptr<URLProtocol> last;
        std::lock_guard lock(mutex);
        last = std::move(handler);
    }

    void start(const URLRequest& original) {
        if (!original.url) return;  // nothing to load: the request is left as it is

        // The forwarded copy: URL, method, body and header fields, and the application's idle
        // time-out (the layer gives a handler the session's when the request sets none).
        copy = URLRequest(*original.url, URLRequestCachePolicy::useProtocolCachePolicy,
                          original.timeoutInterval);
        copy.httpMethod = original.httpMethod.value_or("GET");
        copy.httpBody = original.httpBody;
        copy.allHTTPHeaderFields = original.allHTTPHeaderFields;

        requestId = UUID::random();
        const std::string method = *copy.httpMethod;
        printI("📝 Intercept Req: " + method + ":" + *copy.url, LogLevel::verbose);

        URLProtocol::setProperty(true, kIntercepted, copy);
        URLProtocol::setProperty(requestId.string(), kRequestIdProperty, copy);

        InterceptedRequestWrapper started;
        maxBodyBytes = state->maxBodyBytes.load();
        reportedURL = copy.url;
        InterceptedRequest::Copy reported{copy.url, copy.httpMethod, {}, std::nullopt};
        if (const auto& body = copy.httpBody) {
            // Only the first bytes of a body past the limit are copied into the report.
            if (maxBodyBytes > 0 && std::ssize(*body) > maxBodyBytes) {
                reported.body = body->substr(0, static_cast<std::size_t>(maxBodyBytes));
                reported.bodyTotalBytes = std::ssize(*body);
            } else {
                reported.body = body;
            }
        }
        reported.headers = NetworkInterceptorRequest::headersToMap(copy.allHTTPHeaderFields);
        started.request = InterceptedRequest{std::move(reported), std::chrono::system_clock::now()};
        started.requestId = requestId;
        reportStart(std::move(started));

        if (!state->breakPointEnabled.load()) return afterBreakpoint();

        printI("Waiting for breakpoint... " + copy.url.value_or("-"), LogLevel::verbose);
        const auto timeout = std::chrono::steady_clock::duration(state->breakpointTimeout.load());
        auto self = shared_from_this();
        auto ticket = state->gate->hold(
            [self](bool released) {
                auto handler = self->current();
                if (!handler) return;
                if (!released) {
                    self->client->didFailWithError(
                        *handler, URLError::make(URLErrorCode::timedOut,
                                                 "the request was held at a breakpoint too long"));
                    self->ended();
                    return;
                }
                printI("Continue after breakpoint...", LogLevel::verbose);
                self->afterBreakpoint();
            },
            timeout);
        std::lock_guard lock(mutex);
        this->ticket = ticket;
    }

    void afterBreakpoint() {
        auto [entry, mocked] = state->lookup(copy);
        const std::string method = copy.method();
        const std::string status =
            std::to_string(entry && entry->statusCode ? *entry->statusCode : 0);
        printI(std::string("⚡ Should mock: ") + (mocked ? "true" : "false") + " " + method + ":" +
                   copy.url.value_or("") + "  hasSkip: -" + status,
               LogLevel::verbose);
        if (mocked) {
            if (!entry->isMediaRequest()) return answerFromRule(*entry);
            // Media: load the rule's other URL for real. Without one, the request's own URL
            // is loaded; one that is not a URL leaves the copy without URL, and the load
            // fails as any request without URL does.
            if (entry->mockedUrl) {
                if (parsesAsURL(*entry->mockedUrl))
                    copy.url = *entry->mockedUrl;
                else
                    copy.url.reset();
            }
        }
        load();
    }

    void answerFromRule(const MockCacheEntry& entry) {
        auto handler = current();
        if (!handler) return;
        const std::int64_t status = entry.statusCode.value_or(200);
        HTTPHeaderFields headers;
        if (entry.headers)
            for (const auto& [name, value] : *entry.headers) headers[name] = value;
        const std::string url = entry.mockedUrl && parsesAsURL(*entry.mockedUrl)
                                    ? *entry.mockedUrl
                                    : copy.url.value_or("");
        // A rule without body answers with its status and headers and an empty body.
        const std::string body = entry.body.value_or("");

        writeConsole("customStatusCode:: " + std::to_string(status) + "\n");
        if (isValidStatus(status)) {
            HTTPURLResponse response(url, status, "HTTP/1.1", headers);
            client->didReceiveResponse(*handler, response, URLCacheStoragePolicy::notAllowed);
            client->didLoadData(*handler, body);

            auto reportedHeaders = NetworkInterceptorRequest::headersToMap(headers);
            // Told apart in the captured record only; the application never sees it.
            for (auto it = reportedHeaders.begin(); it != reportedHeaders.end();) {
                it = canonicalHeaderName(it->first) == "Kestro-Intercepted"
                         ? reportedHeaders.erase(it)
                         : std::next(it);
            }
            reportedHeaders["Kestro-Intercepted"] = "true";
            // The rule's body is text; past the limit it is cut as text is.
            const bool cut = maxBodyBytes > 0 && std::ssize(body) > maxBodyBytes;
            reportResponse(status, std::move(reportedHeaders),
                           cut ? capturedBody(body, std::ssize(body), "text/plain", maxBodyBytes)
                               : CapturedBody{body, std::nullopt});
        }
        client->didFinishLoading(*handler);
        ended();
    }

    // The start report is not made on the calling thread: the request may have been started on
    // the application's thread, and the capture handler may store the report. It goes to the
    // loading thread, which makes it along with the answer when that comes within about 2 ms
    // (so it costs no wake-up of a thread of its own), and otherwise by itself. A response
    // report that comes first waits for it, so the two always arrive in order.
    void reportStart(InterceptedRequestWrapper started) {
        {
            std::lock_guard lock(mutex);
            startReportPending = true;
        }
        network::internal::runOnLoadingThreadSoon(
            [self = shared_from_this(), started = std::move(started)] {
                self->state->report(started);
                std::optional<InterceptedRequestWrapper> next;
                {
                    std::lock_guard lock(self->mutex);
                    self->startReportPending = false;
                    next = std::move(self->responseReportWaiting);
                    self->responseReportWaiting.reset();
                }
                if (next) self->state->report(*next);
            });
    }

    // The completion report of this request, under the id of its start report.
    void reportResponse(std::int64_t statusCode, std::map<std::string, std::string> headers,
                        CapturedBody body,
                        std::optional<URLSessionTaskMetrics> timings = std::nullopt) {
        InterceptedResponse reported;
        reported.timings = timings;
        reported.statusCode = statusCode;
        reported.headers = std::move(headers);
        reported.body = std::move(body.text);
        reported.bodyTotalBytes = body.totalBytes;
        reported.url = reportedURL;
        reported.receivedAt = std::chrono::system_clock::now();
        InterceptedRequestWrapper wrapper;
        wrapper.response = std::move(reported);
        wrapper.requestId = requestId;
        {
            std::lock_guard lock(mutex);
            if (startReportPending) {
                responseReportWaiting = std::move(wrapper);
                return;
            }
        }
        state->report(wrapper);
    }

    // The private load hands the answer on as it arrives: the application's task gets every
    // byte at once, and the capture keeps only the first maxBodyBytes and counts the rest, so
    // a body of any size passes through in bounded memory.
    void load() {
        auto self = shared_from_this();
        URLSessionStreamHandlers handlers;
        handlers.response = [self](const HTTPURLResponse& head) { self->receivedHead(head); };
        handlers.data = [self](std::string_view bytes) { self->receivedBytes(bytes); };
        auto newTask = state->privateSession->streamingTask(
            copy, std::move(handlers),
            [self](std::optional<std::string>, std::optional<HTTPURLResponse> response,
                   std::optional<URLError> error) {
                self->completed(std::move(response), std::move(error));
            });
        // The bytes the load receives keep the application's request from its idle time-out,
        // also while they wait for the application to take them.
        network::internal::relayActivity(*newTask, *client);
        {
            std::lock_guard lock(mutex);
            if (stopped) return;
            task = newTask;
        }
        newTask->resume();
    }

    // The private load's handlers run one at a time, so what they keep needs no lock.
    void receivedHead(const HTTPURLResponse& head) {
        if (auto handler = current()) {
            client->didReceiveResponse(*handler, head, URLCacheStoragePolicy::notAllowed);
        }
    }
    void receivedBytes(std::string_view bytes) {
        auto handler = current();
        if (!handler) return;
        const auto room = maxBodyBytes > 0 ? static_cast<std::size_t>(maxBodyBytes) -
                                                 std::min(capturedHead.size(),
                                                          static_cast<std::size_t>(maxBodyBytes))
                                           : bytes.size();
        capturedHead.append(bytes.substr(0, std::min(room, bytes.size())));
        bodyBytes += std::ssize(bytes);
        client->didLoadData(*handler, bytes);
    }

    void completed(std::optional<HTTPURLResponse> response, std::optional<URLError> error) {
        std::shared_ptr<URLProtocol> handler;
        {
            std::lock_guard lock(mutex);
            task.reset();
            if (stopped) return;
            handler = this->handler;
        }
        if (!handler) return;
        if (error) {
            client->didFailWithError(*handler, *error);
            ended();
            return;
        }
        if (response) {
            const auto type = response->allHeaderFields.find("Content-Type");
            const std::string contentType =
                type == response->allHeaderFields.end() ? "" : lowercased(type->second);
            CapturedBody captured =
                capturedBody(capturedHead, bodyBytes, contentType, maxBodyBytes);
            capturedHead = {};
            reportResponse(response->statusCode,
                           NetworkInterceptorRequest::headersToMap(response->allHeaderFields),
                           std::move(captured), response->metrics);
        }
        client->didFinishLoading(*handler);
        ended();
    }

    void stop() {
        BreakpointGate::Ticket heldTicket;
        std::shared_ptr<URLSessionDataTask> running;
        std::shared_ptr<URLProtocol> last;
        {
            std::lock_guard lock(mutex);
            if (stopped) return;
            stopped = true;
            heldTicket = ticket;
            running = std::move(task);
            last = std::move(handler);
        }
        heldTicket.cancel();
        if (running) running->cancel();
    }
};

bool NetworkInterceptorRequest::canInit(const URLRequest& request) {
    if (URLProtocol::property(kIntercepted, request)) return false;
    if (auto skip = URLProtocol::property(kSkipIntercept, request)) {
        if (const bool* value = std::get_if<bool>(&*skip)) return !*value;
    }
    return true;
}

NetworkInterceptorRequest::NetworkInterceptorRequest(
    URLRequest request, std::shared_ptr<URLProtocolClient> client,
    std::shared_ptr<NetworkInterceptor::State> state)
    : URLProtocol(std::move(request), std::move(client)), flow_(std::make_shared<Flow>()) {
    flow_->state = std::move(state);
    flow_->client = this->client();
}

NetworkInterceptorRequest::~NetworkInterceptorRequest() = default;

void NetworkInterceptorRequest::startLoading() {
    {
        std::lock_guard lock(flow_->mutex);
        flow_->handler = shared_from_this();
    }
    flow_->start(request());
}

void NetworkInterceptorRequest::stopLoading() { flow_->stop(); }

std::map<std::string, std::string> NetworkInterceptorRequest::headersToMap(
    const HTTPHeaderFields& headers) {
    return {headers.begin(), headers.end()};
}

}  // namespace kestro
