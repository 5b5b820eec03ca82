// Parse throughput of the tolerant JSON parser against nlohmann::json::parse and
// boost::json::parse of the same bytes, per document. Each parse builds and frees the whole
// tree, as the JSON viewer does once per document shown.
//
// Prints, per document, the throughput ratios Kestro / nlohmann (target >= 2) and
// Kestro / Boost.JSON (target >= 0.5).

#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/ratio.h"
#include "kestro/jsonview/json_parser.h"

namespace {

const char* const kDocuments[] = {"twitter.json", "citm_catalog.json", "canada.json"};

const std::string& document(const std::string& name) {
    static std::map<std::string, std::string> cache;
    auto it = cache.find(name);
    if (it == cache.end()) {
        std::ifstream in(std::string(KESTRO_BENCH_DATA_DIR) + "/" + name, std::ios::binary);
        it = cache.emplace(name, std::string(std::istreambuf_iterator<char>(in), {})).first;
        if (it->second.empty()) std::fprintf(stderr, "missing bench document %s\n", name.c_str());
    }
    return it->second;
}

void setBytes(benchmark::State& state, const std::string& bytes) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_Kestro(benchmark::State& state, const std::string& name) {
    const std::string& bytes = document(name);
    for (auto _ : state) {
        kestro::JSONValue v = kestro::JSONParser(bytes).parse();
        benchmark::DoNotOptimize(v);
    }
    setBytes(state, bytes);
}

void BM_Nlohmann(benchmark::State& state, const std::string& name) {
    const std::string& bytes = document(name);
    for (auto _ : state) {
        nlohmann::json v = nlohmann::json::parse(bytes);
        benchmark::DoNotOptimize(v);
    }
    setBytes(state, bytes);
}

void BM_Boost(benchmark::State& state, const std::string& name) {
    const std::string& bytes = document(name);
    for (auto _ : state) {
        boost::json::value v = boost::json::parse(bytes);
        benchmark::DoNotOptimize(v);
    }
    setBytes(state, bytes);
}

}  // namespace

int main(int argc, char** argv) {
    for (const char* name : kDocuments) {
        const std::string n(name);
        benchmark::RegisterBenchmark(("kestro/" + n).c_str(), BM_Kestro, n)
            ->MinTime(0.3)
            ->Repetitions(3);
        benchmark::RegisterBenchmark(("nlohmann/" + n).c_str(), BM_Nlohmann, n)
            ->MinTime(0.3)
            ->Repetitions(3);
        benchmark::RegisterBenchmark(("boost/" + n).c_str(), BM_Boost, n)
            ->MinTime(0.3)
            ->Repetitions(3);
    }
    benchmark::Initialize(&argc, argv);
    kestro::bench::CollectingReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const char* name : kDocuments) {
        const std::string n(name);
        const double kestro = reporter.time("kestro/" + n);
        if (kestro <= 0) continue;
        // Throughput ratio = baseline time / Kestro time.
        kestro::bench::printRatio(("jsonview parse " + n + " vs nlohmann (throughput)").c_str(),
                                  reporter.time("nlohmann/" + n) / kestro, ">= 2");
        kestro::bench::printRatio(("jsonview parse " + n + " vs Boost.JSON (throughput)").c_str(),
                                  reporter.time("boost/" + n) / kestro, ">= 0.5");
    }
    benchmark::Shutdown();
    return 0;
}
