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

/// Sends standard output to /dev/null while alive (for tests that log a great deal).
class ConsoleSilence {
public:
    ConsoleSilence();
    ~ConsoleSilence();
    ConsoleSilence(const ConsoleSilence&) = delete;
    ConsoleSilence& operator=(const ConsoleSilence&) = delete;

private:
    int savedFd_ = -1;
};

}  // namespace kestro::test
