// What the library costs before it does anything: its size, and the start and memory of a program with it beside one
// with only the C libraries below it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::uintmax_t stripped_bytes(const std::string &library)
{
    const std::string stripped = library + ".stripped";
    if (std::system(("strip -o " + stripped + " " + library).c_str()) != 0)
        throw std::runtime_error{"strip fails"};
    return std::filesystem::file_size(stripped);
}

/// What one run of a program takes: the time until it has ended, and the memory that it says is resident.
struct cost {
    double milliseconds;
    double kilobytes;
};

cost start_once(const char *path)
{
    const auto begin = std::chrono::steady_clock::now();
    int fds[2];
    posix_spawn_file_actions_t actions;
    if (pipe(fds) != 0 || posix_spawn_file_actions_init(&actions) != 0 ||
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO) != 0)
        throw std::runtime_error{"no pipe"};
    char *arguments[] = {const_cast<char *>(path), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, path, &actions, nullptr, arguments, environ) != 0)
        throw std::runtime_error{"the program does not start"};
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);

    int status = 0;
    char text[32] = "";
    waitpid(pid, &status, 0);
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - begin;
    if (status != 0 || read(fds[0], text, sizeof text - 1) <= 0)
        throw std::runtime_error{"the program fails"};
    close(fds[0]);
    return {taken.count(), std::strtod(text, nullptr)};
}

/// The tenth part of all runs is cheaper: other than the median it hardly sees what else the machine does.
double usual(std::vector<cost> costs, double cost::*what)
{
    const auto tenth = costs.begin() + static_cast<std::ptrdiff_t>(costs.size() / 10);
    std::nth_element(costs.begin(), tenth, costs.end(),
                     [=](const cost &a, const cost &b) { return a.*what < b.*what; });
    return (*tenth).*what;
}

} // namespace

int main()
{
    std::vector<cost> with, without;
    for (int turn = 0; turn < 1000; ++turn) { // in turn, so that a machine that grows slower slows both
        with.push_back(start_once(WITH_LIBRARY));
        without.push_back(start_once(WITHOUT_LIBRARY));
    }
    std::printf("the library has %ju bytes, stripped (goal 230000); built for size %ju (goal 205000)\n",
                stripped_bytes(LIBRARY), stripped_bytes(SMALL_LIBRARY));
    std::printf(
        "a program with it starts and ends in %.2f times the time of one with the same C libraries (goal 1.3)\n",
        usual(with, &cost::milliseconds) / usual(without, &cost::milliseconds));
    std::printf("and has %.0f kB more resident (goal 300)\n",
                usual(with, &cost::kilobytes) - usual(without, &cost::kilobytes));
}
