#include "kestro/network/internal/loading_loop.h"

#include <curl/curl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <unordered_set>

#include "kestro/network/internal/delivery.h"
#include "kestro/network/internal/easy_handles.h"
#include "kestro/network/internal/header_list.h"
#include "kestro/network/internal/loading_threads.h"
#include "kestro/network/internal/origin_queues.h"
#include "kestro/network/internal/task_core.h"
#include "kestro/network/internal/transfer_errors.h"

namespace kestro::network::internal {

namespace {

// ---------------------------------------------------------------------------------------------
// All of the loop's state is guarded by one mutex. The loading thread holds that mutex except
// while it waits in epoll_wait; a thread that resumes or cancels a task while the mutex is free
// does the work itself (setting up the transfer and sending the request), so a request on an
// idle loop costs no thread hop on the way out. When the mutex is busy the work is queued as a
// command and the loading thread is woken through an eventfd.
//
// Completions made by the loading thread run on it, after it has let go of the mutex, when
// no other transfer is held: a lone request then reaches its completion without waking another
// thread. While other transfers are held they are posted to the executor, so no completion
// delays them. A completion may still run long or wait (for a request it started, say); the
// second loading thread then takes the loop over (loading_threads.h). Completions made on other
// threads (a cancellation, a worker that found a transfer finished) are posted to the executor.

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
    void resume(std::shared_ptr<TaskCore> core) {
        DeliveryBatch batch;
        if (std::unique_lock lock = tryLock(); lock.owns_lock()) {
            tHoldsLoop = true;
            unpause(core.get());
            settle();
            passToOwner(batch);
            wakeIfSleepingTooLong();
            tHoldsLoop = false;
            return;
        }
        push({Command::resume, std::move(core)});
    }
    void timeHandled(std::shared_ptr<TaskCore> core) {
        const Clock::time_point deadline = core->deadline();
        if (tHoldsLoop) {
            linkHandled(core);
            return;
        }
        if (std::unique_lock lock = tryLock(); lock.owns_lock()) {
            linkHandled(core);
            wakeIfSleepingTooLong();
            return;
        }
        // The loop looks at its commands at least once per kLongestSleep: a later deadline
        // needs no wake-up.
        const bool soon = deadline < Clock::now() + kLongestSleep;
        push({Command::timeHandled, std::move(core)}, soon);
    }
    void stopTimingHandled(TaskCore& core) {
        if (tHoldsLoop) {
            unlinkHandled(&core);
            return;
        }
        if (std::unique_lock lock = tryLock(); lock.owns_lock()) {
            unlinkHandled(&core);
            return;
        }
        push({Command::stopTimingHandled, core.shared_from_this()}, false);
    }
    std::size_t activeCount() const { return activeCount_.load(); }
    // Under mutex_ (from the write callback).
    void noteStream(TaskCore& core) {
        if (core.streamBytesNoted) return;
        core.streamBytesNoted = true;
        streamsWithBytes_.push_back(core.shared_from_this());
    }
    void handOver(Deferred d);
    void handOverSoon(Deferred d);

  private:
    struct Command {
        enum Kind { add, cancel, resume, timeHandled, stopTimingHandled } kind;
        std::shared_ptr<TaskCore> core;
    };

    Loop();

    // The loop mutex, unless another thread holds it or this thread already does (a
    // destructor run under it may start or cancel a task).
    std::unique_lock<std::mutex> tryLock() {
        if (tHoldsLoop) return {};
        return std::unique_lock<std::mutex>(mutex_, std::try_to_lock);
    }
    void push(Command c, bool wakeLoop = true);
    void passToOwner(DeliveryBatch& batch);
    void ownerHasWork();
    void wake();
    void wakeIfSleepingTooLong();

    void run();
    void settle();
    void start(const std::shared_ptr<TaskCore>& core);
    bool begin(const std::shared_ptr<TaskCore>& core);
    void slotFreed(const std::string& origin);
    void hold(const std::shared_ptr<TaskCore>& core);
    std::shared_ptr<TaskCore> unhold(TaskCore* core);
    void finish(TaskCore* core, CURLcode result);
    void drop(TaskCore* core);
    void unpause(TaskCore* core);
    void linkHandled(const std::shared_ptr<TaskCore>& core);
    void unlinkHandled(TaskCore* core);
    void checkIdle(Clock::time_point now);
    static bool usedOnce(TaskCore* core);

    static int onSocket(CURL* easy, curl_socket_t s, int what, void* user, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* user);

    static constexpr auto kIdleScanInterval = std::chrono::milliseconds(5);
    static constexpr auto kLongestSleep = std::chrono::milliseconds(1000);
    // Longest wait of work handed over with handOverSoon() while the owner sleeps.
    static constexpr auto kSoonDelay = std::chrono::milliseconds(2);

    static thread_local bool tHoldsLoop;

    CURLM* multi_ = nullptr;
    int epoll_ = -1;
    int wakeFd_ = -1;
    // Wakes a sleeping owner for work handed over "soon" that no transfer event brought it to.
    int soonTimerFd_ = -1;

    std::mutex commandMutex_;
    std::vector<Command> commands_;
    // Streamed tasks that received bytes this round (under mutex_).
    std::vector<std::shared_ptr<TaskCore>> streamsWithBytes_;
    bool wakeRequested_ = false;  // a wake-up was sent for commands_ since the loop took them

    // Guarded by mutex_.
    std::mutex mutex_;
    TaskCore* held_ = nullptr;  // tasks waiting for a slot or transferring, linked through them
    std::size_t heldCount_ = 0;
    TaskCore* handled_ = nullptr;  // tasks a protocol handler loads, timed here
    OriginQueues origins_;
    EasyHandles handles_;
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

    LoadingThreads threads_;
};

thread_local bool Loop::tHoldsLoop = false;

Loop::Loop() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    multi_ = curl_multi_init();
    curl_multi_setopt(multi_, CURLMOPT_MAX_HOST_CONNECTIONS, OriginQueues::kMaxConnectionsPerHost);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 4 * OriginQueues::kMaxConnectionsPerHost);
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
    threads_.start([this] { run(); });
}

void Loop::push(Command c, bool wakeLoop) {
    bool first = false;
    {
        std::lock_guard lock(commandMutex_);
        commands_.push_back(std::move(c));
        first = wakeLoop && !wakeRequested_;
        if (first) wakeRequested_ = true;
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

bool Loop::usedOnce(TaskCore* core) {
    if (core->session->trust.custom()) return true;
    long redirects = 0;
    curl_easy_getinfo(core->easy, CURLINFO_REDIRECT_COUNT, &redirects);
    return redirects > 0;
}

void Loop::start(const std::shared_ptr<TaskCore>& core) {
    if (core->done.load() || core->held) return;  // cancelled before it reached us
    nextIdleScan_ = std::min(nextIdleScan_, core->deadline());
    hold(core);

    if (!origins_.takeSlot(core)) return;  // waits in its origin's queue
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
    CURL* e = handles_.take();
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
    // Both time-outs are the loop's (checkIdle), as for a task that a handler loads; libcurl's
    // connection time-out is set to the idle one only so that its own default (300 s) never
    // ends a connection attempt sooner.
    curl_easy_setopt(
        e, CURLOPT_CONNECTTIMEOUT_MS,
        static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(core->idleTimeout).count()));
    if (core->session->trust.custom()) applyTrust(e, core->session->trust);

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

    setRequestHeaders(e, *core);

    if (curl_multi_add_handle(multi_, e) != CURLM_OK) {
        freeRequestHeaders(*core);
        core->easy = nullptr;
        handles_.give(e, true);
        return fail("add");
    }
    return true;
}

// A transfer of `origin` has ended: the next waiting tasks of that origin take the slot.
void Loop::slotFreed(const std::string& origin) {
    origins_.slotFreed(origin,
                       [this](const std::shared_ptr<TaskCore>& next) { return begin(next); });
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
    handles_.give(core->easy, usedOnce(core));
    core->easy = nullptr;
    freeRequestHeaders(*core);
    slotFreed(core->origin);
}

namespace {

// The transfer's phases from libcurl's cumulative times (each from the transfer's start, in
// microseconds). A reused connection made no new connection: its lookup, connect and TLS are 0
// (libcurl may still report the instant it found the connection). What follows the handshake
// up to the first byte of the answer (sending the request, the server's work) is the wait; the
// pre-transfer stamp is not a phase of its own. Each phase is clamped at 0 so
// that the five always add up to the whole time, whatever order libcurl's stamps come in.
URLSessionTaskMetrics transferMetrics(CURL* easy) {
    const auto at = [easy](CURLINFO info) {
        curl_off_t us = 0;
        curl_easy_getinfo(easy, info, &us);
        return std::max<curl_off_t>(us, 0);
    };
    long connects = 0;
    curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &connects);
    const curl_off_t total = at(CURLINFO_TOTAL_TIME_T);
    const curl_off_t started = std::min(at(CURLINFO_STARTTRANSFER_TIME_T), total);
    curl_off_t lookup = 0, connected = 0, secured = 0;
    if (connects > 0) {
        lookup = std::min(at(CURLINFO_NAMELOOKUP_TIME_T), started);
        connected = std::clamp(at(CURLINFO_CONNECT_TIME_T), lookup, started);
        const curl_off_t app = at(CURLINFO_APPCONNECT_TIME_T);  // 0 without TLS
        secured = app > 0 ? std::clamp(app, connected, started) : connected;
    }
    const auto ms = [](curl_off_t us) { return static_cast<double>(us) / 1000.0; };
    return URLSessionTaskMetrics{ms(lookup), ms(connected - lookup), ms(secured - connected),
                                 ms(started - secured), ms(total - started)};
}

}  // namespace

// A streamed task's handler has taken its buffer: the paused transfer goes on (libcurl hands
// the bytes it held back to the write callback first).
void Loop::unpause(TaskCore* core) {
    if (core->held && core->easy) curl_easy_pause(core->easy, CURLPAUSE_CONT);
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
        response->metrics = transferMetrics(core->easy);
    }
    std::optional<URLError> error;
    if (result != CURLE_OK) error = errorFor(result, *core);
    std::shared_ptr<TaskCore> keep = core->shared_from_this();
    std::string body = std::move(core->body);
    drop(core);
    if (!keep->claim()) return;  // cancelled meanwhile: the cancellation already completed it
    // A streamed task completes after its last bytes have been handed on.
    if (keep->stream && keep->stream->completeAfterData(response, error)) return;
    if (error) {
        keep->deliver(std::nullopt, std::move(response), std::move(error));
    } else {
        keep->deliver(std::move(body), std::move(response), std::nullopt);
    }
}

void Loop::linkHandled(const std::shared_ptr<TaskCore>& core) {
    if (core->done.load() || core->inHandledList) return;  // completed before it reached us
    core->inHandledList = true;
    core->handledRef = core;
    core->handledPrev = nullptr;
    core->handledNext = handled_;
    if (handled_) handled_->handledPrev = core.get();
    handled_ = core.get();
    nextIdleScan_ = std::min(nextIdleScan_, core->deadline());
}

void Loop::unlinkHandled(TaskCore* core) {
    if (!core->inHandledList) return;
    core->inHandledList = false;
    if (core->handledPrev) {
        core->handledPrev->handledNext = core->handledNext;
    } else {
        handled_ = core->handledNext;
    }
    if (core->handledNext) core->handledNext->handledPrev = core->handledPrev;
    core->handledPrev = core->handledNext = nullptr;
    std::shared_ptr<TaskCore> last = std::move(core->handledRef);
}

// Fails every task, on the network or with a handler, that has shown no sign of life for its
// idle time-out or has run past its resource time-out.
void Loop::checkIdle(Clock::time_point now) {
    if (now < nextIdleScan_) return;
    // Activity only moves deadlines later, so the earliest deadline seen now is the next time
    // a scan can find anything (new tasks pull it earlier in start() and linkHandled()).
    std::vector<TaskCore*> expired;
    std::vector<TaskCore*> expiredHandled;
    Clock::time_point earliest = now + std::chrono::seconds(1);
    auto look = [&](TaskCore* core, std::vector<TaskCore*>& out) {
        const auto deadline = core->deadline();
        if (now > deadline) {
            out.push_back(core);
        } else {
            earliest = std::min(earliest, deadline);
        }
    };
    for (TaskCore* core = held_; core; core = core->heldNext) look(core, expired);
    for (TaskCore* core = handled_; core; core = core->handledNext) look(core, expiredHandled);
    nextIdleScan_ = std::max(earliest, now + kIdleScanInterval);
    for (TaskCore* core : expired) {
        std::shared_ptr<TaskCore> keep = core->shared_from_this();
        drop(core);
        if (keep->claim()) keep->deliver(std::nullopt, std::nullopt, keep->timeoutError(now));
    }
    for (TaskCore* core : expiredHandled) {
        std::shared_ptr<TaskCore> keep = core->shared_from_this();
        unlinkHandled(core);
        // One that completed while its loop was told too late is only let go.
        if (!keep->claim()) continue;
        keep->deliver(std::nullopt, std::nullopt, keep->timeoutError(now));
        keep->releaseHandler(true);
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
    // Bytes of transfers still running go to a worker now; those of transfers that ended in
    // this round go with their completion, which costs no hop of its own.
    for (auto& core : streamsWithBytes_) {
        core->streamBytesNoted = false;
        if (!core->done.load()) core->stream->startDelivery(core);
    }
    streamsWithBytes_.clear();
}

// Drives the loop until the other loading thread takes it over.
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
            if (alone && threads_.standbyReady()) {
                if (!threads_.deliverHere(deliveries)) return;
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
            wakeRequested_ = false;
        }
        for (auto& c : batch) {
            switch (c.kind) {
                case Command::add:
                    start(c.core);
                    break;
                case Command::cancel:
                    drop(c.core.get());  // already completed by cancel()
                    break;
                case Command::resume:
                    unpause(c.core.get());
                    break;
                case Command::timeHandled:
                    linkHandled(c.core);
                    break;
                case Command::stopTimingHandled:
                    unlinkHandled(c.core.get());
                    break;
            }
        }
        batch.clear();
        settle();
        checkIdle(Clock::now());
    }
}

}  // namespace

void loadOnNetwork(std::shared_ptr<TaskCore> core) { Loop::instance().add(std::move(core)); }

void cancelOnNetwork(std::shared_ptr<TaskCore> core) { Loop::instance().cancel(std::move(core)); }

void resumeOnNetwork(std::shared_ptr<TaskCore> core) { Loop::instance().resume(std::move(core)); }

void noteStreamBytes(TaskCore& core) { Loop::instance().noteStream(core); }

std::size_t heldTaskCount() { return Loop::instance().activeCount(); }

void timeHandledTask(std::shared_ptr<TaskCore> core) {
    Loop::instance().timeHandled(std::move(core));
}

void stopTimingHandledTask(TaskCore& core) { Loop::instance().stopTimingHandled(core); }

void handOverToLoop(Deferred d) { Loop::instance().handOver(std::move(d)); }

void runOnLoadingThreadSoon(std::function<void()> work) {
    Loop::instance().handOverSoon({Deferred::Kind::work, nullptr, std::move(work)});
}

}  // namespace kestro::network::internal
