#include "kestro/store/serial_queue.h"

namespace kestro::store::internal {

void SerialQueue::acquire() {
    std::unique_lock lock(mutex_);
    const std::uint64_t ticket = nextTicket_++;
    if (serving_ != ticket) {
        // Tickets keep arrival order: a caller that has waited is never overtaken by a newer
        // one that happens to wake first.
        ++waiting_;
        handedOver_.wait(lock, [&] { return serving_ == ticket; });
        --waiting_;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

void SerialQueue::release() {
    std::lock_guard lock(mutex_);
    owner_.store(std::thread::id(), std::memory_order_relaxed);
    ++serving_;
    if (waiting_ > 0) handedOver_.notify_all();
}

}  // namespace kestro::store::internal
