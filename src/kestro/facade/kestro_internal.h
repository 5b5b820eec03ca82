#pragma once

#include <memory>
#include <source_location>
#include <string>
#include <string_view>

#include "kestro/core/config.h"
#include "kestro/core/export.h"
#include "kestro/logging/print_interceptor.h"

namespace kestro {

/// The one object through which a host application drives Kestro: configuration, capture
/// switches, logging calls and the SDK's own console print.
///
/// Reach the process-wide instance with Kestro(). KestroInternal::shared() is a second,
/// separate instance that nothing inside the SDK uses.
///
/// Thread safety: every member may be called from any thread. The configuration is guarded
/// by the instance; the logging calls only format and write their console line on the caller's
/// thread and capture on the global executor. Nothing here throws into the host.
class KESTRO_API KestroInternal {
public:
    KestroInternal();
    ~KestroInternal();
    KestroInternal(const KestroInternal&) = delete;
    KestroInternal& operator=(const KestroInternal&) = delete;

    static KestroInternal& shared();

    /// The current configuration (a copy).
    KestroConfig getConfig() const;
    /// Stores a configuration and makes its logLevel the console threshold. Capture switches
    /// are applied by the callers (initialize, stop); this only records the value.
    void setConfig(const KestroConfig& config);

    /// logs or network is on in the current configuration.
    bool isEnabled() const;
    std::string getVersion() const { return SDK_VERSION; }

    /// The SDK's leveled console print, filtered by this instance's config.logLevel.
    void printI(std::string_view text, LogLevel level = LogLevel::verbose) const;
    template <typename... Items>
    void printI(LogLevel level, const Items&... items) const {
        try {
            printI(describe(items...), level);
        } catch (...) {
            printI("❌ printI: an item could not be described", LogLevel::error);
        }
    }

    // The six logging calls. Each takes zero or more items of any type and captures the
    // caller's file and line; a first argument `At{file, line}` passes them explicitly.
    // Level texts: l "info", i "info", w "warn", e "error", n "notice", f "fault".
#define KESTRO_FACADE_LOG(name, levelText)                                                 \
    void name(std::source_location loc = std::source_location::current()) const {         \
        PrintInterceptor::log({.level = levelText, .location = loc});                      \
    }                                                                                      \
    template <typename... Rest>                                                            \
    void name(LocatedItem first, const Rest&... rest) const {                              \
        PrintInterceptor::log({.level = levelText, .location = first.location()}, first,   \
                              rest...);                                                    \
    }                                                                                      \
    template <typename... Items>                                                           \
    void name(At at, const Items&... items) const {                                        \
        PrintInterceptor::log({.level = levelText, .file = at.file, .line = at.line},      \
                              items...);                                                   \
    }

    KESTRO_FACADE_LOG(l, "info")
    KESTRO_FACADE_LOG(i, "info")
    KESTRO_FACADE_LOG(w, "warn")
    KESTRO_FACADE_LOG(e, "error")
    KESTRO_FACADE_LOG(n, "notice")
    KESTRO_FACADE_LOG(f, "fault")
#undef KESTRO_FACADE_LOG

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// The process-wide facade instance that the SDK itself uses. Created on first use.
KESTRO_API KestroInternal& Kestro();

}  // namespace kestro
