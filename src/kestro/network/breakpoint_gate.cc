#include "kestro/network/breakpoint_gate.h"

#include <algorithm>

#include "kestro/core/executor.h"

namespace kestro {

struct BreakpointGate::Hold {
    Resume resume;
    DelayedTask timeout;
};

std::shared_ptr<BreakpointGate> BreakpointGate::create() {
    std::shared_ptr<BreakpointGate> gate(new BreakpointGate());
    gate->self_ = gate;
    return gate;
}

BreakpointGate::~BreakpointGate() {
    for (auto& h : held_) {
        h->timeout.cancel();
        if (h->resume) postTask([resume = std::move(h->resume)] { resume(false); });
    }
}

BreakpointGate::Ticket BreakpointGate::hold(Resume resume, std::chrono::steady_clock::duration timeout) {
    auto h = std::make_shared<Hold>();
    h->resume = std::move(resume);
    Ticket ticket;
    {
        std::lock_guard lock(mutex_);
        if (permits_ > 0) {
            --permits_;
            postTask([resume = std::move(h->resume)] { resume(true); });
            return ticket;
        }
        held_.push_back(h);
    }
    ticket.hold_ = h;
    ticket.gate_ = self_;
    // The timer holds the gate weakly: a gate that is gone has nothing left to time out.
    std::weak_ptr<Hold> weakHold = h;
    std::weak_ptr<BreakpointGate> weakGate = self_;
    auto timer = runAfter(timeout, [weakHold, weakGate] {
        auto gate = weakGate.lock();
        auto hold = weakHold.lock();
        if (gate && hold) gate->finish(hold, false);
    });
    {
        std::lock_guard lock(mutex_);
        h->timeout = std::move(timer);
    }
    return ticket;
}

void BreakpointGate::finish(const std::shared_ptr<Hold>& hold, bool released) {
    Resume resume;
    DelayedTask timer;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find(held_.begin(), held_.end(), hold);
        if (it == held_.end()) return;  // already released, timed out or cancelled
        held_.erase(it);
        resume = std::move(hold->resume);
        timer = std::move(hold->timeout);
    }
    timer.cancel();
    if (resume) postTask([resume = std::move(resume), released] { resume(released); });
}

void BreakpointGate::release() {
    std::list<std::shared_ptr<Hold>> released;
    {
        std::lock_guard lock(mutex_);
        if (held_.empty()) {
            ++permits_;
            return;
        }
        released.swap(held_);
    }
    for (auto& h : released) {
        h->timeout.cancel();
        postTask([resume = std::move(h->resume)] { resume(true); });
    }
}

void BreakpointGate::Ticket::cancel() {
    auto gate = gate_.lock();
    auto hold = hold_.lock();
    if (gate && hold) gate->finish(hold, false);
    hold_.reset();
}

std::size_t BreakpointGate::heldCount() const {
    std::lock_guard lock(mutex_);
    return held_.size();
}

std::int64_t BreakpointGate::sparePermits() const {
    std::lock_guard lock(mutex_);
    return permits_;
}

}  // namespace kestro
