#pragma once

// Internal to the network subsystem: the state of one data task and of its session.

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/network/internal/delivery.h"
#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/stream_state.h"
#include "kestro/network/internal/trust_store.h"
#include "kestro/network/url_protocol.h"
#include "kestro/network/url_session.h"

namespace kestro::network::internal {

using Clock = std::chrono::steady_clock;

/// What a session's tasks share: its configuration, fixed when the session is made.
struct SessionState {
    URLSessionConfiguration configuration;
    bool consultsRegistry = false;
    SessionTrust trust;
};

enum class TaskState : std::uint8_t { suspended, running, canceling, completed };

/// One task. Owned jointly by the user's URLSessionDataTask handle, the loading loop while it
/// transfers, and a handler's client while a handler loads it.
///
/// Whoever wins claim() completes the task: it keeps the outcome with deliver(), which hands
/// the completion on (never running it inside the call that completed the task).
struct TaskCore : std::enable_shared_from_this<TaskCore> {
    std::uint64_t id = 0;
    URLRequest request;
    std::shared_ptr<const SessionState> session;
    URLSessionDataTask::CompletionHandler completion;  // touched only by the winner of `done`
    // Set for a streamed task: its answer is handed on as it arrives, not collected.
    std::unique_ptr<StreamState> stream;

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
    bool held = false;              // the loop holds the task (waiting for a slot or transferring)
    bool streamBytesNoted = false;  // a streamed task's new bytes await the end of the round
    std::shared_ptr<TaskCore> heldRef;  // the loop's reference while held
    TaskCore* heldPrev = nullptr;       // neighbours in the loop's list of held tasks
    TaskCore* heldNext = nullptr;
    CURL* easy = nullptr;
    // The request's header lines, each "Name: value" and a NUL, and the list libcurl reads:
    // nodes pointing into those lines (header_list.h).
    std::string headerLines;
    std::vector<curl_slist> headerNodes;
    std::string body;
    HTTPHeaderFields responseHeaders;
    std::string statusLineVersion;
    bool overLimit = false;
    bool sizeChecked = false;
    curl_off_t lastUp = 0, lastDown = 0;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // Time-outs, the same whoever loads the task: the loop times every task, those a handler
    // loads included. Set by startClock() before the task is handed on.
    Clock::time_point startedAt;
    Clock::duration idleTimeout{};      // the request's timeoutInterval, or its session's
    Clock::duration resourceTimeout{};  // the session's timeoutIntervalForResource
    // The last sign of life: bytes moving on the task's transfer, a call of its handler's
    // client, or bytes moving on a load the handler makes for it (activityAlsoOf).
    std::atomic<Clock::rep> lastActivity{0};
    // Set on a task a handler loads through another task of the layer: activity of this task
    // counts for that one too (see relayActivity()).
    std::shared_ptr<TaskCore> activityAlsoOf;

    // Handler path, timed by the loop: set before the loop is asked to time the task, so that
    // whoever completes it knows to let the loop know. The list fields are touched only under
    // the loop's mutex.
    std::atomic<bool> timedAsHandled{false};
    bool inHandledList = false;
    std::shared_ptr<TaskCore> handledRef;
    TaskCore* handledPrev = nullptr;
    TaskCore* handledNext = nullptr;

    /// Takes the task's limits from its request and session and starts its clock. Before the
    /// task is handed on.
    void startClock();
    void markActive(Clock::time_point now) {
        lastActivity.store(now.time_since_epoch().count(), std::memory_order_relaxed);
        if (activityAlsoOf) activityAlsoOf->markActive(now);
    }
    Clock::time_point lastActive() const {
        return Clock::time_point(Clock::duration(lastActivity.load(std::memory_order_relaxed)));
    }
    /// When the task times out unless it shows a sign of life first.
    Clock::time_point deadline() const {
        return std::min(lastActive() + idleTimeout, startedAt + resourceTimeout);
    }
    /// The error of a task that timed out at `now`: which of its limits passed, in the same
    /// words whoever loaded it.
    URLError timeoutError(Clock::time_point now) const;

    /// Claims the right to complete. True for exactly one caller.
    bool claim() { return !done.exchange(true, std::memory_order_acq_rel); }

    /// Called by the winner of claim(): keeps the outcome and hands the completion on.
    void deliver(std::optional<std::string> data, std::optional<HTTPURLResponse> response,
                 std::optional<URLError> error) {
        state.store(TaskState::completed);
        if (stream) stream->close();  // a streamed task hands nothing on after its completion
        resultData = std::move(data);
        resultResponse = std::move(response);
        resultError = std::move(error);
        if (timedAsHandled.load()) stopTimingHandledTask(*this);
        DeliveryBatch::handOn({Deferred::Kind::complete, shared_from_this()});
    }

    void runCompletion() {
        auto cb = std::move(completion);
        completion = nullptr;
        auto data = std::move(resultData);
        auto response = std::move(resultResponse);
        auto error = std::move(resultError);
        if (stream) stream->beforeCompletion(response);
        if (!cb) return;
        runReportingThrows("A request's completion",
                           [&] { cb(std::move(data), std::move(response), std::move(error)); });
    }

    /// Lets go of the handler object, which holds our client and so this task. Deferred because
    /// the caller may be inside one of the handler's own calls; with `stop` the handler is told
    /// stopLoading() first (it had not ended the load itself).
    void releaseHandler(bool stop) {
        DeliveryBatch::handOn(
            {stop ? Deferred::Kind::stopAndReleaseHandler : Deferred::Kind::releaseHandler,
             shared_from_this()});
    }

    /// Taking the handler under handlerMutex orders this after startLoading() has returned.
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

/// The task behind a data task's handle, for the layer's own code.
struct TaskAccess {
    static const std::shared_ptr<TaskCore>& core(const URLSessionDataTask& task) {
        return task.core_;
    }
};

}  // namespace kestro::network::internal
