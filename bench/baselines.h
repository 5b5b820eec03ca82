#pragma once

// Baselines and measurements shared by the benchmark programs.

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <fstream>
#include <string>

namespace kestro::bench {

/// The raw-libcurl baseline: GETs `url` one at a time on one reused easy handle (keep-alive,
/// no Kestro code), one per benchmark iteration.
inline void rawCurlGetsOnReusedHandle(benchmark::State& state, const std::string& url) {
    CURL* e = curl_easy_init();
    std::string body;
    curl_easy_setopt(e, CURLOPT_URL, url.c_str());
    curl_easy_setopt(
        e, CURLOPT_WRITEFUNCTION, +[](char* d, size_t s, size_t n, void* u) {
            static_cast<std::string*>(u)->append(d, s * n);
            return s * n;
        });
    curl_easy_setopt(e, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    for (auto _ : state) {
        body.clear();
        curl_easy_perform(e);
        benchmark::DoNotOptimize(body);
    }
    curl_easy_cleanup(e);
}

/// This process's resident set size in KiB (0 when /proc cannot be read).
inline long rssKiB() {
    std::ifstream in("/proc/self/status");
    std::string key;
    long value = 0;
    while (in >> key) {
        if (key == "VmRSS:") {
            in >> value;
            return value;
        }
        in.ignore(1 << 12, '\n');
    }
    return 0;
}

}  // namespace kestro::bench
