#pragma once

// Internal to the network subsystem: the loading loop as the rest of the layer sees it.
//
// One libcurl multi handle for every session of the process, driven through its socket
// interface on an epoll set by one of the two loading threads (loading_threads.h). The loop
// holds the tasks that go to the network: it gives each a transfer slot of its origin
// (origin_queues.h) and an easy handle (easy_handles.h), sends it, gathers the answer, and
// completes the task. It also keeps the time of every task, those that a protocol handler
// loads included, and fails a task that stays idle or runs past its time-outs.

#include <cstddef>
#include <functional>
#include <memory>

namespace kestro::network::internal {

struct TaskCore;
struct Deferred;

/// Hands a running task to the network. The calling thread sets the transfer up and sends the
/// request itself when the loop is free, otherwise the loading thread does. Any thread.
void loadOnNetwork(std::shared_ptr<TaskCore> core);
/// Lets go of a task the loop holds, after it has been completed by its cancellation. Any thread.
void cancelOnNetwork(std::shared_ptr<TaskCore> core);
/// Resumes the transfer of a streamed task that paused because its buffer was full. Any
/// thread.
void resumeOnNetwork(std::shared_ptr<TaskCore> core);
/// From libcurl's write callback, under the loop's mutex: a streamed task has new bytes. At the
/// end of the round the loop starts their delivery, unless the task has completed meanwhile (its
/// completion then hands them on).
void noteStreamBytes(TaskCore& core);
/// Tasks the loop holds (waiting for a slot or transferring).
std::size_t heldTaskCount();

/// Times a task that a protocol handler loads, as the loop times its own: when the task shows
/// no sign of life (a call of its client) for its idle time-out, or runs past its resource
/// time-out, the loop completes it with a time-out error and tells the handler stopLoading().
/// Call with the task's timedAsHandled already set. Any thread; it costs the loop no wake-up
/// unless the task's deadline comes before the loop would look next.
void timeHandledTask(std::shared_ptr<TaskCore> core);
/// The task has completed: the loop stops timing it. Any thread.
void stopTimingHandledTask(TaskCore& core);

/// Work made by a completion that runs on the loading thread: it goes to the loop's hand-over
/// list, which the thread takes on its next round, or which the stand-by finds there when it
/// takes the loop over from a completion that waits.
void handOverToLoop(Deferred d);

/// Runs work on the thread that drives the loading loop, on its next round, or on a worker of
/// the global executor when transfers are under way there. A sleeping loop is not woken for
/// it at once: the work waits for the loop's next event (typically the answer to a request
/// just started) and at most about 2 ms. Work that must not wait on the calling thread, but
/// need not run at once either (a request's start report), so costs no thread wake-up of its
/// own. A throw is caught and reported on the console.
void runOnLoadingThreadSoon(std::function<void()> work);

}  // namespace kestro::network::internal
