// How long an add() waits while the store trims, against adds to a store with nothing to trim,
// in the same run. Each add is timed from call to return (its wait for the store's queue
// included). A store of kRows network records of about 1.5 KB is trimmed to a tenth of them
// by the item limit, and then by a byte limit (which also returns pages to the file system);
// adds run on the measuring thread meanwhile, while the trim runs on the global executor.
// Printed: the median, 99th percentile and longest add of each case, and ratios of the
// trimming cases' 99th percentile to the baseline's.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bench/ratio.h"
#include "kestro/core/uuid.h"
#include "kestro/store/request_store_sqlite.h"

namespace {

using namespace kestro;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kRows = 20000;
constexpr int kAdds = 3000;

RequestEventType exchange(int i, double base) {
    const auto t = fromSecondsSince1970(base + i * 0.001);
    RequestTypeRequest r{newUUIDString(), "network", {}, t, t};
    r.details.request = RequestTypeRequestDetailsRequest{
        "https://api.example.com/v2/items?page=" + std::to_string(i % 50),
        "GET",
        {{"Accept", "application/json"}, {"User-Agent", "shop/4.2"}},
        t,
        ""};
    r.details.response = RequestTypeRequestDetailsResponse{
        200, {{"Content-Type", "application/json"}}, t, std::string(1200, 'x')};
    return r;
}

struct Waits {
    double median = 0, p99 = 0, longest = 0;
};

Waits measureAdds(RequestStoreSQLite& store, double base, bool untilTrimmed) {
    std::vector<double> ms;
    ms.reserve(kAdds);
    for (int i = 0; i < kAdds; ++i) {
        RequestEventType item = exchange(kRows + i, base);
        const auto started = Clock::now();
        store.add(std::move(item));
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - started).count());
    }
    if (untilTrimmed && store.trimPending()) {
        std::printf("  (the trim was still running after the adds)\n");
    }
    std::sort(ms.begin(), ms.end());
    return {ms[ms.size() / 2], ms[ms.size() * 99 / 100], ms.back()};
}

void print(const char* what, const Waits& w) {
    std::printf("%-44s median %7.3f ms   p99 %7.3f ms   longest %7.3f ms\n", what, w.median, w.p99,
                w.longest);
}

Waits run(const fs::path& dir, const char* name, const StoreRetention& limits) {
    const double base = secondsSince1970(std::chrono::system_clock::now()) - 3600;
    const fs::path path = dir / name;
    {
        RequestStoreSQLite fill(path);
        for (int i = 0; i < kRows; ++i) fill.add(exchange(i, base));
    }
    RequestStoreSQLite store(path);
    const auto bytesBefore = store.bytesOnDisk();
    const auto started = Clock::now();
    store.setRetention(limits);
    const Waits w = measureAdds(store, base, limits != StoreRetention::unlimited());
    while (store.trimPending() && Clock::now() - started < std::chrono::minutes(2)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a benchmark, not a test
    }
    const double total = std::chrono::duration<double>(Clock::now() - started).count();
    std::printf("%-44s %zu items, %.1f -> %.1f MB on disk, %.2f s\n", name, store.requests().size(),
                bytesBefore / 1e6, store.bytesOnDisk() / 1e6, total);
    return w;
}

}  // namespace

int main() {
    char pattern[] = "/tmp/kestro-trim-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return 1;
    const fs::path dir = pattern;

    const Waits baseline = run(dir, "no limits (baseline)", StoreRetention::unlimited());
    const Waits items =
        run(dir, "item limit (20,000 -> 2,000)", {2000, std::chrono::seconds(0), 0});
    const Waits bytes =
        run(dir, "byte limit (to 4 MB)", {0, std::chrono::seconds(0), std::int64_t{4} << 20});
    print("add, nothing to trim", baseline);
    print("add while trimming to the item limit", items);
    print("add while trimming to the byte limit", bytes);
    kestro::bench::printRatio("add p99 while trimming items / no trim (lower is better)",
                              items.p99 / baseline.p99, "report");
    kestro::bench::printRatio("add p99 while trimming bytes / no trim (lower is better)",
                              bytes.p99 / baseline.p99, "report");
    std::error_code ec;
    fs::remove_all(dir, ec);
    return 0;
}
