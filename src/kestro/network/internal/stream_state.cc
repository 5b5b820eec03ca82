#include "kestro/network/internal/stream_state.h"

#include <utility>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/network/internal/loading_loop.h"
#include "kestro/network/internal/task_core.h"

namespace kestro::network::internal {

bool StreamState::offer(std::string_view bytes) {
    std::lock_guard lock(mutex_);
    if (closed_) return true;  // dropped; the transfer is being let go
    if (pending_.size() >= URLSession::kStreamBufferBytes) {
        paused_ = true;
        return false;
    }
    pending_.append(bytes);
    return true;
}

void StreamState::startDelivery(const std::shared_ptr<TaskCore>& core) {
    {
        std::lock_guard lock(mutex_);
        if (closed_ || draining_ || pending_.empty()) return;
        draining_ = true;
    }
    postTask([core] { core->stream->drain(core); });
}

void StreamState::deliverHere(TaskCore& core, std::string_view bytes) {
    if (bytes.empty()) return;
    std::optional<HTTPURLResponse> head;
    {
        std::lock_guard lock(mutex_);
        if (closed_) return;
        if (draining_) {
            pending_.append(bytes);
            return;
        }
        draining_ = true;
        if (!headGiven_) {
            head = head_;
            headGiven_ = true;
        }
    }
    hand(head, bytes);
    drain(core.shared_from_this());
}

void StreamState::setHead(HTTPURLResponse head) {
    std::lock_guard lock(mutex_);
    if (!headGiven_) head_ = std::move(head);
}

bool StreamState::completeAfterData(std::optional<HTTPURLResponse>& response,
                                    std::optional<URLError>& error) {
    std::lock_guard lock(mutex_);
    if (!draining_) return false;
    ended_ = true;
    endResponse_ = std::move(response);
    endError_ = std::move(error);
    return true;
}

void StreamState::beforeCompletion(const std::optional<HTTPURLResponse>& response) {
    std::optional<HTTPURLResponse> head;
    std::string bytes;
    {
        std::lock_guard lock(mutex_);
        if (cancelled_ || draining_) return;
        if (!headGiven_) {
            head = response ? response : head_;
            headGiven_ = true;
        }
        bytes.swap(pending_);
        if (!head && bytes.empty()) return;
        draining_ = true;
    }
    if (head && handlers_.response) {
        runReportingThrows("A streamed task's response handler",
                           [&] { handlers_.response(*head); });
    }
    if (!bytes.empty() && handlers_.data) {
        runReportingThrows("A streamed task's data handler", [&] { handlers_.data(bytes); });
    }
    std::lock_guard lock(mutex_);
    draining_ = false;
}

void StreamState::close() {
    std::lock_guard lock(mutex_);
    closed_ = true;
}

void StreamState::cancel() {
    std::lock_guard lock(mutex_);
    cancelled_ = closed_ = true;
    pending_ = {};
}

void StreamState::hand(const std::optional<HTTPURLResponse>& head, std::string_view bytes) {
    if (head && handlers_.response) {
        runReportingThrows("A streamed task's response handler",
                           [&] { handlers_.response(*head); });
    }
    if (handlers_.data) {
        runReportingThrows("A streamed task's data handler", [&] { handlers_.data(bytes); });
    }
}

// Hands on what waits until nothing does; the bytes are taken in one piece each round, so the
// loop can fill the buffer again meanwhile.
void StreamState::drain(const std::shared_ptr<TaskCore>& core) {
    std::string bytes;
    for (;;) {
        std::optional<HTTPURLResponse> head;
        bool resume = false;
        bool complete = false;
        std::optional<HTTPURLResponse> response;
        std::optional<URLError> error;
        {
            std::lock_guard lock(mutex_);
            if (pending_.empty() || closed_) {
                draining_ = false;
                if (closed_) pending_ = {};
                if (!ended_) return;
                ended_ = false;
                complete = true;
                response = std::move(endResponse_);
                error = std::move(endError_);
            } else {
                bytes.clear();
                bytes.swap(pending_);  // the loop refills the other buffer meanwhile
                if (!headGiven_) {
                    head = head_;
                    headGiven_ = true;
                }
                resume = std::exchange(paused_, false);
            }
        }
        if (complete) {
            std::optional<std::string> body;
            if (!error) body.emplace();
            core->deliver(std::move(body), std::move(response), std::move(error));
            return;
        }
        if (resume) resumeOnNetwork(core);
        hand(head, bytes);
    }
}

}  // namespace kestro::network::internal
