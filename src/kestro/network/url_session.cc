#include "kestro/network/url_session.h"

#include <algorithm>
#include <boost/url/parse.hpp>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/network/internal/handler_tasks.h"
#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/task_core.h"

// The task and session API. A resumed task goes to the first protocol handler that admits it
// (internal/handler_tasks.h) or to the network (internal/loading_loop.h); either way it is
// completed through its TaskCore (internal/task_core.h).

namespace kestro {
namespace network::internal {

std::shared_ptr<const SessionState> makeState(URLSessionConfiguration cfg, bool registry) {
    auto s = std::make_shared<SessionState>();
    s->trust = makeSessionTrust(cfg);
    s->configuration = std::move(cfg);
    s->consultsRegistry = registry;
    return s;
}

std::atomic<std::uint64_t> gNextTaskId{1};

}  // namespace network::internal

using network::internal::TaskCore;
using network::internal::TaskState;

namespace {

// The queue key of an absolute http(s) URL, "scheme://host:port" with the host in lower case
// and the scheme's port filled in; or, for any other URL, the error it fails with.
struct URLOrigin {
    std::string key;
    URLErrorCode code = URLErrorCode::badURL;
};

URLOrigin parseOrigin(const std::string& url) {
    auto parsed = boost::urls::parse_absolute_uri(url);
    if (!parsed || !parsed->has_authority() || parsed->host().empty()) return {};
    if (parsed->scheme_id() != boost::urls::scheme::http &&
        parsed->scheme_id() != boost::urls::scheme::https) {
        return {{}, URLErrorCode::unsupportedURL};
    }
    const bool https = parsed->scheme_id() == boost::urls::scheme::https;
    URLOrigin origin;
    origin.key = https ? "https://" : "http://";
    for (const char c : parsed->encoded_host())
        origin.key.push_back(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
    origin.key.push_back(':');
    if (parsed->has_port() && !parsed->port().empty()) {
        origin.key.append(parsed->port());
    } else {
        origin.key.append(https ? "443" : "80");
    }
    return origin;
}

// Requests of a thread mostly go to the URL of its previous one (an upload endpoint, one API):
// that URL's answer is kept rather than parsed again (URLs of ordinary length only, so that a
// thread does not hold on to a huge one).
const URLOrigin& originOf(const std::string& url) {
    constexpr std::size_t kLongestKept = 2048;
    thread_local std::string lastURL;
    thread_local URLOrigin lastOrigin;
    if (url.empty() || url != lastURL) {
        lastOrigin = parseOrigin(url);
        if (url.size() <= kLongestKept) {
            lastURL = url;
        } else {
            lastURL.clear();
        }
    }
    return lastOrigin;
}

}  // namespace

URLSessionDataTask::URLSessionDataTask(std::shared_ptr<TaskCore> core) : core_(std::move(core)) {}
URLSessionDataTask::~URLSessionDataTask() = default;

void URLSessionDataTask::resume() {
    TaskState expected = TaskState::suspended;
    if (!core_->state.compare_exchange_strong(expected, TaskState::running)) return;
    core_->startClock();
    const auto& rq = core_->request;

    // Only absolute http(s) URLs reach a handler or the network.
    std::optional<URLError> bad;
    if (!rq.url) {
        bad = URLError::make(URLErrorCode::badURL, "the request has no URL");
    } else if (const URLOrigin& origin = originOf(*rq.url); !origin.key.empty()) {
        core_->origin = origin.key;
    } else {
        bad = URLError::make(origin.code, *rq.url);
    }
    if (bad) {
        if (core_->claim()) core_->deliver(std::nullopt, std::nullopt, std::move(bad));
        return;
    }

    std::shared_ptr<const std::vector<std::shared_ptr<const URLProtocolClass>>> classes;
    if (core_->session->consultsRegistry) {
        classes = URLProtocol::registeredClasses();
    } else if (!core_->session->configuration.protocolClasses.empty()) {
        classes = std::shared_ptr<const std::vector<std::shared_ptr<const URLProtocolClass>>>(
            core_->session, &core_->session->configuration.protocolClasses);
    }
    if (!classes || classes->empty()) {
        // No handler to consult: straight to the loading thread, no executor hop.
        core_->onLoop.store(true);
        network::internal::loadOnNetwork(core_);
        return;
    }
    const bool quick = std::all_of(classes->begin(), classes->end(),
                                   [](const auto& cls) { return cls->startsOnCallingThread(); });
    if (quick) {
        network::internal::startWithHandlers(core_, *classes);
        return;
    }
    postTask([core = core_, classes = std::move(classes)] {
        network::internal::startWithHandlers(core, *classes);
    });
}

void URLSessionDataTask::cancel() {
    // The completion may run on another thread at once and let go of the last reference to
    // this task (a streamed task's handler cancelling its own task, say): after deliver(),
    // only the local reference to the core is used.
    const std::shared_ptr<network::internal::TaskCore> core = core_;
    if (!core->claim()) return;
    core->state.store(TaskState::canceling);
    if (core->stream) core->stream->cancel();
    core->deliver(std::nullopt, std::nullopt, URLError::make(URLErrorCode::cancelled));
    if (core->onLoop.load()) {
        network::internal::cancelOnNetwork(core);
    } else {
        core->releaseHandler(true);
    }
}

URLSessionDataTask::State URLSessionDataTask::state() const {
    return static_cast<State>(core_->state.load());
}

std::uint64_t URLSessionDataTask::taskIdentifier() const { return core_->id; }

const URLRequest& URLSessionDataTask::originalRequest() const { return core_->request; }

URLSession& URLSession::shared() {
    static URLSession* s = new URLSession(SharedTag{});  // lives for the whole process
    return *s;
}

URLSession::URLSession(URLSessionConfiguration configuration)
    : state_(network::internal::makeState(std::move(configuration), false)) {}

URLSession::URLSession(SharedTag)
    : state_(network::internal::makeState(URLSessionConfiguration::defaultSessionConfiguration(),
                                          true)) {}

URLSession::~URLSession() = default;

const URLSessionConfiguration& URLSession::configuration() const { return state_->configuration; }

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(URLRequest request,
                                                         CompletionHandler completion) {
    auto core = std::make_shared<TaskCore>();
    core->id = network::internal::gNextTaskId.fetch_add(1);
    core->request = std::move(request);
    core->session = state_;
    core->completion = std::move(completion);
    return std::shared_ptr<URLSessionDataTask>(new URLSessionDataTask(std::move(core)));
}

std::shared_ptr<URLSessionDataTask> URLSession::streamingTask(URLRequest request,
                                                              URLSessionStreamHandlers handlers,
                                                              CompletionHandler completion) {
    auto task = dataTask(std::move(request), std::move(completion));
    network::internal::TaskAccess::core(*task)->stream =
        std::make_unique<network::internal::StreamState>(std::move(handlers));
    return task;
}

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(std::string url,
                                                         CompletionHandler completion) {
    return dataTask(URLRequest(std::move(url)), std::move(completion));
}

std::size_t URLSession::activeTransferCount() { return network::internal::heldTaskCount(); }

}  // namespace kestro
