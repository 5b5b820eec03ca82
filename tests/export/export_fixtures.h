#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "kestro/records/records.h"

namespace kestro::test {

inline TimePoint atMs(std::int64_t ms) { return TimePoint(std::chrono::milliseconds(ms)); }

/// An exchange with a request half (and a response half when status > 0).
inline RequestTypeRequest exchange(std::string id, std::string method, std::string url,
                                   TextMap requestHeaders, std::string requestBody) {
    RequestTypeRequest r;
    r.id = std::move(id);
    r.type = "network";
    r.createdAt = r.sentAt = atMs(1'700'000'000'000);
    r.details.request = RequestTypeRequestDetailsRequest{
        std::move(url), std::move(method),      std::move(requestHeaders),
        r.createdAt,    std::move(requestBody), std::nullopt};
    return r;
}

/// A fresh directory under the system's temporary folder, removed with everything in it.
class ExportDir {
  public:
    ExportDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "kestro-export-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ExportDir() {
        std::error_code ec;
        std::filesystem::remove_all(path_, ec);
    }
    ExportDir(const ExportDir&) = delete;
    ExportDir& operator=(const ExportDir&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

/// Runs a program with its arguments (no shell of ours in between), output to `outputFile`
/// (or dropped), under a 30 s limit. Gives its exit status (-1 when it did not exit normally).
inline int runProgram(std::vector<std::string> args, const std::string& outputFile = "/dev/null") {
    std::vector<std::string> all{"/usr/bin/timeout", "30"};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int fd = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace kestro::test
