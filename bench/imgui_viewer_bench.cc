// Opening a 5 MB JSON body in the JSON viewer's view against parsing it alone, and one frame of
// the view over that document against one over a ten-line document.
//
//  - BM_Parse: the tolerant parser on the document (the baseline).
//  - BM_Open: a new JSONViewerView is given the document, decorates it on the executor, and
//    draws its first frame in a headless ImGui context (real fonts, the atlas built once).
//  - BM_FrameLarge / BM_FrameSmall: one more frame of a view already showing the 5 MB
//    document / a ten-line one.
//
// The document is twitter.json, citm_catalog.json, canada.json and twitter.json again as the
// members of one array (about 5.2 MB), read from the shared benchmark data in place.
//
// Prints the ratios open / parse (target <= 5; in wall-clock and in process CPU time) and large
// frame / small frame (reported), each with the spread of its repetitions (lowest and highest
// wall-clock time of each side).

#include <benchmark/benchmark.h>
#include <imgui.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "kestro/core/main_queue.h"
#include "kestro/imgui/fonts.h"
#include "kestro/imgui/json_viewer_view.h"
#include "kestro/jsonview/json_parser.h"

namespace {

using namespace kestro;

std::string readData(const char* name) {
    std::ifstream in(std::string(KESTRO_BENCH_DATA_DIR) + "/" + name, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(in), {});
    if (text.empty()) std::fprintf(stderr, "missing bench document %s\n", name);
    return text;
}

const std::string& largeDocument() {
    static const std::string text = [] {
        const std::string twitter = readData("twitter.json");
        return "[" + twitter + "," + readData("citm_catalog.json") + "," +
               readData("canada.json") + "," + twitter + "]";
    }();
    return text;
}

const std::string kSmallDocument = R"({"id":7,"name":"kestro","tags":["a","b"],"ok":true})";

// A headless ImGui context with Kestro's fonts, made once.
void ensureContext() {
    if (ImGui::GetCurrentContext()) return;
    ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.DisplaySize = ImVec2(1280, 800);
    io.BackendFlags |= ImGuiBackendFlags_RendererHasVtxOffset;
    imgui::Fonts::install(*io.Fonts);
    MainQueue::shared().useHostThread();
}

void drawFrame(JSONViewerView& view) {
    ImGuiIO& io = ImGui::GetIO();
    io.DeltaTime = 1.0f / 60.0f;
    MainQueue::shared().drain();
    ImGui::NewFrame();
    ImGui::SetNextWindowPos(ImVec2(0, 0));
    ImGui::SetNextWindowSize(io.DisplaySize);
    view.DrawWindow("JSON", nullptr, ImGuiWindowFlags_NoDecoration);
    ImGui::Render();
    benchmark::DoNotOptimize(ImGui::GetDrawData()->TotalVtxCount);
}

void showIn(JSONViewerView& view, const std::string& json, benchmark::State& state) {
    view.setJSON(json);
    if (!MainQueue::shared().runUntil([&] { return view.isShowing(); }, std::chrono::minutes(2)))
        state.SkipWithError("the document was not shown");
    drawFrame(view);
}

void BM_Parse(benchmark::State& state) {
    const std::string& text = largeDocument();
    for (auto _ : state) {
        JSONValue value = parseJSON(text);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_Open(benchmark::State& state) {
    ensureContext();
    const std::string& text = largeDocument();
    for (auto _ : state) {
        JSONViewerView view;
        showIn(view, text, state);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void frames(benchmark::State& state, const std::string& json) {
    ensureContext();
    JSONViewerView view;
    showIn(view, json, state);
    for (auto _ : state) drawFrame(view);
    state.counters["lines"] = static_cast<double>(view.model()->lineDataSource().size());
}

void BM_FrameLarge(benchmark::State& state) { frames(state, largeDocument()); }
void BM_FrameSmall(benchmark::State& state) { frames(state, kSmallDocument); }

// The open's decoration runs on an executor thread: its CPU time is the process's.
BENCHMARK(BM_Parse)
    ->Unit(benchmark::kMillisecond)
    ->Apply(bench::comparedByMedians)
    ->MeasureProcessCPUTime();
BENCHMARK(BM_Open)
    ->Unit(benchmark::kMillisecond)
    ->Apply(bench::comparedByMedians)
    ->MeasureProcessCPUTime();
BENCHMARK(BM_FrameLarge)->Unit(benchmark::kMicrosecond)->Apply(bench::comparedByMedians);
BENCHMARK(BM_FrameSmall)->Unit(benchmark::kMicrosecond)->Apply(bench::comparedByMedians);

// Keeps every repetition's time too, for the spread.
class SpreadReporter : public bench::CollectingReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs)
            if (run.run_type == Run::RT_Iteration)
                repetitions_[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
        CollectingReporter::ReportRuns(runs);
    }
    std::pair<double, double> range(const std::string& name) const {
        auto it = repetitions_.find(name);
        if (it == repetitions_.end() || it->second.empty()) return {0, 0};
        auto [lo, hi] = std::minmax_element(it->second.begin(), it->second.end());
        return {*lo, *hi};
    }

  private:
    std::map<std::string, std::vector<double>> repetitions_;
};

}  // namespace

int main(int argc, char** argv) {
    SpreadReporter reporter;
    {
        bench::QuietStdout quiet;
        bench::runBenchmarks(argc, argv, reporter, {bench::kInterleaved});
    }
    auto line = [&](const char* what, const char* a, const char* b, const char* target) {
        const double ta = reporter.time(a), tb = reporter.time(b);
        if (ta <= 0 || tb <= 0) return;
        bench::printRatio(what, ta / tb, target);
        const auto [alo, ahi] = reporter.range(a);
        const auto [blo, bhi] = reporter.range(b);
        std::printf("      spread: %s %.3g-%.3g, %s %.3g-%.3g (ratio %.2f-%.2f)\n", a, alo, ahi, b,
                    blo, bhi, alo / bhi, ahi / blo);
    };
    std::printf("\ndocument: %.2f MB\n", static_cast<double>(largeDocument().size()) / 1e6);
    line("open 5 MB in the viewer (decorate + first frame) / parse", "BM_Open", "BM_Parse",
         "<= 5");
    // On a loaded machine wall-clock time includes waiting for a core; CPU time does not.
    if (reporter.cpuTime("BM_Parse") > 0)
        bench::printRatio("  the same in process CPU time",
                          reporter.cpuTime("BM_Open") / reporter.cpuTime("BM_Parse"), "<= 5");
    line("one frame over 5 MB / one frame over 10 lines", "BM_FrameLarge", "BM_FrameSmall",
         "report");
    ImGui::DestroyContext();
    return 0;
}
