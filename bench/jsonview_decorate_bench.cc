// The JSON viewer's decoration against the parse it builds on, and in-place folding against
// re-assembling the whole document:
//  - highlight() + assemble() of twitter.json, citm_catalog.json and canada.json, against the
//    tolerant parse of the same text alone;
//  - folding and then expanding one ten-line object in the middle of a 100,000-line document,
//    against one full assemble() of that document.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "bench/ratio.h"
#include "kestro/core/main_queue.h"
#include "kestro/jsonview/json_decorator.h"
#include "kestro/jsonview/json_parser.h"
#include "kestro/jsonview/json_value.h"
#include "kestro/jsonview/json_viewer_model.h"

namespace {

using namespace kestro;

const char* const kFiles[] = {"twitter", "citm_catalog", "canada"};

const std::string& document(int index) {
    static std::string texts[3];
    std::string& text = texts[index];
    if (text.empty()) {
        const std::string path = std::string(KESTRO_BENCH_DATA_DIR) + "/" + kFiles[index] + ".json";
        std::ifstream in(path, std::ios::binary);
        std::ostringstream buffer;
        buffer << in.rdbuf();
        text = buffer.str();
        if (text.empty()) std::fprintf(stderr, "cannot read %s\n", path.c_str());
    }
    return text;
}

void BM_Parse(benchmark::State& state, int file) {
    const std::string& text = document(file);
    for (auto _ : state) {
        JSONValue value = parseJSON(text);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void BM_HighlightAssemble(benchmark::State& state, int file) {
    const std::string& text = document(file);
    for (auto _ : state) {
        auto decorator = JSONDecorator::highlight(text);
        auto assembly = decorator->assemble();
        benchmark::DoNotOptimize(assembly);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// 10,000 objects of eight members: ten lines each, 100,002 lines in all.
const std::string& largeDocument() {
    static const std::string text = [] {
        std::string s = "[";
        for (int i = 0; i < 10000; ++i) {
            if (i) s += ',';
            s += R"({"id":)" + std::to_string(i) +
                 R"(,"name":"item","url":"https://example.com/items/)" + std::to_string(i) +
                 R"(","price":12.5,"stock":true,"note":null,"code":"A-)" + std::to_string(i) +
                 R"(","rank":)" + std::to_string(i * 7) + "}";
        }
        return s + "]";
    }();
    return text;
}

std::shared_ptr<JSONDecorator> largeDecorator() {
    static auto decorator = JSONDecorator::highlight(largeDocument());
    return decorator;
}

void BM_AssembleLargeDocument(benchmark::State& state) {
    auto decorator = largeDecorator();
    for (auto _ : state) {
        auto assembly = decorator->assemble();
        benchmark::DoNotOptimize(assembly);
    }
    state.counters["lines"] = static_cast<double>(decorator->slices.size());
}
BENCHMARK(BM_AssembleLargeDocument)->Unit(benchmark::kMicrosecond);

void BM_FoldExpandInLargeDocument(benchmark::State& state) {
    MainQueue::shared().useHostThread();
    auto viewer = JSONViewer::create();
    viewer->update(largeDecorator());
    MainQueue::shared().runUntilIdle(std::chrono::seconds(60));
    // The 5,000th object: its opening line is slice 1 + 5000 × 10.
    const std::size_t middle = 1 + 5000 * 10;
    for (auto _ : state) {
        viewer->handleZoomClick(middle);
        viewer->handleZoomClick(middle);
    }
    if (viewer->lineDataSource().size() != largeDecorator()->slices.size())
        state.SkipWithError("the document did not come back whole");
}
BENCHMARK(BM_FoldExpandInLargeDocument)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    // One named pair per file, so that each ratio compares runs of the same file.
    for (int i = 0; i < 3; ++i) {
        benchmark::RegisterBenchmark((std::string("BM_Parse_") + kFiles[i]).c_str(), BM_Parse, i)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("BM_HighlightAssemble_") + kFiles[i]).c_str(),
                                     BM_HighlightAssemble, i)
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::Initialize(&argc, argv);
    kestro::bench::CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    auto ratio = [&](const std::string& a, const std::string& b) {
        const double tb = reporter.time(b);
        return tb > 0 ? reporter.time(a) / tb : 0.0;
    };
    std::printf("\n");
    for (int i = 0; i < 3; ++i) {
        const std::string arg = std::string("_") + kFiles[i];
        const std::string what = std::string("highlight+assemble / parse, ") + kFiles[i] + ".json";
        kestro::bench::printRatio(what.c_str(),
                                  ratio("BM_HighlightAssemble" + arg, "BM_Parse" + arg), "<= 4");
    }
    kestro::bench::printRatio("fold+expand of 10 lines / assemble(), 100k lines",
                              ratio("BM_FoldExpandInLargeDocument", "BM_AssembleLargeDocument"),
                              "<= 0.01");
    return 0;
}
