#include "kestro/core/console.h"

#include <stdio_ext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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
    // Under stdio's own lock of standard output: whatever the host has buffered there goes
    // out first, so our line keeps its place; then the line goes out in one write.
    flockfile(stdout);
    if (__fpending(stdout) > 0) fflush_unlocked(stdout);
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // a closed or full console loses the line, never the host
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    funlockfile(stdout);
}

void printI(TextRef text, LogLevel level) {
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
