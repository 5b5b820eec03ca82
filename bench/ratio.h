#pragma once

// Shared by the benchmark programs: runs the registered benchmarks, keeps each one's time per
// iteration, and prints "ratio" lines comparing a candidate with its baseline from the same run.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace kestro::bench {

class CollectingReporter : public ::benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (run.run_type != Run::RT_Iteration && run.aggregate_name != "median") continue;
            // With repetitions, the median wins over single iterations of the same name.
            const std::string name = run.run_name.function_name;
            if (run.run_type == Run::RT_Aggregate || !times_.count(name)) {
                times_[name] = run.GetAdjustedRealTime();
                cpuTimes_[name] = run.GetAdjustedCPUTime();
            }
            for (const auto& [key, counter] : run.counters) counters_[name + "/" + key] = counter.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    double time(const std::string& name) const {
        auto it = times_.find(name);
        return it == times_.end() ? 0 : it->second;
    }
    /// CPU time per iteration of the benchmark's own thread: what a single-threaded piece of
    /// work costs its caller, unaffected by time spent waiting for a core on a busy machine.
    double cpuTime(const std::string& name) const {
        auto it = cpuTimes_.find(name);
        return it == cpuTimes_.end() ? 0 : it->second;
    }
    double counter(const std::string& name, const std::string& key) const {
        auto it = counters_.find(name + "/" + key);
        return it == counters_.end() ? 0 : it->second;
    }

private:
    std::map<std::string, double> times_;
    std::map<std::string, double> cpuTimes_;
    std::map<std::string, double> counters_;
};

/// Sends standard output to /dev/null while the benchmarks run (the code under test writes its
/// console lines there), and gives it back for the summary.
class QuietStdout {
public:
    QuietStdout() : saved_(dup(STDOUT_FILENO)) {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;
    ~QuietStdout() { restore(); }

    void restore() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        saved_ = -1;
    }

private:
    int saved_;
};

/// Runs the registered benchmarks selected by the command line, with `extraFlags` put before
/// the caller's own (which may override them); their report goes to standard error.
inline void runBenchmarks(int argc, char** argv, CollectingReporter& reporter,
                          std::vector<std::string> extraFlags = {}) {
    std::vector<char*> args(argv, argv + argc);
    for (auto& flag : extraFlags) args.insert(args.begin() + 1, flag.data());
    int count = static_cast<int>(args.size());
    ::benchmark::Initialize(&count, args.data());
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    ::benchmark::RunSpecifiedBenchmarks(&reporter);
}

/// The runs of a benchmark compared with its pair by medians: wall-clock time, five
/// repetitions of at least half a second. Run the program with random interleaving (see
/// kInterleaved) so that a change in the machine's load falls on both sides of a ratio alike.
inline void comparedByMedians(::benchmark::internal::Benchmark* b) {
    b->UseRealTime()->MinTime(0.5)->Repetitions(5);
}
inline const std::string kInterleaved = "--benchmark_enable_random_interleaving=true";

/// Prints one summary line: candidate time / baseline time, with the target it is held to.
inline void printRatio(const char* what, double ratio, const char* target) {
    std::printf("RATIO %-60s %8.3f   (target %s)\n", what, ratio, target);
    std::fflush(stdout);
}

}  // namespace kestro::bench
