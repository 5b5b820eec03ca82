// The inspector's list at scale, each figure against a baseline in the same run:
//
// - one frame of the requests list (a real ImGui frame, headless, fonts built) with 100,000 items
//   against one with 10 items, in a view that both fill: the list clipper should make them cost
//   the same;
// - one search keystroke over 100,000 items (the search index: fold the search text, one
//   substring test per item) against a plain byte-wise std::string::find over the same raw texts;
// - the heap the list model takes at 100,000 items beyond the store's own (reported).
//
//   bench_inspector [--benchmark_filter=...]

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/kestro_sheet.h"
#include "kestro/inspector/requests_list.h"

namespace {

using namespace kestro;
namespace fs = std::filesystem;

fs::path gDir;

// A mix of what an application captures: requests to a REST API, log lines and events.
std::vector<RequestEventType> items(int count) {
    std::vector<RequestEventType> out;
    out.reserve(count);
    const TimePoint t = fromSecondsSince1970(1714566896.25);
    for (int i = 0; i < count; ++i) {
        const std::string id = "00000000-0000-4000-8000-" + std::to_string(100000000000 + i);
        switch (i % 3) {
            case 0: {
                RequestTypeRequest r{id, "network", {}, t, t};
                r.details.request = RequestTypeRequestDetailsRequest{
                    "https://api.example.test/v1/users/" + std::to_string(i) +
                        "?page=" + std::to_string(i % 7),
                    i % 2 ? "GET" : "POST",
                    {{"Accept", "application/json"}},
                    t,
                    ""};
                r.details.response = RequestTypeRequestDetailsResponse{200, {}, t, "{}"};
                out.emplace_back(std::move(r));
                break;
            }
            case 1:
                out.emplace_back(
                    RequestTypeLog{id,
                                   "log",
                                   "info",
                                   t,
                                   t,
                                   {"user " + std::to_string(i) + " opened the basket", "",
                                    "checkout", "/src/basket.cc", "basket.cc", 42}});
                break;
            default:
                out.emplace_back(
                    RequestTypeEvent{id,
                                     "event",
                                     t,
                                     t,
                                     {"checkout_step_" + std::to_string(i % 13), "commerce", {}}});
                break;
        }
    }
    return out;
}

// The raw searched texts of the same items, for the baseline.
std::vector<std::string> rawTexts(const std::vector<RequestEventType>& list) {
    std::vector<std::string> out;
    for (const auto& item : list) {
        if (const auto* r = item.asNetworkRequest()) {
            out.push_back(r->details.request->url);
            out.push_back(r->details.request->method);
        } else if (const auto* log = item.asLog()) {
            out.push_back(log->details.message);
        } else {
            out.push_back(item.asCustomEvent()->details.name);
        }
    }
    return out;
}

// An inspector showing the list of a store with `count` items, drawn in a headless context.
struct ListScene {
    explicit ListScene(int count)
        : store(gDir / ("frame-" + std::to_string(count) + ".sqlite")),
          modifier(InspectorServices{.facade = facade, .store = store}) {
        store.setRequests(items(count));
        MainQueue::shared().runUntilIdle();
        context = ImGui::CreateContext(&atlas());
        ImGui::SetCurrentContext(context);
        ImGui::GetIO().IniFilename = nullptr;
        // Room for about nine rows: both lists fill the view, so the two frames draw the same
        // rows and differ only in how many items lie beyond them.
        ImGui::GetIO().DisplaySize = ImVec2(1280, 700);
        ImGui::GetIO().DeltaTime = 1.0f / 60;
        view = std::make_unique<imgui::InspectorView>(modifier);
        modifier.present();
        modifier.sheet()->form().tapOpenLogs();
        for (int i = 0; i < 3; ++i) frame();
    }
    ~ListScene() {
        view.reset();
        ImGui::DestroyContext(context);
    }
    void frame() {
        ImGui::SetCurrentContext(context);
        MainQueue::shared().drain();
        ImGui::NewFrame();
        view->draw();
        ImGui::Render();
    }
    static ImFontAtlas& atlas() {
        static ImFontAtlas* a = [] {
            auto* made = new ImFontAtlas;
            imgui::Fonts::install(*made);
            return made;
        }();
        return *a;
    }

    KestroInternal facade;
    RequestStoreSQLite store;
    KestroSheetModifier modifier;
    ImGuiContext* context = nullptr;
    std::unique_ptr<imgui::InspectorView> view;
};

void listFrame(benchmark::State& state, int count) {
    static std::map<int, std::unique_ptr<ListScene>> scenes;
    auto& scene = scenes[count];
    if (!scene) scene = std::make_unique<ListScene>(count);
    for (auto _ : state) scene->frame();
}
void BM_ListFrame100k(benchmark::State& state) { listFrame(state, 100000); }
void BM_ListFrame10(benchmark::State& state) { listFrame(state, 10); }
BENCHMARK(BM_ListFrame100k)->Apply(kestro::bench::comparedByMedians);
BENCHMARK(BM_ListFrame10)->Apply(kestro::bench::comparedByMedians);

struct SearchData {
    SearchData() {
        const auto list = items(100000);
        raw = rawTexts(list);
        RequestStoreSQLite store(gDir / "search.sqlite");
        store.setRequests(list);
        index.reset(store.requests());
    }
    std::vector<std::string> raw;
    SearchIndex index;
};
SearchData& searchData() {
    static SearchData data;
    return data;
}
// A keystroke that narrows the list: "users/9" after "users/".
const std::string kNeedle = "users/9";

void BM_SearchKeystroke100k(benchmark::State& state) {
    auto& data = searchData();
    std::vector<std::uint32_t> rows;
    rows.reserve(100000);
    for (auto _ : state) {
        data.index.search(kNeedle, rows);
        benchmark::DoNotOptimize(rows.data());
    }
    state.counters["matches"] = static_cast<double>(rows.size());
}
void BM_PlainFind100k(benchmark::State& state) {
    auto& data = searchData();
    std::vector<std::uint32_t> rows;
    rows.reserve(data.raw.size());
    for (auto _ : state) {
        rows.clear();
        for (std::size_t i = 0; i < data.raw.size(); ++i) {
            if (data.raw[i].find(kNeedle) != std::string::npos)
                rows.push_back(static_cast<std::uint32_t>(i));
        }
        benchmark::DoNotOptimize(rows.data());
    }
}
BENCHMARK(BM_SearchKeystroke100k)->Apply(kestro::bench::comparedByMedians);
BENCHMARK(BM_PlainFind100k)->Apply(kestro::bench::comparedByMedians);

// Heap in use, from the allocator's own count: small blocks and blocks mapped on their own.
std::size_t heapInUse() {
    const struct mallinfo2 m = mallinfo2();
    return m.uordblks + m.hblkhd;
}

void reportMemory() {
    RequestStoreSQLite store(gDir / "memory.sqlite");
    store.setRequests(items(100000));
    MainQueue::shared().runUntilIdle();
    const std::size_t before = heapInUse();
    {
        RequestsListModel list(store);
        MainQueue::shared().runUntilIdle();
        list.setSearchText("users");
        (void)list.rowCount();
        const std::size_t after = heapInUse();
        // The heap count is a lower bound when the allocator reuses memory freed earlier.
        std::printf(
            "MEMORY list model at 100,000 items beyond the store's: index %.2f MiB "
            "(folded texts and entries, capacity), a search's rows %.2f MiB; "
            "heap grew by %.2f MiB\n",
            list.index().memoryBytes() / 1048576.0, list.rowCount() * 4 / 1048576.0,
            (after - before) / 1048576.0);
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = (fs::temp_directory_path() / "kestro-inspector-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) return 1;
    gDir = pattern;
    setenv("KESTRO_HOME", gDir.c_str(), 1);
    MainQueue::shared().useHostThread();

    kestro::bench::CollectingReporter reporter;
    {
        kestro::bench::QuietStdout quiet;
        kestro::bench::runBenchmarks(argc, argv, reporter, {kestro::bench::kInterleaved});
    }
    auto ratio = [&](const char* candidate, const char* baseline) {
        const double b = reporter.time(baseline);
        return b > 0 ? reporter.time(candidate) / b : 0.0;
    };
    std::printf("\n");
    kestro::bench::printRatio("list frame, 100,000 items / 10 items (time)",
                              ratio("BM_ListFrame100k", "BM_ListFrame10"), "<= 1.5");
    kestro::bench::printRatio("search keystroke over 100,000 items / plain find (time)",
                              ratio("BM_SearchKeystroke100k", "BM_PlainFind100k"), "<= 4");
    reportMemory();
    std::error_code ec;
    fs::remove_all(gDir, ec);
    return 0;
}
