// The URL-loading layer against raw libcurl, both talking to the same loopback server:
//  - sendToServer of 1 KB JSON bodies to a server answering 204, against a libcurl multi
//    handle keeping 16 POSTs of the same body in flight (throughput);
//  - one GET at a time through a data task, against curl_easy_perform on a reused easy
//    handle (latency of the whole round trip, thread hops included);
//  - the memory taken by 10,000 uploads pending against a server that answers after one
//    second (reported, no baseline).
// The SDK's console lines go to /dev/null; the report goes to standard error.

#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/json/serialize.hpp>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <thread>

#include "bench/baselines.h"
#include "bench/counting_server.h"
#include "bench/ratio.h"
#include "kestro/network/url_session.h"
#include "kestro/remote/upload.h"
#include "support/http_server.h"

namespace {

using namespace kestro;

constexpr int kUploadsPerIteration = 2000;
constexpr int kInFlight = 16;

test::HttpServer& server204() {
    static test::HttpServer& server = bench::countingServer([](const test::ReceivedRequest&) {
        test::HttpReply r;
        r.status = 204;
        return r;
    });
    return server;
}

test::HttpServer& serverGet() {
    static test::HttpServer& server = bench::countingServer(
        [](const test::ReceivedRequest&) { return test::HttpReply::text(200, "pong"); });
    return server;
}

JSONDictionary kilobyteRecord() {
    JSONDictionary d;
    d["eventType"] = "log";
    d["id"] = "2C8E5A0B-1F3D-4E6A-9B7C-0D1E2F3A4B5C";
    d["timestamp"] = 1714567890.125;
    boost::json::object details;
    details["message"] = std::string(880, 'm');
    details["file"] = "main.cc";
    details["line"] = 42;
    d["details"] = std::move(details);
    return d;
}

void BM_SendToServer1KB(benchmark::State& state) {
    const std::string url = server204().url("/v1/requests");
    const JSONDictionary record = kilobyteRecord();
    std::atomic<int> done{0};
    std::atomic<int> failed{0};
    std::mutex m;
    std::condition_variable cv;
    for (auto _ : state) {
        done = 0;
        for (int i = 0; i < kUploadsPerIteration; ++i) {
            sendToServer(url, record, "bench-key", [&](UploadResult r) {
                if (!r.isSuccess()) failed.fetch_add(1);
                if (done.fetch_add(1, std::memory_order_acq_rel) + 1 == kUploadsPerIteration) {
                    std::lock_guard lock(m);
                    cv.notify_one();
                }
            });
        }
        // Waits as an application would, without polling (a polling thread takes a core's
        // time from the threads doing the work on a two-core machine).
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return done.load(std::memory_order_acquire) == kUploadsPerIteration; });
    }
    state.counters["failed"] = failed.load();
    state.SetItemsProcessed(state.iterations() * kUploadsPerIteration);
}

size_t discard(char*, size_t size, size_t n, void*) { return size * n; }

void BM_RawCurlMulti16InFlight(benchmark::State& state) {
    const std::string url = server204().url("/v1/requests");
    const std::string body = boost::json::serialize(kilobyteRecord());
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Api-Key: bench-key");
    headers = curl_slist_append(headers, "Content-Type: application/json");
    headers = curl_slist_append(headers, "Expect:");
    CURLM* multi = curl_multi_init();
    std::vector<CURL*> easies;
    for (int i = 0; i < kInFlight; ++i) {
        CURL* e = curl_easy_init();
        curl_easy_setopt(e, CURLOPT_URL, url.c_str());
        curl_easy_setopt(e, CURLOPT_POSTFIELDS, body.data());
        curl_easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(e, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &discard);
        curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
        easies.push_back(e);
    }
    for (auto _ : state) {
        int started = 0, finished = 0;
        for (CURL* e : easies) {
            curl_multi_add_handle(multi, e);
            ++started;
        }
        while (finished < kUploadsPerIteration) {
            int running = 0;
            curl_multi_perform(multi, &running);
            int left = 0;
            while (CURLMsg* m = curl_multi_info_read(multi, &left)) {
                if (m->msg != CURLMSG_DONE) continue;
                CURL* e = m->easy_handle;
                curl_multi_remove_handle(multi, e);
                ++finished;
                if (started < kUploadsPerIteration) {
                    curl_multi_add_handle(multi, e);
                    ++started;
                }
            }
            if (finished < kUploadsPerIteration) curl_multi_poll(multi, nullptr, 0, 100, nullptr);
        }
    }
    for (CURL* e : easies) curl_easy_cleanup(e);
    curl_multi_cleanup(multi);
    curl_slist_free_all(headers);
    state.SetItemsProcessed(state.iterations() * kUploadsPerIteration);
}

void BM_DataTaskOneAtATime(benchmark::State& state) {
    const std::string url = serverGet().url("/ping");
    URLSession session;
    std::mutex m;
    std::condition_variable cv;
    for (auto _ : state) {
        bool finished = false;
        auto task =
            session.dataTask(url, [&](std::optional<std::string> data,
                                      std::optional<HTTPURLResponse>, std::optional<URLError>) {
                benchmark::DoNotOptimize(data);
                {
                    std::lock_guard lock(m);
                    finished = true;
                }
                cv.notify_one();
            });
        task->resume();
        std::unique_lock lock(m);
        cv.wait(lock, [&] { return finished; });
    }
}

void BM_RawCurlReusedEasyHandle(benchmark::State& state) {
    bench::rawCurlGetsOnReusedHandle(state, serverGet().url("/ping"));
}

// Each pair is compared by its medians over interleaved repetitions.
BENCHMARK(BM_SendToServer1KB)->Unit(benchmark::kMillisecond)->Apply(bench::comparedByMedians);
BENCHMARK(BM_RawCurlMulti16InFlight)
    ->Unit(benchmark::kMillisecond)
    ->Apply(bench::comparedByMedians);
BENCHMARK(BM_DataTaskOneAtATime)->Apply(bench::comparedByMedians);
BENCHMARK(BM_RawCurlReusedEasyHandle)->Apply(bench::comparedByMedians);

// 10,000 uploads against a server that answers after a second: the peak of RSS growth while
// they are pending. The server is then stopped so the rest fail fast (connection refused).
double pendingUploadsMemoryMiB() {
    constexpr int kPending = 10000;
    auto server = std::make_unique<test::HttpServer>([](const test::ReceivedRequest&) {
        test::HttpReply r;
        r.status = 204;
        r.delay = std::chrono::seconds(1);
        return r;
    });
    server->keepRequests(false);  // the growth measured is the SDK's, not the server's
    const std::string url = server->url("/v1/requests");
    const JSONDictionary record = kilobyteRecord();
    std::atomic<int> done{0};
    const long before = bench::rssKiB();
    long peak = before;
    for (int i = 0; i < kPending; ++i) {
        sendToServer(url, record, "bench-key", [&](UploadResult) { done.fetch_add(1); });
    }
    // Sample while everything is pending (the first answers come after one second).
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < until) {
        peak = std::max(peak, bench::rssKiB());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    server->stop();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (done.load() < kPending && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return static_cast<double>(peak - before) / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    kestro::bench::QuietStdout quiet;
    kestro::bench::CollectingReporter reporter;
    kestro::bench::runBenchmarks(argc, argv, reporter, {kestro::bench::kInterleaved});

    auto speed = [&](const char* candidate, const char* baseline) {
        const double t = reporter.time(candidate);
        return t > 0 ? reporter.time(baseline) / t : 0.0;
    };
    const double pendingMiB = pendingUploadsMemoryMiB();
    // The summary lines go to the real standard output again.
    quiet.restore();
    std::printf("\n");
    kestro::bench::printRatio("sendToServer 1 KB / raw curl multi, 16 in flight (throughput)",
                              speed("BM_SendToServer1KB", "BM_RawCurlMulti16InFlight"), ">= 0.8");
    kestro::bench::printRatio("data task one at a time / raw curl reused easy handle",
                              speed("BM_DataTaskOneAtATime", "BM_RawCurlReusedEasyHandle"),
                              ">= 0.8");
    std::printf(
        "MEMORY 10,000 uploads pending (server answers after 1 s): %.1f MiB RSS growth "
        "(%.2f KiB each)\n",
        pendingMiB, pendingMiB * 1024.0 / 10000.0);
    std::fflush(stdout);
    std::_Exit(0);  // the loopback servers and the loading thread need no orderly teardown
}
