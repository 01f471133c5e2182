// Runs the registered benchmarks interleaved and keeps the median of each, for tables of ratios.
//
// The repetitions of all benchmarks run in random order, so that a temporary slowdown of the machine affects
// both sides of every ratio.
#pragma once

#include "platform/kernel/scheduler.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace bench {

class Medians : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.error_occurred) {
                throw std::runtime_error(run.run_name.function_name + ": " + run.error_message);
            }
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                milliseconds_[run.run_name.function_name] = run.GetAdjustedRealTime() * 1e-6;
            }
        }
        if (isatty(STDERR_FILENO)) {
            std::fprintf(stderr, "\r%zu measured", milliseconds_.size());
        }
    }

    void Finalize() override {
        if (isatty(STDERR_FILENO)) {
            std::fprintf(stderr, "\r\033[K");
        }
    }

    // 0 when the benchmark was filtered out.
    double milliseconds(const std::string& name) const {
        const auto found = milliseconds_.find(name);
        return found == milliseconds_.end() ? 0 : found->second;
    }

  private:
    std::map<std::string, double> milliseconds_;
};

// Times `work` once per iteration, in processor time of the thread, so that other programs do not count.
// `prepare` runs before it, untimed.
template <typename Prepare, typename Work>
void add(const std::string& name, Prepare prepare, Work work) {
    benchmark::RegisterBenchmark(name.c_str(), [prepare, work](benchmark::State& state) {
        for (auto _ : state) {
            prepare();
            const std::uint64_t start = kernel::threadCpuTime();
            work();
            benchmark::ClobberMemory();
            state.SetIterationTime(static_cast<double>(kernel::threadCpuTime() - start) * 1e-9);
        }
    })->UseManualTime();
}

// Later options on the command line override these.
inline Medians run(int argc, char** argv) {
    std::vector<std::string> options{argv[0], "--benchmark_enable_random_interleaving=true",
                                     "--benchmark_repetitions=15", "--benchmark_min_time=0.03",
                                     "--benchmark_report_aggregates_only=true"};
    options.insert(options.end(), argv + 1, argv + argc);
    std::vector<char*> pointers;
    for (std::string& option : options) {
        pointers.push_back(option.data());
    }
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data())) {
        std::exit(2);
    }
    Medians medians;
    benchmark::RunSpecifiedBenchmarks(&medians);
    return medians;
}

} // namespace bench
