#include "kestro/network/url_session.h"

#include <curl/curl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/url/parse.hpp>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "kestro/core/config.h"
#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/network/loading_thread.h"
#include "kestro/network/tls_runtime.h"

namespace kestro {
namespace network::internal {

using Clock = std::chrono::steady_clock;

// Posts f to the global executor. Posted from one of the executor's own workers, f runs on that
// worker right after the task it is posted from, so handing a result on costs no wake-up of
// another worker; posted from any other thread, it goes to whichever worker is free.
template <typename F>
void postFollowUp(F&& f) {
    boost::asio::post(boost::asio::require(globalExecutor().get_executor(),
                                           boost::asio::execution::relationship.continuation),
                      std::forward<F>(f));
}

struct SessionState {
    URLSessionConfiguration configuration;
    bool consultsRegistry = false;
    std::string extraCAPEM;  // file and text together; empty when none
};

enum class TaskState : std::uint8_t { suspended, running, canceling, completed };

struct TaskCore;

// Work that must not run inside the call that produces it: a task's completion, letting go of
// a protocol handler (whose own call may be what produced it), or work handed to the loading
// thread by runOnLoadingThreadSoon().
struct Deferred {
    enum class Kind : std::uint8_t { complete, releaseHandler, stopAndReleaseHandler, work };
    Kind kind;
    std::shared_ptr<TaskCore> core;
    std::function<void()> work;  // Kind::work only
    void run() const;
};

// Deferred work made on one thread, run or posted together once the thread is done with what
// it is doing. While a thread has a batch open, handOn() adds to it; otherwise handOn() posts.
class DeliveryBatch {
  public:
    DeliveryBatch() : previous_(tCurrent) { tCurrent = this; }
    // A batch opened inside another hands its work to the outer one, which runs or posts it
    // with its own.
    ~DeliveryBatch() {
        tCurrent = previous_;
        if (previous_) {
            for (auto& d : items_) previous_->items_.push_back(std::move(d));
        } else {
            flush();
        }
    }
    DeliveryBatch(const DeliveryBatch&) = delete;
    DeliveryBatch& operator=(const DeliveryBatch&) = delete;

    static void handOn(Deferred d);

    bool empty() const { return items_.empty(); }
    void moveTo(std::vector<Deferred>& out) {
        for (auto& d : items_) out.push_back(std::move(d));
        items_.clear();
    }

    // Posts the work gathered so far to the executor as one task: at most one worker wake-up
    // per batch instead of one per item.
    void flush() {
        if (items_.empty()) return;
        if (items_.size() == 1) {
            postFollowUp([d = std::move(items_.front())] { d.run(); });
            items_.clear();
        } else {
            postFollowUp([items = std::move(items_)] {
                for (const auto& d : items) d.run();
            });
            items_ = {};
        }
    }

    // Runs the work gathered so far on the loading thread, one item after the other. While an
    // item runs, no batch is open on this thread and the work it makes (a handler's client
    // completing the application's task, a request it started that was answered at once) goes
    // to the loop's hand-over list instead of queueing behind it: the item may be waiting for
    // exactly that work, and when it does, the thread that takes the loop over finds it there.
    // When the item returns, this thread takes the list itself on its next round.
    void runHere() {
        DeliveryBatch* const open = tCurrent;
        tCurrent = nullptr;
        tOnLoop = true;
        running_.swap(items_);
        for (const auto& d : running_) d.run();
        running_.clear();
        tOnLoop = false;
        tCurrent = open;
    }

  private:
    static thread_local DeliveryBatch* tCurrent;
    static thread_local bool tOnLoop;  // runHere() is running an item on this thread
    std::vector<Deferred> items_;
    std::vector<Deferred> running_;  // the round runHere() is running (kept for its capacity)
    DeliveryBatch* previous_;
};

thread_local DeliveryBatch* DeliveryBatch::tCurrent = nullptr;
thread_local bool DeliveryBatch::tOnLoop = false;

void handOverToLoop(Deferred d);

void DeliveryBatch::handOn(Deferred d) {
    if (tCurrent) {
        tCurrent->items_.push_back(std::move(d));
    } else if (tOnLoop) {
        handOverToLoop(std::move(d));
    } else {
        postFollowUp([d = std::move(d)] { d.run(); });
    }
}

// One task. Owned jointly by the user's URLSessionDataTask handle, the loading thread while it
// transfers, and a handler's client while a handler loads it.
struct TaskCore : std::enable_shared_from_this<TaskCore> {
    std::uint64_t id = 0;
    URLRequest request;
    std::shared_ptr<const SessionState> session;
    URLSessionDataTask::CompletionHandler completion;  // touched only by the winner of `done`

    std::atomic<TaskState> state{TaskState::suspended};
    std::atomic<bool> done{false};    // set once by whoever completes the task
    std::atomic<bool> onLoop{false};  // handed to the loop

    // The outcome, written by the winner of `done` before the completion is handed on.
    std::optional<std::string> resultData;
    std::optional<HTTPURLResponse> resultResponse;
    std::optional<URLError> resultError;

    // Handler path. handlerMutex orders startLoading before stopLoading.
    std::mutex handlerMutex;
    std::shared_ptr<URLProtocol> handler;

    // "scheme://host:port" of the URL: the queue the task waits in for a transfer slot.
    std::string origin;

    // Network path: touched only under the loop's mutex.
    bool held = false;  // the loop holds the task (waiting for a slot or transferring)
    std::shared_ptr<TaskCore> heldRef;  // the loop's reference while held
    TaskCore* heldPrev = nullptr;       // neighbours in the loop's list of held tasks
    TaskCore* heldNext = nullptr;
    CURL* easy = nullptr;
    // The request's header lines, each "Name: value" and a NUL, and the list libcurl reads:
    // nodes pointing into those lines. Two allocations per request, instead of three per field
    // with curl_slist_append.
    std::string headerLines;
    std::vector<curl_slist> headerNodes;
    std::string body;
    HTTPHeaderFields responseHeaders;
    std::string statusLineVersion;
    bool overLimit = false;
    bool sizeChecked = false;
    Clock::time_point lastActivity;
    Clock::duration idleTimeout{};
    curl_off_t lastUp = 0, lastDown = 0;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // Claims the right to complete. True for exactly one caller.
    bool claim() { return !done.exchange(true, std::memory_order_acq_rel); }

    // Called by the winner of claim(): keeps the outcome and hands the completion on.
    void deliver(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                 std::optional<URLError> error) {
        state.store(TaskState::completed);
        resultData = std::move(data);
        resultResponse = std::move(response);
        resultError = std::move(error);
        DeliveryBatch::handOn({Deferred::Kind::complete, shared_from_this()});
    }

    void runCompletion() {
        auto cb = std::move(completion);
        completion = nullptr;
        auto data = std::move(resultData);
        auto response = std::move(resultResponse);
        auto error = std::move(resultError);
        if (!cb) return;
        runReportingThrows("A request's completion",
                           [&] { cb(std::move(data), std::move(response), std::move(error)); });
    }

    // Lets go of the handler object, which holds our client and so this task. Deferred because
    // the caller may be inside one of the handler's own calls; with `stop` the handler is told
    // stopLoading() first (it had not ended the load itself).
    void releaseHandler(bool stop) {
        DeliveryBatch::handOn(
            {stop ? Deferred::Kind::stopAndReleaseHandler : Deferred::Kind::releaseHandler,
             shared_from_this()});
    }

    // Taking the handler under handlerMutex orders this after startLoading() has returned.
    void dropHandler(bool stop) {
        std::shared_ptr<URLProtocol> h;
        {
            std::lock_guard lock(handlerMutex);
            h = std::move(handler);
        }
        if (!h || !stop) return;
        runReportingThrows("A protocol handler's stopLoading", [&] { h->stopLoading(); });
    }
};

void Deferred::run() const {
    switch (kind) {
        case Kind::complete:
            core->runCompletion();
            break;
        case Kind::releaseHandler:
            core->dropHandler(false);
            break;
        case Kind::stopAndReleaseHandler:
            core->dropHandler(true);
            break;
        case Kind::work:
            runReportingThrows("Work handed to the loading thread", work);
            break;
    }
}

// ---------------------------------------------------------------------------------------------
// The loading machinery: one libcurl multi handle for every session of the process, driven
// through its socket interface. All of its state is guarded by one mutex. The loading thread
// holds that mutex except while it waits in epoll_wait; a thread that resumes or cancels a
// task while the mutex is free does the work itself (setting up the transfer and sending the
// request), so a request on an idle loop costs no thread hop on the way out. When the mutex is
// busy the work is queued as a command and the loading thread is woken through an eventfd.
//
// Completions made by the loading thread run on it, after it has let go of the mutex, when
// no other transfer is held: a lone request then reaches its completion without waking another
// thread. While other transfers are held they are posted to the executor, so no completion
// delays them. A completion may still run long or wait (for a request it started, say), so a
// second loading thread stands by: when one completion has run for a whole watch period it
// takes the loop over, and the first thread becomes the stand-by once its completion returns.
// The stand-by watches only while completions run on the loop; otherwise it sleeps without a
// time-out. Completions made on other threads (a cancellation, a worker that found a transfer
// finished) are posted to the executor.
//
// Transfers per origin (scheme, host, port) are capped at the connection limit; requests past
// the cap wait in a queue of their own, holding no libcurl handle, and start in order as
// earlier ones finish. libcurl's own pending list is never used: it costs a scan per finished
// transfer and a full easy handle per waiting request.

class Loop {
  public:
    static Loop& instance() {
        static Loop* loop = new Loop();  // never destroyed: transfers may still run at exit
        return *loop;
    }

    void add(std::shared_ptr<TaskCore> core) {
        DeliveryBatch batch;
        if (std::unique_lock lock = tryLock(); lock.owns_lock()) {
            tHoldsLoop = true;
            start(core);
            settle();
            passToOwner(batch);
            wakeIfSleepingTooLong();
            tHoldsLoop = false;
            return;
        }
        push({Command::add, std::move(core)});
    }
    void cancel(std::shared_ptr<TaskCore> core) {
        DeliveryBatch batch;
        if (std::unique_lock lock = tryLock(); lock.owns_lock()) {
            tHoldsLoop = true;
            drop(core.get());
            settle();
            passToOwner(batch);
            wakeIfSleepingTooLong();
            tHoldsLoop = false;
            return;
        }
        push({Command::cancel, std::move(core)});
    }
    std::size_t activeCount() const { return activeCount_.load(); }
    void handOver(Deferred d);
    void handOverSoon(Deferred d);

  private:
    struct Command {
        enum Kind { add, cancel } kind;
        std::shared_ptr<TaskCore> core;
    };
    struct Origin {
        std::size_t running = 0;
        std::deque<std::shared_ptr<TaskCore>> waiting;
    };

    Loop();

    // The loop mutex, unless another thread holds it or this thread already does (a
    // destructor run under it may start or cancel a task).
    std::unique_lock<std::mutex> tryLock() {
        if (tHoldsLoop) return {};
        return std::unique_lock<std::mutex>(mutex_, std::try_to_lock);
    }
    void push(Command c);
    void passToOwner(DeliveryBatch& batch);
    void ownerHasWork();
    void wake();
    void wakeIfSleepingTooLong();

    void serve(bool owner);
    void run();
    bool deliverHere(DeliveryBatch& deliveries);
    void standBy();
    void settle();
    void start(const std::shared_ptr<TaskCore>& core);
    bool begin(const std::shared_ptr<TaskCore>& core);
    void slotFreed(const std::string& origin);
    void hold(const std::shared_ptr<TaskCore>& core);
    std::shared_ptr<TaskCore> unhold(TaskCore* core);
    void finish(TaskCore* core, CURLcode result);
    void drop(TaskCore* core);
    void checkIdle(Clock::time_point now);
    static void configureEasy(CURL* e);
    static bool usedOnce(TaskCore* core);
    static curl_slist* expectOnly();
    static void setHeaders(CURL* e, TaskCore& core);
    static void freeHeaderList(TaskCore& core);
    CURL* takeEasy();
    void returnEasy(CURL* easy, bool needsReset);

    static size_t onWrite(char* data, size_t size, size_t n, void* user);
    static size_t onHeader(char* data, size_t size, size_t n, void* user);
    static int onProgress(void* user, curl_off_t dlTotal, curl_off_t dlNow, curl_off_t ulTotal,
                          curl_off_t ulNow);
    static int onSocket(CURL* easy, curl_socket_t s, int what, void* user, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* user);

    static constexpr long kMaxConnectionsPerHost = 16;
    static constexpr std::size_t kMaxTransfersPerOrigin = kMaxConnectionsPerHost;
    static constexpr std::size_t kSpareEasyHandles = 32;
    // Origins with nothing running kept with their (allocated) queues, for the next request.
    static constexpr std::size_t kKeptIdleOrigins = 64;
    static constexpr auto kIdleScanInterval = std::chrono::milliseconds(5);
    static constexpr auto kLongestSleep = std::chrono::milliseconds(1000);
    // How long one completion may keep the loading thread before the stand-by takes over (it
    // looks once per period, so between one and two periods). Short, because a completion that
    // waits for a request it started waits that long.
    static constexpr auto kWatchPeriod = std::chrono::milliseconds(2);
    // Longest wait of work handed over with handOverSoon() while the owner sleeps.
    static constexpr auto kSoonDelay = std::chrono::milliseconds(2);
    // delivery_: rounds of completions run on the loop's owner so far, times 2, plus this
    // flag while the owner is inside one. The stand-by takes the loop by clearing the flag.
    static constexpr std::uint64_t kDelivering = 1;

    static thread_local bool tHoldsLoop;

    CURLM* multi_ = nullptr;
    int epoll_ = -1;
    int wakeFd_ = -1;
    // Wakes a sleeping owner for work handed over "soon" that no transfer event brought it to.
    int soonTimerFd_ = -1;

    std::mutex commandMutex_;
    std::vector<Command> commands_;

    // Guarded by mutex_.
    std::mutex mutex_;
    TaskCore* held_ = nullptr;  // tasks waiting for a slot or transferring, linked through them
    std::size_t heldCount_ = 0;
    std::unordered_map<std::string, Origin> origins_;  // idle ones kept, up to kKeptIdleOrigins
    std::vector<CURL*> spare_;
    std::unordered_set<curl_socket_t> parked_;  // registered with epoll, not wanted by libcurl
    Clock::time_point nextIdleScan_{};
    Clock::time_point curlDeadline_ = Clock::time_point::max();
    bool sleeping_ = false;
    Clock::time_point sleepUntil_{};
    std::vector<Deferred> handedOver_;  // completions made on other threads, for the owner
    bool soonTimerArmed_ = false;

    std::atomic<std::size_t> activeCount_{0};
    // The owner is in epoll_wait (or about to be); handedOver_ has work it has not taken yet.
    // Sequentially consistent: an owner going to sleep and a thread handing work over never
    // both miss each other.
    std::atomic<bool> polling_{false};
    std::atomic<bool> handedOverPending_{false};

    // The hand-over between the two loading threads. Sequentially consistent throughout: the
    // owner's "delivering" and the stand-by's "not watching" must never miss each other.
    std::atomic<std::uint64_t> delivery_{0};
    std::atomic<bool> standbyReady_{false};  // a thread is in standBy()
    std::atomic<bool> watching_{false};      // ... and is looking at delivery_ each period
    std::mutex standbyMutex_;
    std::condition_variable standbyCv_;
};

thread_local bool Loop::tHoldsLoop = false;

URLError errorFor(CURLcode code, const TaskCore& core) {
    if (core.overLimit) {
        return URLError::make(
            URLErrorCode::dataLengthExceedsMaximum,
            "limit " + std::to_string(core.session->configuration.maximumResponseBodySize) +
                " bytes");
    }
    const std::string detail =
        core.errorBuffer[0] ? std::string(core.errorBuffer) : std::string(curl_easy_strerror(code));
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return URLError::make(URLErrorCode::timedOut, detail);
        case CURLE_COULDNT_CONNECT:
            return URLError::make(URLErrorCode::cannotConnectToHost, detail);
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return URLError::make(URLErrorCode::cannotFindHost, detail);
        case CURLE_URL_MALFORMAT:
            return URLError::make(URLErrorCode::badURL, detail);
        case CURLE_TOO_MANY_REDIRECTS:
            return URLError::make(URLErrorCode::httpTooManyRedirects, detail);
        case CURLE_BAD_CONTENT_ENCODING:
            return URLError::make(URLErrorCode::cannotDecodeContentData, detail);
        case CURLE_PEER_FAILED_VERIFICATION:
            return URLError::make(URLErrorCode::serverCertificateUntrusted, detail);
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
            return URLError::make(URLErrorCode::secureConnectionFailed, detail);
        // The scheme was checked before the transfer began, so an unsupported protocol here
        // means the server answered with something that is not HTTP (HTTP/0.9 or garbage).
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return URLError::make(URLErrorCode::badServerResponse, detail);
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return URLError::make(URLErrorCode::networkConnectionLost, detail);
        default:
            return URLError::make(URLErrorCode::unknown, detail);
    }
}

std::string versionText(long v) {
    switch (v) {
        case CURL_HTTP_VERSION_1_0:
            return "HTTP/1.0";
        case CURL_HTTP_VERSION_1_1:
            return "HTTP/1.1";
        case CURL_HTTP_VERSION_2_0:
            return "HTTP/2";
        case CURL_HTTP_VERSION_3:
            return "HTTP/3";
        default:
            return "HTTP/1.1";
    }
}

size_t Loop::onWrite(char* data, size_t size, size_t n, void* user) {
    auto* core = static_cast<TaskCore*>(user);
    const size_t bytes = size * n;
    const std::uint64_t max = core->session->configuration.maximumResponseBodySize;
    if (!core->sizeChecked) {
        // First bytes of the final response: a declared length past the limit fails at once,
        // one within it is reserved in one piece (a 100 MB body then costs no regrowth).
        core->sizeChecked = true;
        curl_off_t declared = -1;
        curl_easy_getinfo(core->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &declared);
        if (declared > 0 && static_cast<std::uint64_t>(declared) > max) {
            core->overLimit = true;
            return CURL_WRITEFUNC_ERROR;
        }
        if (declared > 0) core->body.reserve(static_cast<size_t>(declared));
    }
    if (core->body.size() + bytes > max) {
        core->overLimit = true;
        return CURL_WRITEFUNC_ERROR;
    }
    core->body.append(data, bytes);
    core->lastActivity = Clock::now();
    return bytes;
}

size_t Loop::onHeader(char* data, size_t size, size_t n, void* user) {
    auto* core = static_cast<TaskCore*>(user);
    const size_t bytes = size * n;
    core->lastActivity = Clock::now();
    std::string_view line(data, bytes);
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    if (line.starts_with("HTTP/")) {
        // A new response head (after a 1xx or a followed redirect) replaces the previous one.
        core->responseHeaders.clear();
        core->body.clear();
        core->sizeChecked = false;
        return bytes;
    }
    const auto colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return bytes;
    std::string name = canonicalHeaderName(line.substr(0, colon));
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t'))
        value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    auto it = core->responseHeaders.find(name);
    if (it == core->responseHeaders.end()) {
        core->responseHeaders.emplace(std::move(name), std::string(value));
    } else {
        it->second.append(", ").append(value);
    }
    return bytes;
}

int Loop::onProgress(void* user, curl_off_t, curl_off_t dlNow, curl_off_t, curl_off_t ulNow) {
    // Sending the body counts as activity for the idle time-out too.
    auto* core = static_cast<TaskCore*>(user);
    if (dlNow != core->lastDown || ulNow != core->lastUp) {
        core->lastDown = dlNow;
        core->lastUp = ulNow;
        core->lastActivity = Clock::now();
    }
    return 0;
}

Loop::Loop() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, kMaxConnectionsPerHost);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 4 * kMaxConnectionsPerHost);
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &Loop::onSocket);
    curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &Loop::onTimer);
    curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = wakeFd_;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wakeFd_, &ev);
    soonTimerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    ev.data.fd = soonTimerFd_;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, soonTimerFd_, &ev);
    std::thread([this] {
        nameThisThread("kestro-loading");
        serve(true);
    }).detach();
    std::thread([this] {
        nameThisThread("kestro-loading");
        serve(false);
    }).detach();
}

void Loop::push(Command c) {
    bool first = false;
    {
        std::lock_guard lock(commandMutex_);
        first = commands_.empty();
        commands_.push_back(std::move(c));
    }
    // One wake-up per batch: the loop takes the whole list at once.
    if (first) wake();
}

// Called under mutex_ by a thread that drove the loop itself and made completions there (a
// transfer it started had already been answered). An application thread must not run them and
// an executor worker runs them next anyway; otherwise they go to the loop's owner, which is
// usually awake already (waiting for this thread's hold on the mutex), instead of waking a
// worker.
void Loop::passToOwner(DeliveryBatch& batch) {
    if (batch.empty() || globalExecutor().get_executor().running_in_this_thread()) return;
    batch.moveTo(handedOver_);
    ownerHasWork();
}

// Work made by a completion that runs on the loading thread, with the loop's mutex let go (any
// call that takes the mutex opens a batch of its own first, so none gets here holding it).
void Loop::handOver(Deferred d) {
    std::lock_guard lock(mutex_);
    handedOver_.push_back(std::move(d));
    ownerHasWork();
}

// Under mutex_, after adding to handedOver_: the owner takes the list on its next round, at
// once if it is waiting in epoll_wait.
void Loop::ownerHasWork() {
    handedOverPending_.store(true);
    if (polling_.load()) wake();
}

// Like handOver(), for work that may wait a little: a sleeping owner is not woken at once but by
// a timer, kSoonDelay later, unless a transfer event wakes it first. The work then rides on a
// wake-up the loop takes anyway (the answer to the request whose start produced the work, say)
// instead of costing one of its own.
void Loop::handOverSoon(Deferred d) {
    // With transfers under way the owner would pass the work on to a worker anyway: it is
    // posted from here, and the loop, then the busiest thread, is spared the hand-over.
    if (activeCount_.load() > 0) {
        postFollowUp([d = std::move(d)] { d.run(); });
        return;
    }
    std::unique_lock<std::mutex> lock;
    if (!tHoldsLoop) lock = std::unique_lock(mutex_);
    handedOver_.push_back(std::move(d));
    handedOverPending_.store(true);
    if (!polling_.load() || soonTimerArmed_) return;
    itimerspec due{};
    due.it_value.tv_nsec = std::chrono::nanoseconds(kSoonDelay).count();
    if (timerfd_settime(soonTimerFd_, 0, &due, nullptr) == 0) {
        soonTimerArmed_ = true;
    } else {
        wake();
    }
}

void handOverToLoop(Deferred d) { Loop::instance().handOver(std::move(d)); }

void runOnLoadingThreadSoon(std::function<void()> work) {
    Loop::instance().handOverSoon({Deferred::Kind::work, nullptr, std::move(work)});
}

void Loop::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(wakeFd_, &one, sizeof one);
}

// After work done outside the loading thread: a timer it set may be due before the loading
// thread would next look.
void Loop::wakeIfSleepingTooLong() {
    if (sleeping_ && std::min(curlDeadline_, nextIdleScan_) < sleepUntil_) wake();
}

int Loop::onSocket(CURL*, curl_socket_t s, int what, void* user, void* socketData) {
    auto* self = static_cast<Loop*>(user);
    if (what == CURL_POLL_REMOVE) {
        // A kept-alive connection is usually asked for again by the next transfer, so its
        // registration is parked rather than removed: the next request then costs one
        // epoll_ctl instead of two. A parked socket that reports anything (the peer closed an
        // idle connection) is removed then; one that libcurl closes leaves epoll by itself.
        self->parked_.insert(s);
        curl_multi_assign(self->multi_, s, nullptr);
        return 0;
    }
    epoll_event ev{};
    ev.events = ((what & CURL_POLL_IN) ? EPOLLIN : 0u) | ((what & CURL_POLL_OUT) ? EPOLLOUT : 0u);
    ev.data.fd = s;
    // A parked entry may be stale (the socket was closed and its number reused), so the
    // registration is always renewed, falling back when epoll's view differs.
    const bool parked = self->parked_.erase(s) > 0;
    if (socketData || parked) {
        if (epoll_ctl(self->epoll_, EPOLL_CTL_MOD, s, &ev) != 0 && errno == ENOENT)
            epoll_ctl(self->epoll_, EPOLL_CTL_ADD, s, &ev);
    } else {
        if (epoll_ctl(self->epoll_, EPOLL_CTL_ADD, s, &ev) != 0 && errno == EEXIST)
            epoll_ctl(self->epoll_, EPOLL_CTL_MOD, s, &ev);
    }
    if (!socketData) curl_multi_assign(self->multi_, s, self);  // non-null mark: "registered"
    return 0;
}

int Loop::onTimer(CURLM*, long timeoutMs, void* user) {
    auto* self = static_cast<Loop*>(user);
    self->curlDeadline_ = timeoutMs < 0 ? Clock::time_point::max()
                                        : Clock::now() + std::chrono::milliseconds(timeoutMs);
    return 0;
}

// The options every transfer shares. Set once per handle: a spare handle keeps them, so a
// reused handle only gets the options of its request (and keeps libcurl's buffers).
void Loop::configureEasy(CURL* e) {
    static const std::string userAgent = std::string("kestro/") + SDK_VERSION;
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(e, CURLOPT_AUTOREFERER, 1L);
    curl_easy_setopt(e, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Loop::onWrite);
    curl_easy_setopt(e, CURLOPT_HEADERFUNCTION, &Loop::onHeader);
    curl_easy_setopt(e, CURLOPT_XFERINFOFUNCTION, &Loop::onProgress);
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(e, CURLOPT_USERAGENT, userAgent.c_str());
}

CURL* Loop::takeEasy() {
    if (!spare_.empty()) {
        CURL* e = spare_.back();
        spare_.pop_back();
        return e;
    }
    CURL* e = curl_easy_init();
    if (e) configureEasy(e);
    return e;
}

// A handle that carried per-session trust or followed a redirect (libcurl keeps the referer
// it made) is reset before it is kept; any other handle keeps its options.
void Loop::returnEasy(CURL* easy, bool needsReset) {
    if (spare_.size() >= kSpareEasyHandles) {
        curl_easy_cleanup(easy);
        return;
    }
    if (needsReset) {
        curl_easy_reset(easy);
        configureEasy(easy);
    } else {
        // Nothing of the finished request stays reachable from the handle.
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, static_cast<curl_slist*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, static_cast<const char*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(nullptr));
    }
    spare_.push_back(easy);
}

// The header list of a request that sets no fields of its own: made once for the process.
curl_slist* Loop::expectOnly() {
    static curl_slist* const list = curl_slist_append(nullptr, "Expect:");
    return list;
}

// The request's own fields, the session's additional ones it does not override, and an empty
// "Expect:" (no "100-continue" round trip before large bodies) unless the request sets one.
void Loop::setHeaders(CURL* e, TaskCore& core) {
    const URLRequest& rq = core.request;
    const auto& additional = core.session->configuration.httpAdditionalHeaders;
    const bool setsExpect = rq.allHTTPHeaderFields.count(std::string_view("Expect")) > 0;
    if (rq.allHTTPHeaderFields.empty() && additional.empty()) {
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, expectOnly());  // shared, never freed
        return;
    }
    // A name or value ends at its first line break or NUL: a field is one line, and cannot
    // add lines of its own to the request.
    auto clip = [](std::string_view text) {
        constexpr std::string_view kLineEnds("\r\n\0", 3);
        return text.substr(0, text.find_first_of(kLineEnds));
    };
    auto eachField = [&](auto&& visit) {
        for (const auto& [name, value] : rq.allHTTPHeaderFields) visit(clip(name), clip(value));
        for (const auto& [name, value] : additional) {
            if (!rq.allHTTPHeaderFields.count(name)) visit(clip(name), clip(value));
        }
    };
    // Measured first, so that the lines take one allocation.
    std::size_t size = setsExpect ? 0 : sizeof "Expect:";
    std::size_t count = setsExpect ? 0 : 1;
    eachField([&](std::string_view name, std::string_view value) {
        size += name.size() + 2 + value.size() + 1;
        ++count;
    });
    std::string& lines = core.headerLines;
    lines.clear();
    lines.reserve(size);
    eachField([&](std::string_view name, std::string_view value) {
        lines += name;
        // "Name;" is libcurl's way of sending a field with an empty value.
        if (value.empty()) {
            lines += ';';
        } else {
            lines += ": ";
            lines += value;
        }
        lines += '\0';
    });
    if (!setsExpect) lines.append("Expect:", sizeof "Expect:");
    // The nodes point into `lines`, which no longer grows.
    std::vector<curl_slist>& nodes = core.headerNodes;
    nodes.assign(count, curl_slist{});
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        nodes[i].data = lines.data() + at;
        nodes[i].next = i + 1 < count ? &nodes[i + 1] : nullptr;
        at += std::char_traits<char>::length(nodes[i].data) + 1;
    }
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, nodes.data());
}

void Loop::freeHeaderList(TaskCore& core) {
    core.headerNodes = {};
    core.headerLines = {};
}

bool Loop::usedOnce(TaskCore* core) {
    if (!core->session->extraCAPEM.empty()) return true;
    long redirects = 0;
    curl_easy_getinfo(core->easy, CURLINFO_REDIRECT_COUNT, &redirects);
    return redirects > 0;
}

void Loop::start(const std::shared_ptr<TaskCore>& core) {
    if (core->done.load() || core->held) return;  // cancelled before it reached us
    const URLSessionConfiguration& cfg = core->session->configuration;
    const auto idle = core->request.timeoutInterval.value_or(cfg.timeoutIntervalForRequest);
    core->idleTimeout = std::max<Clock::duration>(idle, std::chrono::milliseconds(1));
    core->lastActivity = Clock::now();
    nextIdleScan_ = std::min(nextIdleScan_, core->lastActivity + core->idleTimeout);
    hold(core);

    Origin& origin = origins_[core->origin];
    if (origin.running >= kMaxTransfersPerOrigin) {
        origin.waiting.push_back(core);
        return;
    }
    ++origin.running;
    if (!begin(core)) slotFreed(core->origin);
}

// Hands a held task to libcurl; its origin's slot is already counted. False when libcurl
// refused it (the task has then been completed with an error and let go).
bool Loop::begin(const std::shared_ptr<TaskCore>& core) {
    const URLSessionConfiguration& cfg = core->session->configuration;
    const URLRequest& rq = core->request;
    auto fail = [&](const char* what) {
        unhold(core.get());
        if (core->claim()) core->deliver({}, {}, URLError::make(URLErrorCode::unknown, what));
        return false;
    };
    CURL* e = takeEasy();
    if (!e) return fail("no handle");
    core->easy = e;

    curl_easy_setopt(e, CURLOPT_URL, rq.url->c_str());
    curl_easy_setopt(e, CURLOPT_PRIVATE, core.get());
    curl_easy_setopt(e, CURLOPT_MAXREDIRS, static_cast<long>(cfg.maximumRedirects));
    curl_easy_setopt(e, CURLOPT_WRITEDATA, core.get());
    curl_easy_setopt(e, CURLOPT_HEADERDATA, core.get());
    curl_easy_setopt(e, CURLOPT_XFERINFODATA, core.get());
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, core->errorBuffer);
    // Received bytes count as activity in the write and header callbacks; the progress
    // callback is only needed to see a request body going out.
    curl_easy_setopt(e, CURLOPT_NOPROGRESS, rq.httpBody ? 0L : 1L);
    curl_easy_setopt(
        e, CURLOPT_TIMEOUT_MS,
        static_cast<long>(std::max<std::int64_t>(cfg.timeoutIntervalForResource.count(), 1)));
    curl_easy_setopt(
        e, CURLOPT_CONNECTTIMEOUT_MS,
        static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(core->idleTimeout).count()));
    if (!core->session->extraCAPEM.empty()) {
        curl_blob blob{const_cast<char*>(core->session->extraCAPEM.data()),
                       core->session->extraCAPEM.size(), CURL_BLOB_NOCOPY};
        curl_easy_setopt(e, CURLOPT_CAINFO_BLOB, &blob);
    }

    // Every method option is set each time: a reused handle still holds the last request's.
    const std::string method = rq.method();
    curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
    if (method == "GET" && !rq.httpBody) {
        curl_easy_setopt(e, CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
        curl_easy_setopt(e, CURLOPT_NOBODY, 1L);
    } else {
        curl_easy_setopt(e, CURLOPT_NOBODY, 0L);
        // POST is not set as a custom method, so that redirects turn it into GET.
        if (method != "POST") curl_easy_setopt(e, CURLOPT_CUSTOMREQUEST, method.c_str());
        const char* data = rq.httpBody ? rq.httpBody->data() : "";
        const auto size = static_cast<curl_off_t>(rq.httpBody ? rq.httpBody->size() : 0);
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, size);
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, data);
    }

    setHeaders(e, *core);

    if (curl_multi_add_handle(multi_, e) != CURLM_OK) {
        freeHeaderList(*core);
        core->easy = nullptr;
        returnEasy(e, true);
        return fail("add");
    }
    return true;
}

// A transfer of `origin` has ended: the next waiting tasks of that origin take the slot.
void Loop::slotFreed(const std::string& originKey) {
    auto it = origins_.find(originKey);
    if (it == origins_.end()) return;
    Origin& origin = it->second;
    if (origin.running > 0) --origin.running;
    while (origin.running < kMaxTransfersPerOrigin && !origin.waiting.empty()) {
        std::shared_ptr<TaskCore> next = std::move(origin.waiting.front());
        origin.waiting.pop_front();
        if (!next->held) continue;  // let go while it waited (cancelled or timed out)
        ++origin.running;
        if (!begin(next)) --origin.running;
    }
    if (origin.running == 0 && origin.waiting.empty() && origins_.size() > kKeptIdleOrigins) {
        origins_.erase(it);
    }
}

void Loop::hold(const std::shared_ptr<TaskCore>& core) {
    core->held = true;
    core->heldRef = core;
    core->heldPrev = nullptr;
    core->heldNext = held_;
    if (held_) held_->heldPrev = core.get();
    held_ = core.get();
    activeCount_.store(++heldCount_);
}

// Takes a task out of the held list; returns the loop's reference to it (empty when it was not
// held).
std::shared_ptr<TaskCore> Loop::unhold(TaskCore* core) {
    if (!core->held) return nullptr;
    core->held = false;
    if (core->heldPrev) {
        core->heldPrev->heldNext = core->heldNext;
    } else {
        held_ = core->heldNext;
    }
    if (core->heldNext) core->heldNext->heldPrev = core->heldPrev;
    core->heldPrev = core->heldNext = nullptr;
    activeCount_.store(--heldCount_);
    return std::move(core->heldRef);
}

void Loop::drop(TaskCore* core) {
    std::shared_ptr<TaskCore> keep = unhold(core);
    if (!keep) return;
    // A task still waiting for a slot stays in its origin's queue, which skips it.
    if (!core->easy) return;
    curl_multi_remove_handle(multi_, core->easy);
    returnEasy(core->easy, usedOnce(core));
    core->easy = nullptr;
    freeHeaderList(*core);
    slotFreed(core->origin);
}

void Loop::finish(TaskCore* core, CURLcode result) {
    std::optional<HTTPURLResponse> response;
    long status = 0;
    curl_easy_getinfo(core->easy, CURLINFO_RESPONSE_CODE, &status);
    if (status > 0) {
        long version = 0;
        char* url = nullptr;
        curl_easy_getinfo(core->easy, CURLINFO_HTTP_VERSION, &version);
        curl_easy_getinfo(core->easy, CURLINFO_EFFECTIVE_URL, &url);
        response = HTTPURLResponse(url ? url : core->request.url.value_or(""), status,
                                   versionText(version), std::move(core->responseHeaders));
    }
    std::optional<URLError> error;
    if (result != CURLE_OK) error = errorFor(result, *core);
    std::shared_ptr<TaskCore> keep = core->shared_from_this();
    std::string body = std::move(core->body);
    drop(core);
    if (!keep->claim()) return;  // cancelled meanwhile: the cancellation already completed it
    if (error) {
        keep->deliver(std::nullopt, std::move(response), std::move(error));
    } else {
        keep->deliver(std::move(body), std::move(response), std::nullopt);
    }
}

void Loop::checkIdle(Clock::time_point now) {
    if (now < nextIdleScan_) return;
    // Activity only moves deadlines later, so the earliest deadline seen now is the next time
    // a scan can find anything (new transfers pull it earlier in start()).
    std::vector<TaskCore*> expired;
    Clock::time_point earliest = now + std::chrono::seconds(1);
    for (TaskCore* core = held_; core; core = core->heldNext) {
        const auto deadline = core->lastActivity + core->idleTimeout;
        if (now > deadline) {
            expired.push_back(core);
        } else {
            earliest = std::min(earliest, deadline);
        }
    }
    nextIdleScan_ = std::max(earliest, now + kIdleScanInterval);
    for (TaskCore* core : expired) {
        std::shared_ptr<TaskCore> keep = core->shared_from_this();
        drop(core);
        if (keep->claim()) {
            const auto ms =
                std::chrono::duration_cast<std::chrono::milliseconds>(keep->idleTimeout).count();
            keep->deliver(std::nullopt, std::nullopt,
                          URLError::make(URLErrorCode::timedOut,
                                         "no data for " + std::to_string(ms) + " ms"));
        }
    }
}

// Runs libcurl's due timers and completes the transfers that have ended. Under mutex_.
void Loop::settle() {
    for (int round = 0; round < 8 && curlDeadline_ <= Clock::now(); ++round) {
        curlDeadline_ = Clock::time_point::max();
        int running = 0;
        curl_multi_socket_action(multi_, CURL_SOCKET_TIMEOUT, 0, &running);
    }
    int left = 0;
    while (CURLMsg* msg = curl_multi_info_read(multi_, &left)) {
        if (msg->msg != CURLMSG_DONE) continue;
        void* priv = nullptr;
        curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &priv);
        finish(static_cast<TaskCore*>(priv), msg->data.result);
    }
}

// Body of each of the two loading threads: the owner of the loop runs it, the other stands by,
// and they change places when the stand-by takes over.
void Loop::serve(bool owner) {
    for (;;) {
        if (!owner) standBy();
        owner = false;
        run();
    }
}

// Drives the loop until another thread takes it over.
void Loop::run() {
    std::vector<Command> batch;
    std::array<epoll_event, 64> events{};
    DeliveryBatch deliveries;
    std::unique_lock lock(mutex_);
    tHoldsLoop = true;
    for (;;) {
        auto now = Clock::now();
        const auto due = std::min({curlDeadline_, nextIdleScan_, now + kLongestSleep});
        sleeping_ = true;
        sleepUntil_ = std::max(due, now);
        // Completions run here only while no other transfer waits on the loop, and only while
        // the other thread stands by to take over from a completion that does not return.
        const bool alone = heldCount_ == 0;
        tHoldsLoop = false;
        lock.unlock();
        if (!deliveries.empty()) {
            if (alone && standbyReady_.load()) {
                if (!deliverHere(deliveries)) return;
                now = Clock::now();
            } else {
                deliveries.flush();
            }
        }
        const int waitMs =
            due <= now
                ? 0
                : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(due - now).count());
        polling_.store(true);
        const int n = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 handedOverPending_.load() ? 0 : waitMs);
        polling_.store(false);
        lock.lock();
        tHoldsLoop = true;
        sleeping_ = false;
        if (handedOverPending_.load()) {
            handedOverPending_.store(false);
            for (auto& d : handedOver_) DeliveryBatch::handOn(std::move(d));
            handedOver_.clear();
            if (soonTimerArmed_) {
                // Taken before the timer fired: it must not wake the loop for nothing.
                const itimerspec off{};
                timerfd_settime(soonTimerFd_, 0, &off, nullptr);
                soonTimerArmed_ = false;
            }
        }

        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == wakeFd_ || fd == soonTimerFd_) {
                std::uint64_t count = 0;
                [[maybe_unused]] const auto r = ::read(fd, &count, sizeof count);
                continue;
            }
            if (parked_.erase(fd) > 0) {
                epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
                continue;
            }
            const std::uint32_t ev = events[i].events;
            int action = 0;
            if (ev & (EPOLLIN | EPOLLHUP)) action |= CURL_CSELECT_IN;
            if (ev & EPOLLOUT) action |= CURL_CSELECT_OUT;
            if (ev & EPOLLERR) action |= CURL_CSELECT_ERR;
            int running = 0;
            curl_multi_socket_action(multi_, fd, action, &running);
        }
        {
            std::lock_guard commandLock(commandMutex_);
            batch.swap(commands_);
        }
        for (auto& c : batch) {
            if (c.kind == Command::add) {
                start(c.core);
            } else {
                drop(c.core.get());  // already completed by cancel()
            }
        }
        batch.clear();
        settle();
        checkIdle(Clock::now());
    }
}

// Runs the gathered completions on this thread, the loop's owner, with the mutex let go. False
// when the stand-by took the loop over meanwhile: this thread then no longer owns it.
bool Loop::deliverHere(DeliveryBatch& deliveries) {
    const std::uint64_t begun = ((delivery_.load() & ~kDelivering) + 2) | kDelivering;
    delivery_.store(begun);
    if (!watching_.load()) {
        std::lock_guard lock(standbyMutex_);
        watching_.store(true);
        standbyCv_.notify_one();
    }
    deliveries.runHere();
    std::uint64_t expected = begun;
    return delivery_.compare_exchange_strong(expected, begun & ~kDelivering);
}

// Waits until the loop's owner has been inside one round of completions for a whole watch
// period, then takes the loop over. Between rounds of completions it sleeps without time-out.
void Loop::standBy() {
    std::unique_lock lock(standbyMutex_);
    standbyReady_.store(true);
    for (;;) {
        standbyCv_.wait(lock, [&] { return watching_.load(); });
        std::uint64_t seen = delivery_.load();
        for (;;) {
            standbyCv_.wait_for(lock, kWatchPeriod);
            const std::uint64_t now = delivery_.load();
            if (now != seen) {
                seen = now;
                continue;
            }
            if (now & kDelivering) {
                std::uint64_t expected = now;
                if (delivery_.compare_exchange_strong(expected, now & ~kDelivering)) {
                    standbyReady_.store(false);
                    watching_.store(false);
                    return;
                }
                seen = expected;
                continue;
            }
            // No completion ran for a whole period: stop watching, unless one began while
            // this thread was saying so (the owner then saw it still watching, and woke no one).
            watching_.store(false);
            if (delivery_.load() == seen) break;
            watching_.store(true);
            seen = delivery_.load();
        }
    }
}

std::string readCAFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        printI("❌ Could not read the trusted certificate file " + path, LogLevel::error);
        return {};
    }
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::shared_ptr<const SessionState> makeState(URLSessionConfiguration cfg, bool registry) {
    auto s = std::make_shared<SessionState>();
    if (cfg.additionalTrustedCAFile) s->extraCAPEM = readCAFile(*cfg.additionalTrustedCAFile);
    if (cfg.additionalTrustedCAPEM) {
        if (!s->extraCAPEM.empty() && s->extraCAPEM.back() != '\n') s->extraCAPEM += '\n';
        s->extraCAPEM += *cfg.additionalTrustedCAPEM;
    }
    s->configuration = std::move(cfg);
    s->consultsRegistry = registry;
    return s;
}

// The client a handler reports to: gathers the response and the bytes, and completes the task
// at the end.
class TaskClient final : public URLProtocolClient {
  public:
    explicit TaskClient(std::shared_ptr<TaskCore> core) : core_(std::move(core)) {}

    void didReceiveResponse(URLProtocol&, const HTTPURLResponse& response,
                            URLCacheStoragePolicy) override {
        std::lock_guard lock(mutex_);
        if (core_->done.load()) return;
        response_ = response;
    }
    void didLoadData(URLProtocol&, std::string_view data) override {
        bool over = false;
        {
            std::lock_guard lock(mutex_);
            if (core_->done.load()) return;
            const auto max = core_->session->configuration.maximumResponseBodySize;
            if (data_.size() + data.size() > max) {
                over = true;
            } else {
                data_.append(data);
            }
        }
        if (over && core_->claim()) {
            core_->deliver(std::nullopt, takeResponse(),
                           URLError::make(URLErrorCode::dataLengthExceedsMaximum));
            core_->releaseHandler(true);
        }
    }
    void didFinishLoading(URLProtocol&) override {
        if (!core_->claim()) return;
        std::string data;
        {
            std::lock_guard lock(mutex_);
            data = std::move(data_);
        }
        core_->deliver(std::move(data), takeResponse(), std::nullopt);
        core_->releaseHandler(false);
    }
    void didFailWithError(URLProtocol&, const URLError& error) override {
        if (!core_->claim()) return;
        core_->deliver(std::nullopt, takeResponse(), error);
        core_->releaseHandler(false);
    }

  private:
    std::optional<HTTPURLResponse> takeResponse() {
        std::lock_guard lock(mutex_);
        return std::move(response_);
    }
    std::shared_ptr<TaskCore> core_;
    std::mutex mutex_;
    std::optional<HTTPURLResponse> response_;
    std::string data_;
};

// Runs on the executor: offers the request to the session's handler classes, and starts the
// first that admits it, or hands the request to the loading thread.
void startWithHandlers(const std::shared_ptr<TaskCore>& core,
                       const std::vector<std::shared_ptr<const URLProtocolClass>>& classes) {
    if (core->done.load()) return;
    // The handler (if it was made) holds the task through its client: letting it go breaks
    // that cycle.
    auto failToStart = [&](const std::string& detail) {
        printI("❌ A protocol handler failed to start: " + detail, LogLevel::error);
        core->releaseHandler(false);
        if (core->claim()) {
            core->deliver(std::nullopt, std::nullopt,
                          URLError::make(URLErrorCode::unknown, detail));
        }
    };
    for (const auto& cls : classes) {
        bool admitted = false;
        runReportingThrows("A protocol handler's admission test",
                           [&] { admitted = cls->canInit(core->request); });
        if (!admitted) continue;
        try {
            URLRequest canonical = cls->canonicalRequest(core->request);
            auto client = std::make_shared<TaskClient>(core);
            std::shared_ptr<URLProtocol> handler = cls->create(canonical, std::move(client));
            if (!handler) continue;
            std::lock_guard lock(core->handlerMutex);
            if (core->done.load()) return;
            core->handler = handler;
            handler->startLoading();
        } catch (const std::exception& e) {
            failToStart(e.what());
        } catch (...) {
            // Nothing may reach the caller, which may be the application's thread.
            failToStart("unknown exception");
        }
        return;
    }
    core->onLoop.store(true);
    Loop::instance().add(core);
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
        network::internal::Loop::instance().add(core_);
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
    if (!core_->claim()) return;
    core_->state.store(TaskState::canceling);
    core_->deliver(std::nullopt, std::nullopt, URLError::make(URLErrorCode::cancelled));
    if (core_->onLoop.load()) {
        network::internal::Loop::instance().cancel(core_);
    } else {
        core_->releaseHandler(true);
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

std::shared_ptr<URLSessionDataTask> URLSession::dataTask(std::string url,
                                                         CompletionHandler completion) {
    return dataTask(URLRequest(std::move(url)), std::move(completion));
}

std::size_t URLSession::activeTransferCount() {
    return network::internal::Loop::instance().activeCount();
}

}  // namespace kestro
