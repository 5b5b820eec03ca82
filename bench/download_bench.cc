// A 1 GiB download from a loopback server (a generated body, never held whole by the server)
// that the application streams and checks as it arrives, with capture on (an interceptor and
// the real capture pipeline on a temporary SQLite store, the default 1 MiB body limit) against
// capture off. Each case runs in a process of its own, so that its peak resident memory
// (VmHWM) is its own; the program runs every case three times, alternating, and prints each
// figure and the ratios of the medians. A second pair does the same for a 256 MiB answer that
// the application collects whole (a data task), where the body is in memory once either way.
//
//   bench_download                 all cases, three rounds
//   bench_download --case=NAME     one case: stream-off, stream-on, collect-off, collect-on

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bench/ratio.h"
#include "kestro/facade/capture_pipeline.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/network/url_session.h"
#include "kestro/store/request_store_sqlite.h"
#include "support/http_server.h"
#include "support/wait.h"

namespace {

using namespace kestro;

constexpr std::uint64_t kStreamBytes = std::uint64_t{1} << 30;
constexpr std::uint64_t kCollectBytes = std::uint64_t{256} << 20;

long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + 6);
    }
    return -1;
}

struct Outcome {
    bool ok = false;
    std::uint64_t bytes = 0;
    std::uint64_t checksum = 0;
};

int runCase(std::string_view name) {
    bench::QuietStdout quiet;  // the SDK's console lines; the case's own line comes after
    const bool capture = name.ends_with("-on");
    const bool stream = name.starts_with("stream");
    const std::uint64_t size = stream ? kStreamBytes : kCollectBytes;

    test::HttpServer server([size](const test::ReceivedRequest&) {
        test::HttpReply reply;
        reply.generatedBodySize = size;
        reply.headers.emplace_back("Content-Type", "application/octet-stream");
        return reply;
    });

    char tmpl[] = "/tmp/kestro-bench-download-XXXXXX";
    const std::filesystem::path dir = mkdtemp(tmpl);
    auto store = std::make_unique<RequestStoreSQLite>(dir / "requests.sqlite");
    CapturePipeline pipeline(CapturePipeline::Dependencies{
        .store = [&]() -> RequestStoreSQLite& { return *store; },
        .apiEndpoint = [] { return std::string(); },  // stored only
        .apiKey = [] { return std::string(); },
        .deviceDictionary = [] { return JSONDictionary{}; },
        .send = [](std::string, JSONDictionary, std::string) {},
    });
    NetworkInterceptor interceptor(nullptr);
    // KESTRO_BENCH_MAX_BODY_BYTES: another capture limit, to tell the record's share apart.
    if (const char* limit = std::getenv("KESTRO_BENCH_MAX_BODY_BYTES")) {
        interceptor.setMaxBodyBytes(std::atoll(limit));
    }
    test::Recorder<int> reports;
    interceptor.setCallback([&](const InterceptedRequestWrapper& w) {
        pipeline.handleNetworkReport(w);
        reports.add(0);
    });
    URLSessionConfiguration cfg;
    if (capture) cfg.protocolClasses = {interceptor.protocolClass()};
    URLSession session(cfg);

    Outcome outcome;
    test::Recorder<bool> done;
    const auto start = std::chrono::steady_clock::now();
    auto add = [&outcome](std::string_view bytes) {
        std::uint64_t sum = outcome.checksum;
        for (const char c : bytes) sum = sum * 31 + static_cast<unsigned char>(c);
        outcome.checksum = sum;
        outcome.bytes += bytes.size();
    };
    std::shared_ptr<URLSessionDataTask> task;
    if (stream) {
        URLSessionStreamHandlers handlers;
        handlers.data = add;
        task = session.streamingTask(URLRequest(server.url("/big")), handlers,
                                     [&](auto, auto, std::optional<URLError> e) {
                                         outcome.ok = !e;
                                         done.add(true);
                                     });
    } else {
        task =
            session.dataTask(URLRequest(server.url("/big")),
                             [&](std::optional<std::string> data, auto, std::optional<URLError> e) {
                                 outcome.ok = !e && data;
                                 if (data) add(*data);
                                 done.add(true);
                             });
    }
    task->resume();
    const bool finished = done.waitFor(1, std::chrono::minutes(10));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (capture) reports.waitFor(2, std::chrono::seconds(30));
    std::string expected(1 << 20, '\0');
    Outcome check;
    for (std::uint64_t at = 0; at < size; at += expected.size()) {
        test::fillPattern(at, expected.data(), expected.size());
        for (const char c : expected)
            check.checksum = check.checksum * 31 + static_cast<unsigned char>(c);
    }
    const bool whole =
        finished && outcome.ok && outcome.bytes == size && outcome.checksum == check.checksum;
    quiet.restore();
    std::printf("CASE %-12s %s  %7.2f s  peak RSS %8.1f MiB\n", std::string(name).c_str(),
                whole ? "whole" : "BROKEN", seconds, peakResidentKiB() / 1024.0);
    std::fflush(stdout);
    std::filesystem::remove_all(dir);
    std::_Exit(whole ? 0 : 1);  // the server and the loading thread need no orderly teardown
}

// Runs one case in a child process; returns {seconds, peak MiB} read from its line.
std::pair<double, double> child(const char* self, const std::string& name) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) return {0, 0};
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        close(pipeFds[0]);
        close(pipeFds[1]);
        const std::string arg = "--case=" + name;
        execl(self, self, arg.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    close(pipeFds[1]);
    std::string out;
    char buf[512];
    for (ssize_t n; (n = read(pipeFds[0], buf, sizeof buf)) > 0;) out.append(buf, n);
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    std::fputs(out.c_str(), stdout);
    double seconds = 0, mib = 0;
    char label[32], state[16];
    if (std::sscanf(out.c_str(), "CASE %31s %15s %lf s peak RSS %lf", label, state, &seconds,
                    &mib) != 4 ||
        std::strcmp(state, "whole") != 0) {
        return {0, 0};
    }
    return {seconds, mib};
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string_view(argv[1]).starts_with("--case=")) {
        return runCase(std::string_view(argv[1]).substr(7));
    }
    const char* self = "/proc/self/exe";
    std::vector<std::string> names{"stream-off", "stream-on", "collect-off", "collect-on"};
    std::map<std::string, std::vector<double>> seconds, peaks;
    for (int round = 0; round < 3; ++round) {
        for (const auto& name : names) {
            const auto [s, mib] = child(self, name);
            seconds[name].push_back(s);
            peaks[name].push_back(mib);
        }
        std::rotate(names.begin(), names.begin() + 1, names.end());  // alternate the order
    }
    auto ratio = [](double a, double b) { return b > 0 ? a / b : 0.0; };
    std::printf("\n");
    for (const char* kind : {"stream", "collect"}) {
        const std::string on = std::string(kind) + "-on", off = std::string(kind) + "-off";
        std::printf("%s: peak RSS median on %.1f MiB, off %.1f MiB, difference %.1f MiB\n", kind,
                    median(peaks[on]), median(peaks[off]), median(peaks[on]) - median(peaks[off]));
    }
    bench::printRatio("1 GiB streamed download, capture on / off (time)",
                      ratio(median(seconds["stream-on"]), median(seconds["stream-off"])), "report");
    bench::printRatio("1 GiB streamed download, capture on / off (peak RSS)",
                      ratio(median(peaks["stream-on"]), median(peaks["stream-off"])), "report");
    bench::printRatio("256 MiB collected download, capture on / off (time)",
                      ratio(median(seconds["collect-on"]), median(seconds["collect-off"])),
                      "report");
    bench::printRatio("256 MiB collected download, capture on / off (peak RSS)",
                      ratio(median(peaks["collect-on"]), median(peaks["collect-off"])), "report");
    return 0;
}
