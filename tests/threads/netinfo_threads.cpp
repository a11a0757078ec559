// Several threads ask for the device's own LAN address at once, in one process after the other, so that each time any
// of them may be the one that finds the setting. Every answer must be the right one; the thread sanitizer, which this
// is built with, tells of what only might go wrong. Ends with 0 if all is well.
#include "device.hpp"

#include "netinfo.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int processes = 50;
constexpr int threads = 4;
constexpr int calls = 3; // of each thread

void ask(std::latch &start, int &wrong)
{
    start.arrive_and_wait();
    for (int i = 0; i < calls; ++i) {
        char address[16] = "";
        const int found = netinfo_get_my_lan_ip(address);
        wrong += found != 1 || std::strcmp(address, "127.0.0.1") != 0;
    }
}

/// How many answers are wrong in this process.
int ask_from_threads()
{
    std::latch start{threads};
    std::vector<int> wrong(threads);
    std::vector<std::thread> asking;
    for (int &count : wrong)
        asking.emplace_back(ask, std::ref(start), std::ref(count));
    for (std::thread &each : asking)
        each.join();
    int sum = 0;
    for (const int count : wrong)
        sum += count;
    return sum;
}

bool is_right_in_a_process()
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0)
        std::exit(ask_from_threads() == 0 ? 0 : 1);
    int status = -1;
    return waitpid(pid, &status, 0) == pid && status == 0;
}

} // namespace

int main()
{
    enter_device();
    if (std::system("ip link set lo up") != 0)
        return 2;
    std::ofstream{"/etc/config/vandrel"} << "config vandrel settings\n option lan_networks 'gone away lo'\n";
    int right = 0;
    for (int i = 0; i < processes; ++i)
        right += is_right_in_a_process();
    std::printf("netinfo_threads: right in %d of %d processes\n", right, processes);
    return right == processes ? 0 : 1;
}
