#include "support/console_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kestro::test {
namespace {

/// If the running test has failed, shows the last 64 KiB written to `fd` on the (restored)
/// standard output: GoogleTest reports failures on standard output, so while it was redirected
/// they went into the file.
void showTailIfFailed(int fd, const char* what) {
    if (!::testing::Test::HasFailure()) return;
    constexpr off_t kTail = 64 * 1024;
    const off_t size = lseek(fd, 0, SEEK_END);
    if (size <= 0) return;
    const off_t from = size > kTail ? size - kTail : 0;
    std::string text(static_cast<std::size_t>(size - from), '\0');
    const ssize_t n = pread(fd, text.data(), text.size(), from);
    if (n <= 0) return;
    std::fprintf(stdout, "--- console while %s (last %lld bytes) ---\n%.*s\n---\n", what,
                 static_cast<long long>(n), static_cast<int>(n), text.data());
    std::fflush(stdout);
}

}  // namespace

ConsoleCapture::ConsoleCapture() {
    std::fflush(stdout);
    char name[] = "/tmp/kestro-console-XXXXXX";
    fileFd_ = mkstemp(name);
    if (fileFd_ < 0) throw std::runtime_error("mkstemp failed");
    path_ = name;
    savedFd_ = dup(STDOUT_FILENO);
    dup2(fileFd_, STDOUT_FILENO);
}

ConsoleCapture::~ConsoleCapture() {
    std::fflush(stdout);
    dup2(savedFd_, STDOUT_FILENO);
    close(savedFd_);
    showTailIfFailed(fileFd_, "captured");
    close(fileFd_);
    unlink(path_.c_str());
}

std::string ConsoleCapture::text() {
    std::fflush(stdout);
    std::string out;
    char buf[4096];
    for (off_t at = 0;;) {
        const ssize_t n = pread(fileFd_, buf, sizeof buf, at);
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
        at += n;
    }
    return out;
}

void ConsoleCapture::clear() {
    std::fflush(stdout);
    if (ftruncate(fileFd_, 0) != 0) return;
    lseek(fileFd_, 0, SEEK_SET);
    // The duplicated descriptor shares the file offset; rewind it too.
    lseek(STDOUT_FILENO, 0, SEEK_SET);
}

ConsoleSilence::ConsoleSilence() {
    std::fflush(stdout);
    savedFd_ = dup(STDOUT_FILENO);
    // An unlinked temporary file rather than /dev/null: GoogleTest reports failures on standard
    // output too, and a failing test shows the end of what was written.
    char path[] = "/tmp/kestro-console-XXXXXX";
    fileFd_ = mkstemp(path);
    if (fileFd_ >= 0) {
        unlink(path);
    } else {
        fileFd_ = open("/dev/null", O_WRONLY);
    }
    dup2(fileFd_, STDOUT_FILENO);
}

ConsoleSilence::~ConsoleSilence() {
    std::fflush(stdout);
    dup2(savedFd_, STDOUT_FILENO);
    close(savedFd_);
    showTailIfFailed(fileFd_, "silenced");
    close(fileFd_);
}

}  // namespace kestro::test
