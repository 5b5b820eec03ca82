#pragma once

#include <cstdint>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>

#include "kestro/core/export.h"
#include "kestro/logging/print_interceptor.h"

namespace kestro {

/// The journal priority of a log type: debug 7, info 6, default 5, error 3, fault 2.
KESTRO_API int journalPriority(OSLogType type);

/// Where KestroLogger writes its system-log entries. The default sink is the systemd journal;
/// tests and hosts without a journal install their own.
class KESTRO_API SystemLogSink {
  public:
    virtual ~SystemLogSink() = default;
    /// Whether entries of this type are written at all.
    virtual bool isEnabled(OSLogType type) const = 0;
    /// Writes one entry; `message` is already "<private>" for a private entry.
    virtual void write(OSLogType type, std::string_view subsystem, std::string_view category,
                       std::string_view message, std::string_view file, std::int64_t line) = 0;
};

/// The journal sink: enabled for every type whose priority is at most maxPriority (7: all).
KESTRO_API std::shared_ptr<SystemLogSink> journalSink(int maxPriority = 7);
/// Replaces the process-wide sink; nullptr restores the journal. Any thread.
KESTRO_API void setSystemLogSink(std::shared_ptr<SystemLogSink> sink);

/// Logs through the system log, tagged with a subsystem and a category, and hands the same
/// items to PrintInterceptor, which prints the console line and captures a record carrying the
/// logger's subsystem and category.
///
/// l and i write the message in full; w, d, e, n, f, c and t leave it private, so the journal
/// receives "<private>" while the console line and the captured record keep the text.
///
/// Each method takes its items and captures the caller's file and line; a first argument of
/// type At passes them explicitly. Holds no mutable state; any thread; never throws.
class KESTRO_API KestroLogger {
  public:
    KestroLogger(TextRef subsystem, TextRef category)
        : subsystem_(subsystem), category_(category) {}

    // l: the log type is the caller's; level text "log".
    void l(OSLogType type, std::source_location loc = std::source_location::current()) const {
        send(type, true, "log", loc.file_name(), loc.line());
    }
    template <typename... Rest>
    void l(OSLogType type, LocatedItem first, const Rest&... rest) const {
        const auto loc = first.location();
        send(type, true, "log", loc.file_name(), loc.line(), first, rest...);
    }
    template <typename... Items>
    void l(OSLogType type, At at, const Items&... items) const {
        send(type, true, "log", at.file, at.line, items...);
    }

    // i with a privacy option: the option is accepted and not used.
    void i(OSLogPrivacy, std::source_location loc = std::source_location::current()) const {
        send(OSLogType::info, true, "info", loc.file_name(), loc.line());
    }
    template <typename... Rest>
    void i(OSLogPrivacy, LocatedItem first, const Rest&... rest) const {
        const auto loc = first.location();
        send(OSLogType::info, true, "info", loc.file_name(), loc.line(), first, rest...);
    }

#define KESTRO_LOGGER_METHOD(name, type, isPublic, levelText)                         \
    void name(std::source_location loc = std::source_location::current()) const {     \
        send(type, isPublic, levelText, loc.file_name(), loc.line());                 \
    }                                                                                 \
    template <typename... Rest>                                                       \
    void name(LocatedItem first, const Rest&... rest) const {                         \
        const auto loc = first.location();                                            \
        send(type, isPublic, levelText, loc.file_name(), loc.line(), first, rest...); \
    }                                                                                 \
    template <typename... Items>                                                      \
    void name(At at, const Items&... items) const {                                   \
        send(type, isPublic, levelText, at.file, at.line, items...);                  \
    }

    KESTRO_LOGGER_METHOD(i, OSLogType::info, true, "info")
    KESTRO_LOGGER_METHOD(w, OSLogType::error, false, "warn")
    KESTRO_LOGGER_METHOD(d, OSLogType::debug, false, "debug")
    KESTRO_LOGGER_METHOD(e, OSLogType::error, false, "error")
    KESTRO_LOGGER_METHOD(n, OSLogType::default_, false, "notice")
    KESTRO_LOGGER_METHOD(f, OSLogType::fault, false, "fault")
    KESTRO_LOGGER_METHOD(c, OSLogType::fault, false, "critical")
    KESTRO_LOGGER_METHOD(t, OSLogType::debug, false, "trace")
#undef KESTRO_LOGGER_METHOD

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

  private:
    template <typename... Items>
    void send(OSLogType type, bool isPublic, std::string_view levelText, std::string_view file,
              std::int64_t line, const Items&... items) const noexcept {
        try {
            writeSystemLog(type, isPublic, isPublic ? describe(items...) : std::string(), file,
                           line);
        } catch (...) {
            // The console line and the record below report the failure to format.
        }
        PrintInterceptor::log({.level = levelText,
                               .subsystem = subsystem_,
                               .category = category_,
                               .file = file,
                               .line = line},
                              items...);
    }
    void writeSystemLog(OSLogType type, bool isPublic, const std::string& message,
                        std::string_view file, std::int64_t line) const noexcept;

    std::string subsystem_;
    std::string category_;
};

}  // namespace kestro
