// What zone queries and loads cost, each beside what it is measured by: a query beside one access and one stat of the
// zone file, and beside the plain walk after the same two calls; a load beside parsing the file and releasing the
// document; memory by member. All numbers are ratios of two things that took turns, or bytes.
#include "device.hpp"
#include "zone_generator.hpp"

#include "zones.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <deque>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <json-c/json.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json", aside[] = "/etc/vandrel/aside";

/// So many zones with so many members each, as the zone file says them, and what is asked of them.
struct model {
    model(unsigned zone_count, unsigned members_each)
    {
        auto made = generate_zones({.zones = zone_count,
                                    .members = members_each,
                                    .is_large = true,
                                    .has_deny_flags = false,
                                    .has_left_out = false});
        peers = std::move(made.names);
        zones = std::move(made.zones);
        for (const plain_zone &zone : zones)
            member_count += static_cast<unsigned>(zone.members.size());
        std::ofstream{zones_file} << made.text;
    }

    std::mt19937 random{1};
    std::vector<std::string> peers;
    std::deque<std::string> names; // that are asked for
    plain_zones zones;
    unsigned member_count = 0;
};

using action = std::function<void(unsigned)>;

/// Processor time, in which other processes count least.
double seconds_now()
{
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double seconds(const action &run, unsigned first, unsigned times)
{
    const double begin = seconds_now();
    for (unsigned i = first; i < first + times; ++i)
        run(i);
    return (seconds_now() - begin) / times;
}

/// How much longer run takes than floor: the median over turns that each take.
double ratio(const action &run, unsigned times, const action &floor, unsigned floor_times, unsigned turns)
{
    std::vector<double> ratios;
    for (unsigned turn = 0; turn <= turns; ++turn) {
        const double floor_seconds = seconds(floor, turn * floor_times, floor_times);
        const double run_seconds = seconds(run, turn * times, times);
        if (turn > 0) // the first one warms up
            ratios.push_back(run_seconds / floor_seconds);
    }
    std::ranges::nth_element(ratios, ratios.begin() + static_cast<long>(turns / 2));
    return ratios[turns / 2];
}

void look_at_file(unsigned = 0)
{
    struct stat status;
    access(zones_file, F_OK);
    stat(zones_file, &status);
}

/// Questions of one kind, one of each peer in turn.
template <typename Target> struct questions {
    const char *name;
    std::vector<Target> targets;
    int (*library)(const char *peer, Target target, uint8_t *sched);
    int (*plain)(const plain_zones &zones, const char *peer, Target target, uint8_t *sched);
};

template <typename Target>
void bench_questions(const model &made, const std::vector<const char *> &peers, const questions<Target> &asked)
{
    const auto in_turn = [&](auto ask) {
        return [&, ask](unsigned i) { ask(peers[i % peers.size()], asked.targets[i % peers.size()]); };
    };
    const auto floor = in_turn([](const char *peer, Target target) {
        asm volatile("" : : "r"(peer), "r"(target));
        look_at_file();
    });
    const auto walk = in_turn([&](const char *peer, Target target) {
        look_at_file();
        asked.plain(made.zones, peer, target, nullptr);
    });
    uint8_t sched = 0;
    const auto with_sched = in_turn([&](const char *peer, Target target) { asked.library(peer, target, &sched); });
    const auto without = in_turn([&](const char *peer, Target target) { asked.library(peer, target, nullptr); });
    const unsigned walks = std::max(4U, 200000 / made.member_count);
    std::printf("  %-14s %8.2f %10.2f %10.2f\n", asked.name, ratio(without, 500, floor, 500, 41),
                ratio(with_sched, 500, floor, 500, 41), ratio(walk, walks, floor, 500, 9));
}

int list_members(const char *name, int direction, uint8_t *)
{
    zone_member **list;
    uint32_t count;
    if (!zones_get_allowed_members(&list, &count, name, direction))
        return 0;
    std::free(list);
    return static_cast<int>(count);
}

int list_plainly(const plain_zones &zones, const char *name, int direction, uint8_t *)
{
    return static_cast<int>(plain_members(zones, name, direction).size());
}

/// Asks so many different questions of each kind: few stay in the processor's caches, many do not.
void bench_queries(model &made, std::size_t count)
{
    std::vector<const char *> peers, hit_ports, hit_peers;
    std::vector<uint32_t> hit_ips;
    std::vector<const uint8_t *> hit_macs;
    std::vector<std::array<uint8_t, 6>> macs(count);
    for (std::size_t i = 0; i < count; ++i) {
        peers.push_back(made.peers[made.random() % made.peers.size()].c_str());
        auto reached = plain_members(made.zones, peers.back(), ZONE_DIRECTION_OUT);
        std::ranges::shuffle(reached, made.random);
        const auto target = [&](auto... types) {
            const auto found = std::ranges::find_if(reached, [=](auto *m) { return ((m->type == types) || ...); });
            return found == reached.end() ? zone_value{"none"} : (*found)->start;
        };
        const auto name_of = [&](int type) { return made.names.emplace_back(target(type).name).c_str(); };
        hit_ips.push_back(target(ZONE_MEMBER_IP_RANGE, ZONE_MEMBER_IP_NETWORK).ip + 9);
        hit_ports.push_back(name_of(ZONE_MEMBER_PORT));
        hit_peers.push_back(name_of(ZONE_MEMBER_SERIALIZATION));
        for (std::size_t byte = 0; byte < 6; ++byte)
            macs[i][byte] = static_cast<uint8_t>(target(ZONE_MEMBER_MAC_RANGE).mac >> (40 - 8 * byte));
        hit_macs.push_back(macs[i].data());
    }
    static constexpr uint8_t far_mac[6] = {255, 255, 255, 255, 255, 255};
    std::printf("  %zu questions%12s %10s %10s\n", count, "query", "with sched", "plain walk");
    const auto bench = [&]<typename Target>(const questions<Target> &asked) { bench_questions(made, peers, asked); };
    const auto all = [&]<typename Target>(Target target) { return std::vector<Target>(count, target); };
    bench(questions<uint32_t>{"address, hit", hit_ips, zones_is_ip_allowed_sched, plain_ip});
    bench(questions<uint32_t>{"address, miss", all(0x0B000000U), zones_is_ip_allowed_sched, plain_ip});
    bench(questions<const char *>{"port, hit", hit_ports, zones_is_port_allowed_sched, plain_port});
    bench(questions<const char *>{"port, miss", all("eth9"), zones_is_port_allowed_sched, plain_port});
    bench(questions<const uint8_t *>{"MAC, hit", hit_macs, zones_is_mac_allowed_sched, plain_mac});
    bench(questions<const uint8_t *>{"MAC, miss", all(+far_mac), zones_is_mac_allowed_sched, plain_mac});
    bench(questions<const char *>{"device, hit", hit_peers, zones_is_device_allowed_sched, plain_device});
    bench(questions<const char *>{"device, miss", all("token-none"), zones_is_device_allowed_sched, plain_device});
    bench(questions<int>{"members", all(+ZONE_DIRECTION_OUT), list_members, list_plainly});
}

struct memory {
    double heap, mapped, resident;
};

memory memory_now()
{
    const auto info = mallinfo2();
    const double heap = static_cast<double>(info.uordblks + info.hblkhd);
    double size = 0, resident = 0;
    std::ifstream{"/proc/self/statm"} >> size;
    std::ifstream status{"/proc/self/smaps_rollup"};
    for (std::string word; status >> word && word != "Rss:";) {}
    status >> resident;
    return {heap, size * static_cast<double>(getpagesize()) - static_cast<double>(info.arena + info.hblkhd),
            resident * 1024};
}

/// In a process of its own, which has loaded a small file before, so that the pages of the code itself are there:
/// parses the file or loads the model once. Prints the seconds, and the bytes that are kept.
int measure_once(bool is_load)
{
    std::rename(zones_file, aside);
    std::ofstream{zones_file} << generate_zones({.zones = 3, .is_large = true}).text;
    zones_load();
    std::rename(aside, zones_file);
    const memory before = memory_now();
    const double begin = seconds_now();
    if (is_load)
        zones_load();
    else
        json_object_put(json_object_from_file(zones_file));
    const double taken = seconds_now() - begin;
    const memory after = memory_now();
    std::printf("%.9f %.0f %.0f %.0f\n", taken, after.heap - before.heap, after.mapped - before.mapped,
                after.resident - before.resident);
    return 0;
}

struct measured {
    double seconds = 0, heap = 0, mapped = 0, resident = 0;
};

measured measure(const std::string &program, const char *what)
{
    measured result;
    FILE *pipe = popen((program + ' ' + what).c_str(), "r");
    if (!pipe ||
        std::fscanf(pipe, "%lf %lf %lf %lf", &result.seconds, &result.heap, &result.mapped, &result.resident) != 4)
        std::puts("  measuring failed");
    if (pipe)
        pclose(pipe);
    return result;
}

/// What a daemon sees that loads the file when it starts, and now and then: a heap that has not grown to it yet.
void bench_load(const std::string &program, double members)
{
    std::vector<double> ratios;
    measured load;
    for (int turn = 0; turn < 21; ++turn) {
        const measured parse = measure(program, "parse");
        load = measure(program, "load");
        ratios.push_back(load.seconds / parse.seconds);
    }
    std::ranges::sort(ratios);
    std::printf(
        "  load in a fresh process: %.2f x parsing alone; bytes by member: %.1f heap, %.1f mapped, %.1f resident\n",
        ratios[ratios.size() / 2], load.heap / members, load.mapped / members, load.resident / members);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 2)
        return measure_once(std::string{argv[1]} == "load");
    char program[4096] = "";
    if (readlink("/proc/self/exe", program, sizeof program - 1) < 0)
        return 1;
    enter_device();
    for (const auto &[zones, members] : {std::pair{10U, 20U}, {100U, 100U}, {1000U, 100U}}) {
        model made{zones, members};
        if (!zones_load())
            return 1;
        std::printf("%u zones x %u members, times the floor\n", zones, members);
        bench_queries(made, 8);
        bench_queries(made, 1000);
        bench_load(program, made.member_count);
    }
    zones_free();
    return 0;
}
