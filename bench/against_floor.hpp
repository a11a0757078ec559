// A call beside its floor, which is the same work done by hand: Google Benchmark's table and the ratio of the medians.
#pragma once

#include <vector>

#include <benchmark/benchmark.h>

/// Runs both, repetition by repetition in turn, so that a machine that grows slower meanwhile slows both.
inline double cost_against_floor(int argc, char **argv, benchmark::internal::Function *call,
                                 benchmark::internal::Function *floor)
{
    class reporter : public benchmark::ConsoleReporter {
    public:
        reporter() : ConsoleReporter{OO_None} {}
        void ReportRuns(const std::vector<Run> &runs) override
        {
            ConsoleReporter::ReportRuns(runs);
            for (const Run &run : runs) {
                if (run.aggregate_name == "median")
                    (run.run_name.function_name == "floor" ? floor : call) = run.GetAdjustedRealTime();
            }
        }
        double call = 0, floor = 0;
    } medians;

    std::vector<char *> options{argv, argv + argc};
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    options.insert(options.begin() + 1, interleaved);
    int count = static_cast<int>(options.size());
    benchmark::Initialize(&count, options.data());
    for (const auto &[name, function] : {std::pair{"call", call}, {"floor", floor}})
        benchmark::RegisterBenchmark(name, function)
            ->MinTime(0.1)
            ->Repetitions(25)
            ->ReportAggregatesOnly()
            ->UseRealTime();
    benchmark::RunSpecifiedBenchmarks(&medians);
    return medians.call / medians.floor;
}
