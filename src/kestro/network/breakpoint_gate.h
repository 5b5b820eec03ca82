#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "kestro/core/export.h"

namespace kestro {

/// The gate at which requests wait while breakpoints are on: a counting semaphore whose
/// waiters are continuations, not threads, so any number of held requests costs no thread.
///
/// release() lets every held request go on; with none held it stores one spare permit, which
/// lets the next request that would be held pass at once. A held request that is not released
/// within its time-out is resumed with `released == false`.
///
/// Continuations run on the global executor, never on the caller of release() or hold().
/// Thread safety: every member may be called from any thread.
class KESTRO_API BreakpointGate {
public:
    /// Called once: true when the request may go on, false when its time-out passed or the
    /// hold was cancelled.
    using Resume = std::function<void(bool released)>;

    class Hold;
    /// Cancels the hold it refers to when destroyed or cancelled; the continuation is then
    /// called with false (unless it already ran).
    class KESTRO_API Ticket {
    public:
        Ticket() = default;
        void cancel();
        explicit operator bool() const { return !hold_.expired(); }

    private:
        friend class BreakpointGate;
        std::weak_ptr<Hold> hold_;
        std::weak_ptr<BreakpointGate> gate_;
    };

    static std::shared_ptr<BreakpointGate> create();
    /// Resumes every request still held with false: nothing is left waiting on a gate that
    /// no longer exists.
    ~BreakpointGate();

    /// Takes a spare permit and resumes at once (on the executor), or holds until release()
    /// or the time-out.
    Ticket hold(Resume resume, std::chrono::steady_clock::duration timeout);
    /// Resumes every held request; with none held, stores one spare permit.
    void release();

    std::size_t heldCount() const;
    std::int64_t sparePermits() const;

private:
    BreakpointGate() = default;
    void finish(const std::shared_ptr<Hold>& hold, bool released);

    mutable std::mutex mutex_;
    std::list<std::shared_ptr<Hold>> held_;
    std::int64_t permits_ = 0;
    std::weak_ptr<BreakpointGate> self_;
};

}  // namespace kestro
