// Several threads log, look settings up and ask for features at once, as the headers allow. Every answer must be the
// right one; the thread sanitizer tells of what only might go wrong. Ends with 0 if all is well.
#include "device.hpp"

#include "logging.h"
#include "uciconfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include <syslog.h>

namespace {

constexpr int threads = 4;
constexpr int calls = 200; // of each thread

int log_and_look_up(int thread)
{
    int wrong = 0;
    for (int i = 0; i < calls; ++i) {
        wrong += vd_logging_log(libvandrel_logcontext, LOG_INFO, "calls_threads.cpp", i, -1, "thread %d", thread) < -3;
        char *name = config_get_setting("name");
        wrong += !name || std::strcmp(name, "router") != 0;
        free(name);
        char *state = state_lookup("vandrel.settings.%s", "name");
        wrong += !state || std::strcmp(state, "router") != 0;
        free(state);
    }
    return wrong;
}

} // namespace

int main()
{
    enter_device();
    logging_init("calls_threads", 0);
    std::ofstream{"/etc/config/vandrel"} << "config vandrel settings\n option name router\n";
    std::latch start{threads};
    std::vector<int> wrong(threads);
    std::vector<std::thread> calling;
    for (int i = 0; i < threads; ++i) {
        calling.emplace_back([&, i] {
            start.arrive_and_wait();
            wrong[static_cast<std::size_t>(i)] = log_and_look_up(i);
        });
    }
    for (std::thread &each : calling)
        each.join();
    int sum = 0;
    for (const int count : wrong)
        sum += count;
    std::printf("calls_threads: %d of %d calls wrong\n", sum, threads * calls * 3);
    return sum == 0 ? 0 : 1;
}
