#include "kestro/logging/print_interceptor.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "kestro/core/console.h"
#include "kestro/core/executor.h"
#include "kestro/core/handler_slot.h"
#include "kestro/core/time_text.h"
#include "kestro/core/utf8.h"
#include "kestro/core/uuid.h"

namespace kestro {
namespace {

// What the caller hands over: the texts of one call, packed into one buffer (message, level,
// subsystem, category, file) so the hand-over touches few cache lines. Slots keep the
// buffer's capacity, so a steady stream of similar lines stops allocating on the caller's side.
struct PendingLog {
    std::string text;
    std::uint32_t lengths[5] = {};
    std::int64_t line = 0;

    void assign(std::string_view parts[5], std::int64_t atLine) {
        std::size_t total = 0;
        for (int i = 0; i < 5; ++i) total += parts[i].size();
        text.resize(total);
        char* out = text.data();
        for (int i = 0; i < 5; ++i) {
            if (!parts[i].empty()) std::memcpy(out, parts[i].data(), parts[i].size());
            out += parts[i].size();
            lengths[i] = static_cast<std::uint32_t>(parts[i].size());
        }
        line = atLine;
    }
    // Part i of the packed texts: 0 message, 1 level, 2 subsystem, 3 category, 4 file.
    std::string_view part(int i) const {
        std::size_t at = 0;
        for (int k = 0; k < i; ++k) at += lengths[k];
        return std::string_view(text).substr(at, lengths[i]);
    }
    // Whether every part is well-formed UTF-8, with one check of the whole buffer: the parts are
    // each well-formed exactly when the buffer is and no character runs across the boundary
    // between two parts (the byte at each boundary is not a continuation byte). About 70
    // instructions for a typical record; checking each of its texts on its own cost about 500.
    bool partsAreValidUTF8() const {
        if (!isValidUTF8(text)) return false;
        std::size_t at = 0;
        for (int i = 0; i < 4; ++i) {
            at += lengths[i];
            if (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) {
                return false;
            }
        }
        return true;
    }
};

// Bounded multi-producer queue on a ring of sequenced slots: producers claim a slot with one
// compare-and-swap and never take a lock. One drainer at a time consumes.
class CaptureQueue {
  public:
    static constexpr std::size_t kCapacity = 1 << 14;

    CaptureQueue() : slots_(kCapacity) {
        for (std::size_t i = 0; i < kCapacity; ++i) slots_[i].sequence.store(i);
    }

    // Claims a free slot, or nullptr when the ring is full. The caller fills it and publishes.
    struct Slot;
    Slot* claim() {
        std::size_t pos = tail_.load(std::memory_order_relaxed);
        for (;;) {
            Slot& slot = slots_[pos & (kCapacity - 1)];
            const std::size_t seq = slot.sequence.load(std::memory_order_acquire);
            const auto diff = static_cast<std::intptr_t>(seq) - static_cast<std::intptr_t>(pos);
            if (diff == 0) {
                if (tail_.compare_exchange_weak(pos, pos + 1, std::memory_order_relaxed)) {
                    slot.position = pos;
                    return &slot;
                }
            } else if (diff < 0) {
                return nullptr;
            } else {
                pos = tail_.load(std::memory_order_relaxed);
            }
        }
    }
    void publish(Slot* slot) {
        slot->sequence.store(slot->position + 1, std::memory_order_release);
    }

    // Single consumer: the next published slot, or nullptr. Only the current drainer calls
    // front() and release(); head_ is atomic because drainers take turns across threads.
    Slot* front() {
        const std::size_t head = head_.load(std::memory_order_relaxed);
        Slot& slot = slots_[head & (kCapacity - 1)];
        const std::size_t seq = slot.sequence.load(std::memory_order_acquire);
        return seq == head + 1 ? &slot : nullptr;
    }
    void release(Slot* slot) {
        const std::size_t head = head_.load(std::memory_order_relaxed);
        slot->sequence.store(head + kCapacity, std::memory_order_release);
        head_.store(head + 1, std::memory_order_relaxed);
    }

    struct Slot {
        std::atomic<std::size_t> sequence{0};
        std::size_t position = 0;
        PendingLog log;
    };

  private:
    std::vector<Slot> slots_;
    alignas(64) std::atomic<std::size_t> tail_{0};
    alignas(64) std::atomic<std::size_t> head_{0};
};

struct Capture {
    CaptureQueue queue;
    HandlerSlot<PrintInterceptor::Handler> handler{"log handler"};
    // Whether a handler is installed, for the log call's cheap check (the handler slot is
    // read only by the drainer).
    std::atomic<bool> installed{false};
    std::atomic<bool> draining{false};
    std::atomic<std::uint64_t> enqueued{0};
    std::atomic<std::uint64_t> delivered{0};
    std::atomic<std::uint64_t> processed{0};  // taken off the queue, delivered or not
    std::atomic<std::uint64_t> dropped{0};
    std::atomic<std::uint64_t> droppedReported{0};

    // Producers that found the ring full wait here for room, briefly.
    std::mutex roomMutex;
    std::condition_variable roomCv;
    std::atomic<int> waitingForRoom{0};

    // The drainer's pause between rounds; used by the one drainer there is at a time.
    boost::asio::steady_timer lingerTimer{globalExecutor()};

    // flush() waits here for the drainer to go idle.
    std::mutex idleMutex;
    std::condition_variable idleCv;
};

Capture& capture() {
    // Never destroyed: workers may still drain while the process exits.
    static Capture* c = new Capture();
    return *c;
}

std::atomic<std::int64_t> gRoomWaitMs{100};
// After a round that delivered records, the drainer looks again this much later, on a timer,
// holding no worker meanwhile; only a round that finds nothing ends the draining. A steady
// stream of log calls then never pays for waking a thread, and is delivered in bursts instead
// of by a drainer polling the ring beside the caller (which slowed the caller's own core).
constexpr auto kLinger = std::chrono::microseconds(250);
constexpr std::size_t kDrainBatch = 256;

void scheduleDrain(Capture& c);

RequestTypeLog buildRecord(PendingLog& p) {
    const TimePoint now = std::chrono::system_clock::now();
    RequestTypeLog r;
    r.id = UUID::random().string();
    r.type = "log";
    r.level = p.part(1);
    r.sentAt = now;
    r.createdAt = now;
    r.details.message = p.part(0);
    r.details.subsystem = p.part(2);
    r.details.category = p.part(3);
    r.details.filePath = p.part(4);
    r.details.file = lastPathComponent(r.details.filePath);
    r.details.line = p.line;
    // The caller's texts may hold any bytes; the record's are well-formed UTF-8. Checked here,
    // off the caller's thread.
    if (!p.partsAreValidUTF8()) repairUTF8(r);
    return r;
}

void deliver(Capture& c, const PrintInterceptor::Handler* handler, const RequestTypeLog& record) {
    if (handler && runReportingThrows("The log handler", [&] { (*handler)(record); })) {
        c.delivered.fetch_add(1, std::memory_order_relaxed);
    }
}

void reportDrops(Capture& c) {
    const std::uint64_t dropped = c.dropped.load(std::memory_order_relaxed);
    const std::uint64_t reported = c.droppedReported.exchange(dropped);
    if (dropped > reported) {
        printI(fmt::format("⚠️ Log capture dropped {} records because its queue was full "
                           "({} dropped in all)",
                           dropped - reported, dropped),
               LogLevel::warning);
    }
}

void drain(Capture& c) {
    for (;;) {
        std::size_t done = 0;
        // One lease of the handler per round: replacing it waits for the round to end.
        auto handler = c.handler.lease();
        while (auto* slot = c.queue.front()) {
            RequestTypeLog record = buildRecord(slot->log);
            c.queue.release(slot);
            c.processed.fetch_add(1, std::memory_order_release);
            if (c.waitingForRoom.load(std::memory_order_acquire) > 0) {
                std::lock_guard lock(c.roomMutex);
                c.roomCv.notify_all();
            }
            deliver(c, handler.current(), record);
            if (++done == kDrainBatch) break;  // let other executor work interleave
        }
        reportDrops(c);
        if (c.queue.front() != nullptr) {
            if (done == kDrainBatch) {
                // Yield the worker and continue in a fresh task.
                postTask([&c] { drain(c); });
                return;
            }
            continue;
        }
        if (done > 0) {
            // Still draining (log calls post nothing meanwhile): look again after a pause.
            c.lingerTimer.expires_after(kLinger);
            c.lingerTimer.async_wait([&c](const boost::system::error_code&) { drain(c); });
            return;
        }
        c.draining.store(false, std::memory_order_seq_cst);
        // A producer may have published after we saw the queue empty and before we cleared
        // the flag; it saw draining == true and did not schedule. Look once more. The fence
        // pairs with the one in scheduleDrain: at least one side sees the other's store.
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (c.queue.front() != nullptr && !c.draining.exchange(true)) continue;
        {
            std::lock_guard lock(c.idleMutex);
            c.idleCv.notify_all();
        }
        return;
    }
}

void scheduleDrain(Capture& c) {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (c.draining.load(std::memory_order_relaxed)) return;
    if (c.draining.exchange(true, std::memory_order_seq_cst)) return;
    postTask([&c] { drain(c); });
}

void enqueue(const LogCall& call, std::string_view message, std::string_view file,
             std::int64_t line) {
    Capture& c = capture();
    CaptureQueue::Slot* slot = c.queue.claim();
    if (slot == nullptr) {
        scheduleDrain(c);
        c.waitingForRoom.fetch_add(1, std::memory_order_acq_rel);
        {
            std::unique_lock lock(c.roomMutex);
            const auto deadline =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(gRoomWaitMs.load());
            while ((slot = c.queue.claim()) == nullptr) {
                if (c.roomCv.wait_until(lock, deadline) == std::cv_status::timeout) {
                    slot = c.queue.claim();
                    break;
                }
            }
        }
        c.waitingForRoom.fetch_sub(1, std::memory_order_acq_rel);
        if (slot == nullptr) {
            c.dropped.fetch_add(1, std::memory_order_relaxed);
            scheduleDrain(c);
            return;
        }
    }
    std::string_view parts[5] = {message, call.level, call.subsystem, call.category, file};
    slot->log.assign(parts, line);
    c.enqueued.fetch_add(1, std::memory_order_release);
    c.queue.publish(slot);
    scheduleDrain(c);
}

}  // namespace

void PrintInterceptor::emit(const LogCall& call, std::string_view message) {
    const std::string_view file = call.file.empty() ? std::string_view(call.location.file_name())
                                                    : std::string_view(call.file);
    const std::int64_t line =
        call.file.empty() && call.line < 0 ? call.location.line() : (call.line < 0 ? 0 : call.line);

    // "[" time "] [" file ":" line "] " message "\n", written whole.
    std::string_view name = file;
    while (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
    if (const auto slash = name.rfind('/'); slash != std::string_view::npos && name.size() > 1)
        name.remove_prefix(slash + 1);
    fmt::memory_buffer out;
    char stamp[13];
    timeOfDayTo(std::chrono::system_clock::now(), stamp);
    out.push_back('[');
    out.append(stamp, stamp + sizeof stamp);
    out.append(std::string_view("] ["));
    out.append(name);
    out.push_back(':');
    const fmt::format_int lineText(line);
    out.append(lineText.data(), lineText.data() + lineText.size());
    out.append(std::string_view("] "));
    out.append(message);
    out.push_back('\n');
    writeConsole(std::string_view(out.data(), out.size()));

    if (capture().installed.load(std::memory_order_acquire)) enqueue(call, message, file, line);
}

void PrintInterceptor::reportFormatFailure(const LogCall& call, const char* what) noexcept {
    try {
        const std::string_view file = call.file.empty()
                                          ? std::string_view(call.location.file_name())
                                          : std::string_view(call.file);
        printI(fmt::format(
                   "❌ A log call at {}:{} could not be formatted: {}", lastPathComponent(file),
                   call.file.empty() && call.line < 0 ? call.location.line() : call.line, what),
               LogLevel::error);
    } catch (...) {
    }
}

void PrintInterceptor::startIntercepting(Handler handler) {
    const bool any = static_cast<bool>(handler);
    capture().handler.store(std::move(handler));
    capture().installed.store(any, std::memory_order_release);
}

void PrintInterceptor::stopIntercepting() {
    capture().installed.store(false, std::memory_order_release);
    capture().handler.store(nullptr);
}

bool PrintInterceptor::isIntercepting() { return capture().installed.load(); }

void PrintInterceptor::setQueueFullWait(std::chrono::milliseconds wait) {
    gRoomWaitMs.store(std::max<std::int64_t>(0, wait.count()));
}

std::size_t PrintInterceptor::queueCapacity() { return CaptureQueue::kCapacity; }

bool PrintInterceptor::flush(std::chrono::milliseconds timeout) {
    Capture& c = capture();
    std::unique_lock lock(c.idleMutex);
    return c.idleCv.wait_for(lock, timeout, [&] {
        return c.processed.load(std::memory_order_acquire) >=
                   c.enqueued.load(std::memory_order_acquire) &&
               !c.draining.load();
    });
}

LogCaptureStats PrintInterceptor::stats() {
    Capture& c = capture();
    return {c.enqueued.load(), c.delivered.load(), c.dropped.load()};
}

}  // namespace kestro
