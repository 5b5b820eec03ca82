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

/// The bytes of a streamed task on their way to its handlers. One delivery runs at a time (a
/// worker of the global executor, or the thread of a protocol handler's client call) and
/// takes everything waiting in one piece; the task's completion is made by that delivery once
/// the last bytes are handed on. The transfer is paused while kStreamBufferBytes wait.
class StreamState {
  public:
    explicit StreamState(URLSessionStreamHandlers handlers) : handlers_(std::move(handlers)) {}

    /// The loop, under its mutex: keeps the bytes and posts a delivery when none runs. False
    /// when the buffer is full: nothing was kept, the transfer must pause, and it is resumed
    /// (resumeOnNetwork) when a delivery takes the buffer.
    bool offer(TaskCore& core, std::string_view bytes);
    /// A protocol handler's client call: hands the bytes on here unless a delivery runs.
    void deliverHere(TaskCore& core, std::string_view bytes);
    /// The head the coming bytes belong to.
    void setHead(HTTPURLResponse head);
    /// Called by the winner of the task's claim(): true when a delivery is still running,
    /// which then completes the task with this outcome after the last bytes.
    bool completeAfterData(std::optional<HTTPURLResponse>& response,
                           std::optional<URLError>& error);
    /// Just before the completion runs: the head, when no bytes brought it.
    void headBeforeCompletion(const std::optional<HTTPURLResponse>& response);
    /// The task has completed: no more bytes are handed on.
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
