#pragma once

// Internal to the network subsystem: how a streamed task hands its answer on.

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "kestro/network/url_protocol.h"
#include "kestro/network/url_session.h"

namespace kestro::network::internal {

struct TaskCore;

/// The bytes of a streamed task on their way to its handlers. One delivery runs at a time and
/// takes everything waiting in one piece: a worker of the global executor, posted by the loop at
/// the end of the round that brought bytes (the task's completion then waits for it and is made
/// by it after the last bytes); the completion itself, when the transfer ended in the same round
/// (a small answer costs no thread hop of its own); or the thread of a protocol handler's client
/// call. The transfer is paused while kStreamBufferBytes wait.
class StreamState {
  public:
    explicit StreamState(URLSessionStreamHandlers handlers) : handlers_(std::move(handlers)) {}

    /// The loop, under its mutex: keeps the bytes. False when the buffer is full: nothing was
    /// kept, the transfer must pause, and it is resumed (resumeOnNetwork) when a delivery takes
    /// the buffer.
    bool offer(std::string_view bytes);
    /// The loop, at the end of a round that brought bytes to a task not yet completed: posts a
    /// delivery unless one runs.
    void startDelivery(const std::shared_ptr<TaskCore>& core);
    /// A protocol handler's client call: hands the bytes on here unless a delivery runs.
    void deliverHere(TaskCore& core, std::string_view bytes);
    /// The head the coming bytes belong to.
    void setHead(HTTPURLResponse head);
    /// Called by the winner of the task's claim(): true when a delivery is still running,
    /// which then completes the task with this outcome after the last bytes.
    bool completeAfterData(std::optional<HTTPURLResponse>& response,
                           std::optional<URLError>& error);
    /// Just before the completion runs: the head and the bytes still waiting, unless a delivery
    /// is running (the task then ended by a time-out or a failure, and they are dropped).
    void beforeCompletion(const std::optional<HTTPURLResponse>& response);
    /// The task has completed: no more bytes are taken or posted.
    void close();
    /// The task was cancelled: nothing more is handed on, not even the head.
    void cancel();

  private:
    void drain(const std::shared_ptr<TaskCore>& core);
    void hand(const std::optional<HTTPURLResponse>& head, std::string_view bytes);

    URLSessionStreamHandlers handlers_;
    std::mutex mutex_;
    std::string pending_;
    std::optional<HTTPURLResponse> head_;
    bool headGiven_ = false;
    bool draining_ = false;
    bool paused_ = false;
    bool closed_ = false;
    bool cancelled_ = false;
    bool ended_ = false;  // the completion waits for the running delivery
    std::optional<HTTPURLResponse> endResponse_;
    std::optional<URLError> endError_;
};

}  // namespace kestro::network::internal
