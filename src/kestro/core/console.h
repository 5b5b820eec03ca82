#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "kestro/core/config.h"
#include "kestro/core/describe.h"
#include "kestro/core/export.h"

namespace kestro {

/// The SDK's leveled console print.
///
/// Writes "[" + time of day + "] " + text and a line feed to standard output when the pair
/// (configured level, call level) passes the console table: verbose lines appear only when the
/// configured level is verbose or error; every other level always appears. The line is written
/// whole with one write, so lines of threads printing at the same time never interleave. The
/// SDK's own diagnostics are never captured, stored or uploaded.
///
/// Any thread.
KESTRO_API void printI(TextRef text, LogLevel level = LogLevel::verbose);

/// printI with several items, each described as the logging calls describe them and joined
/// with single spaces.
template <typename... Items>
void printItems(LogLevel level, const Items&... items) {
    try {
        printI(describe(items...), level);
    } catch (...) {
        printI("❌ printI: an item could not be described", LogLevel::error);
    }
}

/// Whether a line of callLevel is written when the configured level is configured.
KESTRO_API bool consoleAllows(LogLevel configured, LogLevel callLevel);

/// The configured console level. The facade sets it whenever it stores a configuration;
/// it starts at debug.
KESTRO_API void setConsoleLevel(LogLevel level);
KESTRO_API LogLevel consoleLevel();

/// Writes "[" + time of day + "] " + text and a line feed, unfiltered, as one whole write.
KESTRO_API void writeConsoleLine(std::string_view text);

/// Writes bytes to standard output as one whole write under the console lock (shared by
/// printI and the log capture), followed by a flush, so a line reaches the console at once.
KESTRO_API void writeConsole(std::string_view bytes);

/// Runs f, turning anything it throws into the error line "❌ " + what + " threw: " + the
/// exception's message ("❌ " + what + " threw" when it is not a std::exception), so that
/// application code the SDK calls (a handler, an observer, a completion) cannot throw into the
/// SDK's threads. Returns whether f returned normally.
template <typename F>
bool runReportingThrows(std::string_view what, F&& f) noexcept {
    try {
        std::forward<F>(f)();
        return true;
    } catch (const std::exception& e) {
        printI("❌ " + std::string(what) + " threw: " + e.what(), LogLevel::error);
    } catch (...) {
        printI("❌ " + std::string(what) + " threw", LogLevel::error);
    }
    return false;
}

}  // namespace kestro
