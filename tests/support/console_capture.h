#pragma once

#include <string>

namespace kestro::test {

/// Redirects standard output (file descriptor 1) to a temporary file while alive, so a test can
/// read exactly what the SDK wrote to the console. Not for concurrent use by several tests.
class ConsoleCapture {
public:
    ConsoleCapture();
    ~ConsoleCapture();
    ConsoleCapture(const ConsoleCapture&) = delete;
    ConsoleCapture& operator=(const ConsoleCapture&) = delete;

    /// Everything written since construction (or since the last clear()).
    std::string text();
    void clear();

private:
    int savedFd_ = -1;
    int fileFd_ = -1;
    std::string path_;
};

/// Keeps standard output off the console while alive (for tests that log a great deal). If the
/// test has failed by the time it ends, the last 64 KiB written meanwhile (failure messages
/// included) are shown.
class ConsoleSilence {
public:
    ConsoleSilence();
    ~ConsoleSilence();
    ConsoleSilence(const ConsoleSilence&) = delete;
    ConsoleSilence& operator=(const ConsoleSilence&) = delete;

private:
    int savedFd_ = -1;
    int fileFd_ = -1;
};

}  // namespace kestro::test
