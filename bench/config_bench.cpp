// What config_lookup costs beside the same libuci calls made directly, for an option in the middle of a usual network
// package. Both make a context, read the package and copy the text.
#include "device.hpp"

#include "uciconfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <benchmark/benchmark.h>
#include <uci.h>

namespace {

void config_lookup_call(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        std::free(config_lookup("%s.%s.%s", "network", "lan4", "ipaddr"));
}

void by_hand(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        uci_context *ctx = uci_alloc_context();
        char path[] = "network.lan4.ipaddr";
        uci_ptr found{};
        char *text = nullptr;
        if (uci_lookup_ptr(ctx, &found, path, true) == UCI_OK && (found.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
            text = strdup(found.o->v.string);
        benchmark::DoNotOptimize(text);
        std::free(text);
        uci_free_context(ctx);
    }
}

BENCHMARK(config_lookup_call)->MinTime(0.1)->Repetitions(25)->ReportAggregatesOnly()->UseRealTime();
BENCHMARK(by_hand)->MinTime(0.1)->Repetitions(25)->ReportAggregatesOnly()->UseRealTime();

/// Google Benchmark's table, with the medians kept for the ratio below it.
class with_ratio : public benchmark::ConsoleReporter {
public:
    with_ratio() : ConsoleReporter{OO_None} {}
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.aggregate_name == "median")
                (run.run_name.function_name == "by_hand" ? floor : call) = run.GetAdjustedRealTime();
        }
    }
    double call = 0;
    double floor = 0;
};

void write_network_package()
{
    std::ofstream file{"/etc/config/network"};
    for (int i = 0; i < 8; ++i)
        file << "config interface 'lan" << i << "'\n\toption ifname 'eth" << i << "'\n\toption proto 'static'\n"
             << "\toption ipaddr '192.168." << i << ".1'\n\toption netmask '255.255.255.0'\n\tlist dns '192.168." << i
             << ".1'\n\n";
}

} // namespace

int main(int argc, char **argv)
{
    enter_device();
    write_network_package();

    // Repetitions in turn, so that a machine that grows slower meanwhile slows both.
    std::vector<char *> options{argv, argv + argc};
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    options.insert(options.begin() + 1, interleaved);
    int count = static_cast<int>(options.size());
    benchmark::Initialize(&count, options.data());
    with_ratio reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("config_lookup costs %.3f times the same libuci calls\n", reporter.call / reporter.floor);
}
