#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <source_location>
#include <string_view>

#include "kestro/core/describe.h"
#include "kestro/core/export.h"
#include "kestro/logging/log_types.h"
#include "kestro/records/records.h"

namespace kestro {

/// Where and how a log call was made. Built at the call site, so the default location is the
/// caller's: `PrintInterceptor::log({.level = "warn"}, "disk at", 93, "%")`. An explicit
/// `file` (and `line`) replaces the captured location.
struct LogCall {
    TextRef level = "info";
    TextRef subsystem = {};
    TextRef category = {};
    TextRef separator = " ";    // accepted, not used: items are joined with one space
    TextRef terminator = "\n";  // accepted, not used: the console line ends with "\n"
    TextRef file = {};
    std::int64_t line = -1;
    std::source_location location = std::source_location::current();
};

/// An explicit call site, for calls that pass their own file and line.
struct At {
    TextRef file;
    std::int64_t line;
};

/// The first item of a log call, with the caller's location captured where the call converts
/// it: `void w(LocatedItem first, const Rest&... rest)` reports the line of `logger.w(...)`.
class LocatedItem : public ItemRef {
  public:
    // Log options are never items, so that `i(OSLogPrivacy::...)` and `l(OSLogType::...)`
    // resolve to the overloads that take them.
    template <typename T>
    requires(!std::is_same_v<T, OSLogPrivacy> && !std::is_same_v<T, OSLogType> &&
             !std::is_same_v<T, At>)
        LocatedItem(const T& value, std::source_location location = std::source_location::current())
        : ItemRef(value), location_(location) {}
    std::source_location location() const { return location_; }

  private:
    std::source_location location_;
};

/// Counters of the capture queue, for diagnostics and tests.
struct LogCaptureStats {
    std::uint64_t enqueued = 0;   // records handed to the capture queue
    std::uint64_t delivered = 0;  // records passed to a handler
    std::uint64_t dropped = 0;    // records lost because the queue stayed full
};

/// Turns a log call into a console line, written at once on the caller's thread, and a
/// RequestTypeLog, built on the global executor and handed to the installed handler.
///
/// The caller pays for formatting, one console write and one push into a bounded lock-free
/// queue; a worker is woken only when none is already draining the queue. When the queue is
/// full the caller waits for room for at most queueFullWait (100 ms unless set) and then drops
/// the record (the console line is always written); drops are counted and reported through
/// printI.
///
/// Records reach the handler in no guaranteed order; the handler must accept being called from
/// worker threads. All members may be called from any thread; nothing here throws.
class KESTRO_API PrintInterceptor {
  public:
    using Handler = std::function<void(const RequestTypeLog&)>;

    PrintInterceptor() = default;

    template <typename... Items>
    static void log(const LogCall& call, const Items&... items) noexcept {
        try {
            fmt::memory_buffer message;  // inline storage: short messages never allocate
            describeJoined(message, items...);
            emit(call, std::string_view(message.data(), message.size()));
        } catch (const std::exception& e) {
            reportFormatFailure(call, e.what());
        } catch (...) {
            reportFormatFailure(call, "unknown exception");
        }
    }

    /// Installs the handler, replacing any earlier one. Once this returns, the earlier one is
    /// no longer running and is never called again.
    static void startIntercepting(Handler handler);
    /// Clears the handler and waits (up to 10 s) for a call of it under
    /// way to return: afterwards it is never called again, not even for records still queued.
    static void stopIntercepting();
    static bool isIntercepting();

    /// How long a log call may wait for room when the capture queue is full before it drops
    /// its record. Zero drops at once.
    static void setQueueFullWait(std::chrono::milliseconds wait);
    /// Number of records the capture queue holds.
    static std::size_t queueCapacity();

    /// Waits until every record queued so far has been delivered or dropped.
    static bool flush(std::chrono::milliseconds timeout = std::chrono::seconds(5));
    static LogCaptureStats stats();

  private:
    static void emit(const LogCall& call, std::string_view message);
    static void reportFormatFailure(const LogCall& call, const char* what) noexcept;
};

}  // namespace kestro
