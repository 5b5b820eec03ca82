// The whole capture pipeline against the upload alone, both ending at the real development
// service on loopback:
//  - Kestro().logEvent of a small event (a record, one store add, one upload with the device
//    dictionary), against sendToServer of the same body; throughput measured until the service
//    holds every item;
//  - the memory (RSS growth) of a host process after 100,000 captured items, all stored and
//    uploaded.
// The SDK's console lines go to /dev/null; the report goes to standard output at the end.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <boost/json.hpp>
#include <filesystem>
#include <iostream>
#include <thread>

#include "bench/baselines.h"
#include "bench/ratio.h"
#include "devservice/service.h"
#include "kestro/core/uuid.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/network/http.h"
#include "kestro/remote/upload.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;
using Clock = std::chrono::steady_clock;

constexpr int kItemsPerIteration = 2000;
struct Environment {
    std::filesystem::path dir;
    std::unique_ptr<devservice::DevService> service;
    std::string endpoint;
    std::string key;    // the service's first API key
    std::string token;  // its dashboard token
};

Environment& environment() {
    static Environment env = [] {
        Environment e;
        char tmpl[] = "/tmp/kestro-bench-pipeline-XXXXXX";
        e.dir = mkdtemp(tmpl);
        devservice::DevServiceOptions options;
        options.port = 0;
        options.dataDirectory = e.dir / "service";
        options.logRequests = false;
        e.service = std::make_unique<devservice::DevService>(options);
        std::string error;
        if (!e.service->start(&error)) {
            std::fprintf(stderr, "the development service did not start: %s\n", error.c_str());
            std::exit(1);
        }
        e.key = *e.service->made().apiKey;
        e.token = e.service->dashboardToken();
        const std::string host = "127.0.0.1:" + std::to_string(e.service->port());
        setenv("KESTRO_HOME", (e.dir / "sdk").c_str(), 1);
        setenv("KESTRO_DEV_HOST", host.c_str(), 1);
        e.endpoint = "http://" + host;
        Kestro().initialize(e.key, KestroConfig(false, false, true, LogLevel::error, "dev"));
        return e;
    }();
    return env;
}

// Items the service holds, asked on a session that nothing captures.
std::int64_t serviceItems() {
    static URLSession uncaptured;
    http::Options options;
    options.session = &uncaptured;
    options.headers = {{"Authorization", "Bearer " + environment().token}};
    const auto r =
        http::getBlocking(environment().endpoint + "/api/health", std::chrono::seconds(5), options);
    const auto json = r.json();
    if (!json || !json->is_object() || !json->as_object().contains("items")) return -1;
    return json->at("items").to_number<std::int64_t>();
}

// Waits until the service holds `target` items, at most `limit`.
bool waitForServiceItems(std::int64_t target,
                         std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        if (serviceItems() >= target) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

JSONDictionary payload(int i) { return {{"sku", "A-1"}, {"quantity", i}, {"price", 12.5}}; }

void BM_LogEventThroughPipeline(benchmark::State& state) {
    environment();
    int n = 0;
    for (auto _ : state) {
        const std::int64_t target = serviceItems() + kItemsPerIteration;
        for (int i = 0; i < kItemsPerIteration; ++i) {
            Kestro().logEvent("purchase", "shop", payload(++n));
        }
        if (!waitForServiceItems(target)) state.SkipWithError("items did not all arrive");
    }
    state.SetItemsProcessed(state.iterations() * kItemsPerIteration);
}
BENCHMARK(BM_LogEventThroughPipeline)->UseRealTime()->Iterations(5);

// The same bodies as logEvent uploads: an event record with the device dictionary.
JSONDictionary eventBody(int i) {
    RequestTypeEvent event;
    event.id = newUUIDString();
    event.type = "event";
    event.sentAt = event.createdAt = std::chrono::system_clock::now();
    event.details = RequestTypeEventDetails{"purchase", "shop", payload(i)};
    JSONDictionary body = RequestEventType(event).encode();
    boost::json::object device;
    for (const auto& [k, v] : Kestro().getDeviceInfo(DeviceInfo::shared())) device[k] = v;
    body["device"] = std::move(device);
    return body;
}

void BM_SendToServerAlone(benchmark::State& state) {
    environment();
    const std::string url = environment().endpoint + "/v1/requests";
    int n = 0;
    for (auto _ : state) {
        const std::int64_t target = serviceItems() + kItemsPerIteration;
        for (int i = 0; i < kItemsPerIteration; ++i)
            sendToServer(url, eventBody(++n), environment().key);
        if (!waitForServiceItems(target)) state.SkipWithError("items did not all arrive");
    }
    state.SetItemsProcessed(state.iterations() * kItemsPerIteration);
}
BENCHMARK(BM_SendToServerAlone)->UseRealTime()->Iterations(5);

// RSS growth of this process from before the first of 100,000 captured events until the last
// is stored and at the service.
double memoryAfterCapturedItemsMiB(int items) {
    environment();
    const long before = bench::rssKiB();
    const std::int64_t target = serviceItems() + items;
    for (int i = 0; i < items; ++i) {
        Kestro().logEvent("purchase", "shop", payload(i));
        // Keep at most a few thousand uploads in flight, as a host's steady stream would.
        if (i % 5000 == 4999) waitForServiceItems(target - items + i + 1 - 5000);
    }
    if (!waitForServiceItems(target, std::chrono::minutes(10))) return -1;
    return static_cast<double>(bench::rssKiB() - before) / 1024.0;
}

}  // namespace

int main(int argc, char** argv) {
    kestro::bench::QuietStdout quiet;
    kestro::bench::CollectingReporter reporter;
    kestro::bench::runBenchmarks(argc, argv, reporter);

    const double tPipeline = reporter.time("BM_LogEventThroughPipeline");
    const double tUpload = reporter.time("BM_SendToServerAlone");
    const std::size_t storedBefore = RequestStoreSQLite::shared().requests().size();
    const double memoryMiB = memoryAfterCapturedItemsMiB(100000);
    const std::size_t stored = RequestStoreSQLite::shared().requests().size() - storedBefore;

    quiet.restore();
    std::printf("\n");
    kestro::bench::printRatio("logEvent -> store + upload / sendToServer alone (items/s)",
                              tPipeline > 0 ? tUpload / tPipeline : 0.0, "reported");
    std::printf("ITEMS/S pipeline %.0f, upload alone %.0f\n",
                tPipeline > 0 ? kItemsPerIteration / (tPipeline / 1e9) : 0.0,
                tUpload > 0 ? kItemsPerIteration / (tUpload / 1e9) : 0.0);
    std::printf(
        "MEMORY after 100,000 captured items (%zu stored, all at the service): %.1f MiB RSS "
        "growth (%.2f KiB each)\n",
        stored, memoryMiB, memoryMiB * 1024.0 / 100000.0);
    std::fflush(stdout);
    environment().service->stop();
    std::filesystem::remove_all(environment().dir);
    std::_Exit(0);
}
