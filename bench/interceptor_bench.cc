// Network capture on the shared session, all against one loopback server answering 200 with a
// 1 KB JSON body:
//  - one request at a time with capture on (an interceptor registered, its reports consumed)
//    against the same with capture off (latency);
//  - 16 requests in flight, capture on against off (throughput);
//  - one request at a time through the layer with capture off, against curl_easy_perform on a
//    reused easy handle;
//  - MockCache::getEntry over 100 rules, against the same lookup compiling one std::regex per
//    rule per lookup (the glob turned into a regular expression the naive way).
// Each pair is measured in interleaved repetitions and compared by its medians. The SDK's
// console lines go to /dev/null; the report goes to standard error.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "bench/baselines.h"
#include "bench/counting_server.h"
#include "bench/ratio.h"
#include "kestro/network/network_interceptor.h"
#include "kestro/network/url_session.h"
#include "support/http_server.h"

namespace {

using namespace kestro;

constexpr int kInFlight = 16;
constexpr int kRequestsPerBurst = 1000;
constexpr int kRules = 100;

test::HttpServer& jsonServer() {
    static test::HttpServer& server = bench::countingServer([](const test::ReceivedRequest&) {
        std::string body = R"({"items":[)";
        while (body.size() < 1000) body += R"({"id":12345,"name":"abcdefghij"},)";
        body.back() = ']';
        body += '}';
        return test::HttpReply::text(200, std::move(body), "application/json");
    });
    return server;
}

// Capture switched on for the lifetime of the object, with a handler that consumes every
// report the way a store would look at it.
class CaptureOn {
  public:
    CaptureOn() : interceptor_(std::make_shared<MockCache>()) {
        interceptor_.startIntercepting([this](const InterceptedRequestWrapper& w) {
            std::size_t bytes = 0;
            if (w.response) bytes += w.response->body.size();
            if (w.request && w.request->request && w.request->request->body)
                bytes += w.request->request->body->size();
            reports_.fetch_add(1, std::memory_order_relaxed);
            benchmark::DoNotOptimize(bytes);
        });
    }
    ~CaptureOn() { interceptor_.stopIntercepting(); }
    long reports() const { return reports_.load(); }

  private:
    NetworkInterceptor interceptor_;
    std::atomic<long> reports_{0};
};

// Waits for one completion of the shared session, as an application would.
class Waiter {
  public:
    void done() {
        {
            std::lock_guard lock(m_);
            done_ = true;
        }
        cv_.notify_one();
    }
    void wait() {
        std::unique_lock lock(m_);
        cv_.wait(lock, [&] { return done_; });
        done_ = false;
    }

  private:
    std::mutex m_;
    std::condition_variable cv_;
    bool done_ = false;
};

// Each request's latency is kept; the "median_ns" counter is their median, which a few
// requests delayed by the machine's scheduling do not move the way they move the mean.
void oneAtATime(benchmark::State& state) {
    const std::string url = jsonServer().url("/items");
    Waiter waiter;
    std::atomic<int> failed{0};
    std::vector<std::int64_t> latencies;
    latencies.reserve(1 << 16);
    for (auto _ : state) {
        const auto begun = std::chrono::steady_clock::now();
        auto task = URLSession::shared().dataTask(
            url, [&](std::optional<std::string> data, std::optional<HTTPURLResponse>,
                     std::optional<URLError> error) {
                if (error || !data || data->size() < 1000) failed.fetch_add(1);
                waiter.done();
            });
        task->resume();
        waiter.wait();
        latencies.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::steady_clock::now() - begun)
                                .count());
    }
    state.counters["failed"] = failed.load();
    if (!latencies.empty()) {
        auto middle = latencies.begin() + static_cast<std::ptrdiff_t>(latencies.size() / 2);
        std::nth_element(latencies.begin(), middle, latencies.end());
        state.counters["median_ns"] = static_cast<double>(*middle);
    }
}

void BM_CaptureOffOneAtATime(benchmark::State& state) { oneAtATime(state); }

void BM_CaptureOnOneAtATime(benchmark::State& state) {
    CaptureOn capture;
    oneAtATime(state);
    state.counters["reports"] = static_cast<double>(capture.reports());
}

// kRequestsPerBurst requests, kInFlight at a time: each completion starts the next.
void inFlight(benchmark::State& state) {
    const std::string url = jsonServer().url("/items");
    std::atomic<int> failed{0};
    for (auto _ : state) {
        std::atomic<int> started{0};
        std::atomic<int> finished{0};
        std::mutex m;
        std::condition_variable cv;
        std::function<void()> startOne = [&] {
            if (started.fetch_add(1) >= kRequestsPerBurst) return;
            URLSession::shared()
                .dataTask(url,
                          [&](std::optional<std::string> data, std::optional<HTTPURLResponse>,
                              std::optional<URLError> error) {
                              if (error || !data) failed.fetch_add(1);
                              startOne();
                              if (finished.fetch_add(1) + 1 == kRequestsPerBurst) {
                                  std::lock_guard lock(m);
                                  cv.notify_one();
                              }
                          })
                ->resume();
        };
        for (int i = 0; i < kInFlight; ++i) startOne();
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return finished.load() == kRequestsPerBurst; });
    }
    state.counters["failed"] = failed.load();
    state.SetItemsProcessed(state.iterations() * kRequestsPerBurst);
}

void BM_CaptureOff16InFlight(benchmark::State& state) { inFlight(state); }

void BM_CaptureOn16InFlight(benchmark::State& state) {
    CaptureOn capture;
    inFlight(state);
}

void BM_RawCurlReusedEasyHandle(benchmark::State& state) {
    bench::rawCurlGetsOnReusedHandle(state, jsonServer().url("/items"));
}

// --- mock-rule lookup ------------------------------------------------------------------------

std::vector<std::string> rulePatterns() {
    std::vector<std::string> patterns;
    for (int i = 0; i < kRules; ++i) {
        patterns.push_back("https://api.example.com/v2/resource" + std::to_string(i) +
                           "/*/details?page=*");
    }
    return patterns;
}

// Looked up against every rule: matches only the last one.
const std::string kLookedUp =
    "https://api.example.com/v2/resource99/8c1f0e2a-4b6d-4e3a-9f1b-2d7c5e8a0b13/details?page=3";

// The glob as a regular expression, written the obvious way: every special character escaped,
// "*" made into ".*".
std::string naiveRegex(const std::string& glob) {
    std::string out;
    for (const char c : glob) {
        if (c == '*') {
            out += ".*";
        } else if (std::string_view(".^$|()[]{}+?\\/").find(c) != std::string_view::npos) {
            out += '\\';
            out += c;
        } else {
            out += c;
        }
    }
    return out;
}

void BM_MockCacheGetEntry100Rules(benchmark::State& state) {
    MockCache cache;
    for (const auto& p : rulePatterns()) cache.addToMockCache(p, MockCacheEntry{p, {}, 200, {}, "{}"});
    for (auto _ : state) {
        auto entry = cache.getEntry(kLookedUp);
        if (!entry) state.SkipWithError("no rule matched");
        benchmark::DoNotOptimize(entry);
    }
}

void BM_NaiveRegexPerRuleLookup100Rules(benchmark::State& state) {
    const auto patterns = rulePatterns();
    for (auto _ : state) {
        const std::string* found = nullptr;
        for (const auto& p : patterns) {
            if (std::regex_match(kLookedUp, std::regex(naiveRegex(p)))) {
                found = &p;
                break;
            }
        }
        if (!found) state.SkipWithError("no rule matched");
        benchmark::DoNotOptimize(found);
    }
}

BENCHMARK(BM_CaptureOffOneAtATime)->Apply(bench::comparedByMedians);
BENCHMARK(BM_CaptureOnOneAtATime)->Apply(bench::comparedByMedians);
BENCHMARK(BM_RawCurlReusedEasyHandle)->Apply(bench::comparedByMedians);
BENCHMARK(BM_CaptureOff16InFlight)->Unit(benchmark::kMillisecond)->Apply(bench::comparedByMedians);
BENCHMARK(BM_CaptureOn16InFlight)->Unit(benchmark::kMillisecond)->Apply(bench::comparedByMedians);
BENCHMARK(BM_MockCacheGetEntry100Rules)->Unit(benchmark::kMicrosecond)->Repetitions(3);
BENCHMARK(BM_NaiveRegexPerRuleLookup100Rules)->Unit(benchmark::kMicrosecond)->Repetitions(3);

}  // namespace

int main(int argc, char** argv) {
    kestro::bench::QuietStdout quiet;
    // Repetitions of the pairs run interleaved, so a change in the machine's load falls on
    // both sides of a ratio alike.
    kestro::bench::CollectingReporter reporter;
    kestro::bench::runBenchmarks(argc, argv, reporter, {kestro::bench::kInterleaved});

    auto ratio = [&](const char* numerator, const char* denominator) {
        const double d = reporter.time(denominator);
        return d > 0 ? reporter.time(numerator) / d : 0.0;
    };
    quiet.restore();
    std::printf("\n");
    const double offMedian = reporter.counter("BM_CaptureOffOneAtATime", "median_ns");
    kestro::bench::printRatio(
        "capture on / off, one at a time (median latency)",
        offMedian > 0 ? reporter.counter("BM_CaptureOnOneAtATime", "median_ns") / offMedian : 0.0,
        "<= 1.3");
    kestro::bench::printRatio("capture on / off, 16 in flight (throughput)",
                              ratio("BM_CaptureOff16InFlight", "BM_CaptureOn16InFlight"),
                              ">= 0.8");
    kestro::bench::printRatio("layer, capture off / raw curl reused easy handle (speed)",
                              ratio("BM_RawCurlReusedEasyHandle", "BM_CaptureOffOneAtATime"),
                              ">= 0.8");
    kestro::bench::printRatio(
        "MockCache::getEntry, 100 rules / std::regex per rule (speed-up)",
        ratio("BM_NaiveRegexPerRuleLookup100Rules", "BM_MockCacheGetEntry100Rules"), "report");
    std::fflush(stdout);
    std::_Exit(0);  // the loopback server and the loading thread need no orderly teardown
}
