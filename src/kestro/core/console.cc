#include "kestro/core/console.h"

#include <atomic>
#include <cstdio>

#include "kestro/core/time_text.h"

namespace kestro {
namespace {

std::atomic<LogLevel> gConsoleLevel{LogLevel::debug};

}  // namespace

bool consoleAllows(LogLevel configured, LogLevel callLevel) {
    if (callLevel != LogLevel::verbose) return true;
    return configured == LogLevel::verbose || configured == LogLevel::error;
}

void setConsoleLevel(LogLevel level) { gConsoleLevel.store(level, std::memory_order_relaxed); }

LogLevel consoleLevel() { return gConsoleLevel.load(std::memory_order_relaxed); }

void writeConsole(std::string_view bytes) {
    // stdio's own per-stream lock makes one fwrite atomic with respect to other stdio writers
    // of the host, and keeps our lines ordered with the host's buffered output.
    flockfile(stdout);
    fwrite_unlocked(bytes.data(), 1, bytes.size(), stdout);
    fflush_unlocked(stdout);
    funlockfile(stdout);
}

void printI(std::string_view text, LogLevel level) {
    if (consoleAllows(consoleLevel(), level)) writeConsoleLine(text);
}

void writeConsoleLine(std::string_view text) {
    fmt::memory_buffer line;
    char stamp[13];
    timeOfDayTo(std::chrono::system_clock::now(), stamp);
    line.push_back('[');
    line.append(stamp, stamp + sizeof stamp);
    line.push_back(']');
    line.push_back(' ');
    line.append(text.data(), text.data() + text.size());
    line.push_back('\n');
    writeConsole(std::string_view(line.data(), line.size()));
}

}  // namespace kestro
