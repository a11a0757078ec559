// What vdctl costs on large zone files, its start included: times loading the same file with zones_load, each in a
// fresh process and in turns; and the most memory that it had.
#include "device.hpp"

#include "zones.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json";

/// Peers that stand in three zones on average, ports of the same names everywhere, networks, ranges of addresses, and
/// ranges of MAC addresses. Gives a peer.
std::string write_zones(unsigned zones, unsigned members)
{
    std::mt19937 random{1};
    const unsigned peers = zones * members * 4 / 10 / 3;
    const auto peer = [&](unsigned i) { return "token-" + std::to_string(1000000000 + i * 7919); };
    std::ofstream file{zones_file};
    file << R"({"zone_configuration":{"zones":{)";
    for (unsigned zone = 0; zone < zones; ++zone) {
        file << (zone ? ",\n\"" : "\"") << zone << R"(":{"members":{)";
        for (unsigned i = 0; i < members; ++i) {
            const unsigned kind = i % 10;
            const auto number = static_cast<unsigned>(random());
            const std::string network = "10." + std::to_string(number >> 8 & 255) + "." + std::to_string(number & 255);
            char mac[16];
            std::snprintf(mac, sizeof mac, "00:00:00:%02x:%02x", number >> 8 & 255, number & 255);
            file << (i ? ",\n\"" : "\"");
            if (kind < 4)
                file << peer(number % peers) << R"(":{"type":"serialization")";
            else if (kind == 4)
                file << "lan" << i / 10 << R"(":{"type":"port")";
            else if (kind < 7)
                file << "net " << i << R"(":{"type":"whitelisted_ip","address_start":")" << network
                     << R"(.0","netmask":"24")";
            else if (kind == 7)
                file << "range " << i << R"(":{"type":"whitelisted_ip","address_start":")" << network
                     << R"(.0","address_end":")" << network << ".99\"";
            else
                file << "mac " << i << R"(":{"type":"whitelisted_mac","address_start":")" << mac
                     << R"(:00","address_end":")" << mac << ":63\"";
            file << R"(,"direction":"both"})";
        }
        file << "}}";
    }
    file << "}}}";
    return peer(0);
}

struct cost {
    double seconds, megabytes;
};

/// Of a whole process. Processor time, in which other processes count least.
cost cost_of(const std::vector<std::string> &command)
{
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        std::vector<char *> words;
        for (const std::string &word : command)
            words.push_back(const_cast<char *>(word.c_str()));
        words.push_back(nullptr);
        execv(words[0], words.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1)
        std::printf("  %s failed\n", command.back().c_str());
    const auto seconds = [](timeval time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), static_cast<double>(usage.ru_maxrss) / 1024};
}

double median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2) { // in a process of its own: loads the file, or only starts
        return std::string{argv[1]} == "load" && zones_load() == 0 ? 2 : 0;
    }
    char path[4096] = "";
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0)
        return 1;
    const std::string program = path, vdctl = program.substr(0, program.rfind("/bench/")) + "/tools/vdctl/vdctl";
    enter_device();
    for (const unsigned zones : {100U, 1000U}) {
        const std::string peer = write_zones(zones, 100);
        const std::vector<std::vector<std::string>> commands = {{vdctl, "zones", "check"},
                                                                {vdctl, "zones", "why", "-n", peer, "lan1"},
                                                                {vdctl, "zones", "matrix", "-n"},
                                                                {vdctl, "zones", "matrix", "-n", "--html"}};
        std::printf("%u zones x 100 members: times zones_load, with vdctl's start; MB\n", zones);
        const unsigned turns = zones > 100 ? 3 : 7;
        std::vector<std::vector<double>> ratios(commands.size());
        std::vector<double> most(commands.size());
        for (unsigned turn = 0; turn < turns; ++turn) {
            for (std::size_t i = 0; i < commands.size(); ++i) {
                const double load = cost_of({program, "load"}).seconds - cost_of({program, "start"}).seconds;
                const cost whole = cost_of(commands[i]);
                ratios[i].push_back(whole.seconds / load);
                most[i] = std::max(most[i], whole.megabytes);
            }
        }
        for (std::size_t i = 0; i < commands.size(); ++i) {
            std::string name;
            for (std::size_t word = 2; word < commands[i].size(); ++word)
                name += commands[i][word] + ' ';
            std::printf("  %-32s %6.1f x %7.1f MB\n", name.c_str(), median(ratios[i]), most[i]);
            std::fflush(stdout);
        }
    }
    return 0;
}
