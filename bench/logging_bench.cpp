// What a log call costs beside a libevtlog record made by hand with the same text and the same two tags, both to a
// /dev/log that somebody drains.
#include "device.hpp"

#include "logging.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <glib.h>
extern "C" {
#include <evtlog.h>
}

namespace {

void log_call(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state)
        vd_logging_log(libvandrel_logcontext, LOG_WARNING, "zones.c", 214, ENOENT, "Opening %s failed", "zones.json");
}

void by_hand(benchmark::State &state)
{
    for ([[maybe_unused]] auto _ : state) {
        EVTREC *record = evt_rec_init(libvandrel_logcontext->event_ctx, LOG_WARNING, "Opening zones.json failed");
        evt_rec_add_tag(record, evt_tag_errno("error", ENOENT));
        evt_rec_add_tag(record, evt_tag_str("filename", "zones.c:214"));
        evt_log(record);
    }
}

BENCHMARK(log_call)->MinTime(0.2)->Repetitions(9)->ReportAggregatesOnly()->UseRealTime();
BENCHMARK(by_hand)->MinTime(0.2)->Repetitions(9)->ReportAggregatesOnly()->UseRealTime();

/// Google Benchmark's table, and below it the ratio of the two medians.
class with_ratio : public benchmark::ConsoleReporter {
public:
    with_ratio() : ConsoleReporter{OO_None} {}
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run &run : runs) {
            if (run.aggregate_name == "median")
                (run.run_name.function_name == "log_call" ? call : floor) = run.GetAdjustedRealTime();
        }
    }
    double call = 0;
    double floor = 0;
};

void drain(int fd)
{
    char buffer[4096];
    while (recv(fd, buffer, sizeof buffer, 0) > 0) {}
}

} // namespace

int main(int argc, char **argv)
{
    enter_device();
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, "/dev/log"};
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        return 1;
    std::thread reader{drain, fd};
    logging_init("bench", 0);

    // Repetitions in turn, so that a machine that grows slower meanwhile slows both.
    std::vector<char *> options{argv, argv + argc};
    char interleaved[] = "--benchmark_enable_random_interleaving=true";
    options.insert(options.begin() + 1, interleaved);
    int count = static_cast<int>(options.size());
    benchmark::Initialize(&count, options.data());
    with_ratio reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("a log call costs %.2f times a record made by hand\n", reporter.call / reporter.floor);
    std::fflush(stdout);

    vd_logging_close(&libvandrel_logcontext);
    closelog();
    shutdown(fd, SHUT_RDWR);
    reader.join();
}
