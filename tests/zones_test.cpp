#include "child_process.hpp"
#include "device_test.hpp"

#include "zones.h"

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

#include <fcntl.h>
#include <malloc.h>
#include <sys/fsuid.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

static std::function<void()> at_step; // called before each system call on a file

static void take_step()
{
    if (const auto step = std::exchange(at_step, nullptr)) {
        step();
        at_step = step;
    }
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
#pragma GCC visibility push(default) // so that the library calls these
extern "C" { // clang-format off
int access(const char *path, int mode) { take_step(); return faccessat(AT_FDCWD, path, mode, 0); }
int stat(const char *path, struct stat *status) { take_step(); return fstatat(AT_FDCWD, path, status, 0); }
int fstat(int fd, struct stat *status) { take_step(); return fstatat(fd, "", status, AT_EMPTY_PATH); }
int open(const char *path, int flags, ...) { take_step(); return openat(AT_FDCWD, path, flags, 0644); }
ssize_t read(int fd, void *to, size_t size)
{
    take_step();
    const iovec part{to, size};
    return readv(fd, &part, 1);
}
}                                    // clang-format on
#pragma GCC visibility pop
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json",
               script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";
constexpr uint32_t address = 0x0A000001; // of a in the zone file
const std::string from_p = "'p':{'type':'serialization','direction':'in'},"
                           "'a':{'type':'whitelisted_ip','direction':'out','address_start':",
                  p_and_a = from_p + "'10.0.0.1'}";
const records no_records, missing{error("Missing arguments", "zones.c")};

records warnings(const std::vector<const char *> &texts)
{
    records all;
    for (const char *text : texts)
        all.push_back(warning(text, "zones.c"));
    return all;
}

long resident_pages()
{
    const std::string sizes = read_file("/proc/self/statm");
    return std::stol(sizes.substr(sizes.find(' ')));
}

int may_reach(uint32_t ip)
{
    return zones_is_ip_allowed("p", ip);
}

/// The members that are related to name, each as type, direction, start and end; "none" on failure.
std::string related(const char *name, int direction)
{
    zone_member **list, *last = nullptr;
    uint32_t count;
    if (!zones_get_allowed_members(&list, &count, name, direction))
        return "none";
    std::string text;
    for (uint32_t i = 0; i < count; last = list[i++]) {
        const zone_member &m = *list[i];
        if (direction == ZONE_DIRECTION_BOTH) {
            EXPECT_EQ(m.prev, last);
            EXPECT_EQ(last ? last->next : &m, &m);
            EXPECT_EQ(m.next != nullptr, i + 1 < count);
        }
        char line[100];
        if (m.type <= ZONE_MEMBER_PORT)
            std::snprintf(line, sizeof line, "%d%d %s;", m.type, m.direction, m.start.name);
        else if (m.type == ZONE_MEMBER_MAC_RANGE)
            std::snprintf(line, sizeof line, "4%d %" PRIx64 " %" PRIx64 ";", m.direction, m.start.mac, m.end.mac);
        else
            std::snprintf(line, sizeof line, "%d%d %x %x;", m.type, m.direction, m.start.ip, m.end.ip);
        text += line;
    }
    std::free(list);
    return text;
}

class zones_test : public device_test {
protected:
    ~zones_test() override { zones_free(); }

    /// Puts a new version in place at once, or writes it over the old one; with a time stamp of its own.
    void set_file(const std::string &text)
    {
        const char *path = is_in_place_ ? zones_file : "/etc/vandrel/next";
        write_file(path, text);
        const timespec times[2] = {{++time_, 0}, {time_, 0}};
        utimensat(AT_FDCWD, path, times, 0);
        rename("/etc/vandrel/next", zones_file);
    }
    void set_zones(const std::string &zones) { set_file("{'zone_configuration':{'zones':" + zones + "}}"); }
    void set_members(const std::string &members) { set_zones("{'1':{'members':{" + members + "}}}"); }

    bool is_in_place_ = false;
    time_t time_ = 1000;
};

} // namespace

TEST_F(zones_test, members_as_they_are_read)
{
    const std::string ip = "'n':{'type':'whitelisted_ip','address_start':",
                      mac = "'n':{'type':'whitelisted_mac','address_start':";
    const struct {
        std::string member, stored;
        std::vector<const char *> warned = {};
    } cases[] = {
        {"'n':{'type':'port','direction':'IN'}", "13 n;"},
        {"'abcdefghijklmnopqrstuvwxyz1234':{'type':'serialization','direction':'in'}",
         "00 abcdefghijklmnopqrstuvwxyz;"},
        {"'abcdefghijklmnop':{'type':'port','direction':'both'}", "12 abcdefghijklm;"},
        {ip + "'10.0.0.5'}", "23 a000005 a000005;"},
        {ip + "5,'address_end':'x','netmask':null}", "23 5 ffffffff;"},
        {ip + "'0.0.0.0','netmask':'/32'}", "33 0 0;"},
        {ip + "'1.2.3.4','netmask':0}", "", {"Failed to parse netmask 0", "n parsing failed"}},
        {ip + "'1.2.3.4','netmask':24,'address_end':'x'}", "33 1020304 ffffff00;"},
        {ip + "'1.2.3.4','netmask':'255.255.0.0'}", "33 1020304 ffff0000;"},
        {"'n':{'type':'whitelisted_ip','netmask':'24'}", "", {"n parsing failed"}},
        {mac + "'AA:BB:CC:DD:EE:FF'}", "43 aabbccddeeff aabbccddeeff;"},
        {"'n':{'type':'whitelisted_mac','address_end':'00:00:00:00:00:01'}", "", {"n parsing failed"}},
        {"'n':{'type':true},'m':[]", "", {"n parsing failed", "m parsing failed"}},
        {"'n':{'type':'port','disabled':true},'m':null", ""},
        {"'n':{'type':'port','disabled':'true'}", "13 n;", {"Invalid type for field disabled"}},
        {"'n':{'type':'x','disabled':1},'n':{'type':'x','disabled':1}",
         "", // read again, but logged once
         {"Invalid type for field disabled", "n parsing failed"}},
        {"'\xFF\\u0000cut':{'type':'port'}", "13 \xFF;"},
    };
    for (const auto &[member, stored, warned] : cases) {
        set_members("'p':{'type':'serialization','direction':'in'}," + member);
        EXPECT_EQ(related("p", ZONE_DIRECTION_BOTH), "00 p;" + stored) << member;
        EXPECT_EQ(log(), warnings(warned)) << member;
    }
}

TEST_F(zones_test, zones_as_they_are_read)
{
    write_script(script, "#!/bin/sh\nprintf '%s ' \"$2\" >> /tmp/ids\n");
    const struct {
        std::string zones, ids;
        int result = 1;
        records logged = {};
    } cases[] = {
        {"{'7':{'members':{}},'007':{'members':{}},'2147483647':{'members':{}}}", "7 7 2147483647 "},
        {"{'abc':{},'-1':{},'7a':{},'2147483648':{},'':{},'8':null,'2':{'members':{}}}", "2 "},
        {"{'1':{'disabled':true},'2':{'disabled':false,'members':{}}}", "2 "},
        {"{'1':{'disabled':1,'members':{}}}", "1 ", 1, warnings({"Invalid type for field disabled"})},
        {"{'1':{'deny_between_keys':1},'2':[],'3':{'members':null},'4':{'members':{}}}", "1 2 3 4 ", 0},
        {"{'1':{'members':[]},'2':{'members':{}}}", "1 2 ", 1, {error("Zone members is wrong type", "zones.c")}},
        {"[]", "", 0, {error("Unexpected json type found, see RACK-457", "zones.c")}},
    };
    for (const auto &[zones, ids, result, logged] : cases) {
        set_zones(zones);
        EXPECT_EQ(zones_load(), result) << zones;
        EXPECT_EQ(log(), logged) << zones;
        std::remove("/tmp/ids");
        EXPECT_EQ(zones_update_schedule_access(), ids.empty() ? 1 : 0) << zones; // a model is there in any case
        EXPECT_EQ(read_file("/tmp/ids"), ids) << zones;
        zones_free();
        EXPECT_EQ(related("p", ZONE_DIRECTION_BOTH), result ? "" : "none") << zones; // only the query that loads fails
        EXPECT_EQ(related("p", ZONE_DIRECTION_BOTH), "") << zones;
        log();
    }
}

TEST_F(zones_test, a_file_that_cannot_be_loaded)
{
    const std::string good = "{'zone_configuration':{'zones':{'1':{'members':{" + p_and_a + "}}}}}";
    const records absent = warnings({"zones.json is missing"});
    const struct {
        const char *name;
        std::function<void()> make;
        records logged = {};
        int answer = 0; // after zones_load: 1 where the new time stamp was taken, so that the old model goes on
    } cases[] = {
        {"missing", [] {}, absent},
        {"a directory", [] { mkdir(zones_file, 0755); }},
        {"a FIFO", [] { mkfifo(zones_file, 0644); }},
        {"endless", [] { EXPECT_EQ(symlink("/dev/zero", zones_file), 0); }},
        {"unreadable", [&] { write_file(zones_file, several_ids() ? good : "", 0), setfsuid(1); }},
        {"truncated", [&] { set_file(good.substr(0, good.size() - 1)); }},
        {"nested deeply", [&] { set_file(std::string(100'000, '[')); }},
        {"null", [&] { set_file("null"); }},
        {"a string", [&] { set_file('"' + std::string(5'000'000, 'x') + '"'); }, {}, 1},
        {"no zones", [&] { set_file("{'zone_configuration':{'zones':null}}"); }, {}, 1},
    };
    for (const auto &[name, make, logged, answer] : cases) {
        SCOPED_TRACE(name);
        set_file(good);
        EXPECT_EQ(may_reach(address), 1);
        unlink(zones_file);
        make();
        EXPECT_EQ(zones_load(), 0);
        EXPECT_EQ(log(), logged);
        EXPECT_EQ(may_reach(address), answer);
        EXPECT_EQ(log(), answer ? no_records : logged);
        zones_free();
        uint8_t sched = 7, mac[6] = {};
        char bridge[14] = "as it was";
        const std::function<int()> queries[] = {[&] { return zones_is_ip_allowed_sched("p", address, &sched); },
                                                [&] { return zones_is_port_allowed_sched("p", "a", &sched); },
                                                [&] { return zones_is_mac_allowed_sched("p", mac, &sched); },
                                                [&] { return zones_is_device_allowed_sched("p", "q", &sched); },
                                                [&] { return zones_get_client_options(bridge, "p"); },
                                                zones_update_schedule_access,
                                                [] { return related("p", ZONE_DIRECTION_BOTH) != "none"; }};
        for (const auto &query : queries) { // each tries again
            EXPECT_EQ(query(), 0) << &query - queries;
            EXPECT_EQ(log(), logged) << &query - queries;
        }
        EXPECT_EQ(sched, 7);
        EXPECT_STREQ(bridge, "as it was");
        setfsuid(0);
        std::remove(zones_file);
    }
}

TEST_F(zones_test, no_version_of_the_file_is_missed)
{
    int step = 1, version = 1;
    const auto change = [&](int last) {
        version = last;
        set_members(from_p + "'0.0.0." + std::to_string(version) + "'}");
    };
    for (int first = 1; step >= first - 1; ++first) { // changes the file at every step from the first one on
        for (const bool is_once : {true, false, true, false}) {
            change(1);
            zones_free();
            step = 0;
            at_step = [&] {
                if (++step == first || (step > first && !is_once))
                    change(version + 1);
            };
            may_reach(1);
            at_step = nullptr;
            for (int asked = 1; asked <= version; ++asked)
                EXPECT_EQ(may_reach(static_cast<uint32_t>(asked)), asked == version) << first << ' ' << asked;
            is_in_place_ ^= !is_once;
        }
    }
    EXPECT_GE(step, 4) << "access, open, fstat, read";
    for (time_ = -2; time_ <= 0;) { // what a missing file has for a time stamp is none to be kept
        set_members(p_and_a);
        EXPECT_EQ(may_reach(address), 1);
        unlink(zones_file);
        EXPECT_EQ(may_reach(address), 0) << time_;
    }
}

TEST_F(zones_test, schedules)
{
    const std::string zone = ":{'members':{" + p_and_a + "}}", one = "{'42'" + zone + "}",
                      two = "{'1'" + zone + ",'2'" + zone + "}";
    const struct {
        std::string zones, text; // of the script
        int result, sched;
    } cases[] = {
        {one, "#!/bin/sh\nprintf true; exit 3", 1, 1},
        {one, "#!/usr/bin/env lua5.4\nprint(arg[1] == '/etc/vandrel/zones.json' and arg[2] == '42' and #arg == 2)", 1,
         1},
        {one, "#!/bin/sh\nwhile true; do echo true; done", 1, 1}, // ends though this process ignores SIGPIPE
        {one, "#!/bin/sh\necho TRUE", 0, 0},
        {one, "#!/bin/sh\n", 0, 0},
        {two, "#!/bin/sh\n[ $2 = 1 ] && echo true", 0, 1}, // some zone is open
        {two, "#!/bin/sh\n[ $2 = 2 ] && echo true", 1, 1},
    };
    signal(SIGPIPE, SIG_IGN);
    const int descriptors = open_descriptors();
    for (const auto &[zones, text, result, want] : cases) {
        set_zones(zones);
        write_script(script, text);
        uint8_t sched = 7;
        EXPECT_EQ(zones_is_ip_allowed_sched("p", address, &sched), 1) << text;
        EXPECT_EQ(sched, 1) << "every zone is open after a reload";
        EXPECT_EQ(zones_update_schedule_access(), result) << text;
        EXPECT_EQ(zones_is_ip_allowed_sched("p", address, &sched), 1) << text;
        EXPECT_EQ(sched, want) << text;
        EXPECT_EQ(may_reach(address), 1) << "without sched the schedule is not asked";
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(zones_ip_netmask_to_range(nullptr, nullptr), 0); // opens the logger's socket
    EXPECT_EQ(log(), missing);
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max}; // no pipe
    setrlimit(RLIMIT_NOFILE, &none);
    const int unasked = zones_update_schedule_access();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(unasked, 1);
    EXPECT_EQ(log(), records(2, error("ERROR: cannot popen schedule check command", "zones.c")));
}

TEST_F(zones_test, answers_and_their_records)
{
    set_zones("{'1':{'members':{'p':{'type':'serialization','direction':'both'},"
              "'a':{'type':'port','direction':'out'},'':{'type':'serialization','direction':'both'},"
              "'q70595':{'type':'serialization','direction':'out'}}},"
              "'2':{'members':{'p':{'type':'serialization','direction':'in'},'':{'type':'port','direction':'out'}}}}");
    const records direction{error("Invalid direction value", "zones.c")};
    char bridge[14] = "";
    zone_member member{}, **list;
    uint32_t count;
    const struct {
        int line;
        std::function<int()> ask;
        int answer = 0;
        records logged = missing;
    } cases[] = {
        {__LINE__, [] { return zones_is_port_allowed(nullptr, "a"); }, 0, {}}, // null is not the empty name
        {__LINE__, [] { return zones_is_port_allowed("p", nullptr); }, 0, {}},
        {__LINE__, [] { return zones_is_device_allowed("p", nullptr); }, 0, {}},
        {__LINE__, [] { return zones_is_device_allowed("p", "q291097"); }, 0, {}}, // whose hash is much like q70595's
        {__LINE__, [] { return zones_is_mac_allowed("p", nullptr); }, 0, {}},
        {__LINE__, [] { return zones_is_device_allowed("p", "p"); }, 1, warnings({"common names were equal: p"})},
        {__LINE__, [] { return zones_is_device_allowed(nullptr, nullptr); }, 0,
         warnings({"common names were equal: (null)"})},
        {__LINE__, [&] { return zones_get_client_options(bridge, "q"); }, 0, warnings({"No bridge found for q"})},
        {__LINE__, [&] { return zones_get_client_options(bridge, nullptr); }},
        {__LINE__, [&] { return zones_get_client_options(nullptr, "p"); }},
        {__LINE__, [] { return related("p", 3) == "none"; }, 1, direction},
        {__LINE__, [] { return related("p", -1) == "none"; }, 1, direction},
        {__LINE__, [&] { return zones_get_allowed_members(&list, &count, nullptr, 3); }},
        {__LINE__, [&] { return zones_get_allowed_members(nullptr, &count, "p", 1); }},
        {__LINE__, [&] { return zones_get_allowed_members(&list, nullptr, "p", 1); }},
        {__LINE__, [&] { return zones_ip_netmask_to_range(&member, nullptr); }},
        {__LINE__, [&] { return zones_ip_netmask_to_range(nullptr, &member); }},
    };
    for (const auto &[line, ask, answer, logged] : cases) {
        EXPECT_EQ(ask(), answer) << "line " << line;
        EXPECT_EQ(log(), logged) << "line " << line;
    }
    std::string same; // names that are one when cut, with more pairs than a list can hold
    for (int i = 0; i < 70000; ++i)
        same += ",'abcdefghijklmnopqrstuvwxyz" + std::to_string(i) + "':{'type':'serialization','direction':'in'}";
    set_members(same.substr(1));
    EXPECT_EQ(related("abcdefghijklmnopqrstuvwxyz", ZONE_DIRECTION_OUT), "");
    const long kept = resident_pages();
    malloc_trim(0);
    EXPECT_LT(kept - resident_pages(), 1000) << "what a load took and no longer needs is given back";
}

TEST_F(zones_test, network_as_range)
{
    const uint32_t cases[][3] = {{0xFFFF0000, 0x0A010000, 0x0A01FFFF}, // netmask, first, last
                                 {0xFFFFFFF0, 0x0A010200, 0x0A01020F},
                                 {0xFF00FF00, 0x0A000000, 0x0AFFFFFF},
                                 {~0U, 0x0A010203, 0x0A010203},
                                 {0, 0, ~0U}};
    for (const auto &[netmask, first, last] : cases) {
        zone_member member;
        std::memset(&member, 'x', sizeof member);
        zone_member want = member;
        member.start.ip = 0x0A010203, member.end.ip = netmask;
        want.type = ZONE_MEMBER_IP_RANGE, want.start.ip = first, want.end.ip = last;
        EXPECT_EQ(zones_ip_netmask_to_range(&member, &member), 1); // in place
        EXPECT_EQ(std::memcmp(&member, &want, sizeof member), 0) << netmask;
    }
}

TEST_F(zones_test, memory_refused)
{
    set_members(p_and_a);
    int failures = 0;
    for (int n = 1, is_refused = 1; is_refused; ++n) {
        zones_free();
        const allocation_refusal refuse{n};
        const int answer = may_reach(address);
        is_refused = refuse.happened();
        failures += answer == 0;
        EXPECT_NE(answer, is_refused) << n;
        EXPECT_EQ(may_reach(address), 1) << "it tries again";
    }
    EXPECT_GE(failures, 5) << "the file, its records, and what finds them";
    const allocation_refusal refuse{1};
    EXPECT_EQ(related("p", ZONE_DIRECTION_BOTH), "none");
    EXPECT_EQ(log(), no_records);
}

TEST_F(zones_test, memory_that_runs_out_takes_the_old_model_along)
{
    set_members(p_and_a);
    uint8_t sched = 7;
    zones_update_schedule_access(); // there is no script: closed
    EXPECT_EQ(zones_is_ip_allowed_sched("p", address, &sched), 1);
    EXPECT_EQ(sched, 0);
    {
        const allocation_refusal refuse{1, "libjson-c.so"};
        EXPECT_EQ(zones_load(), 0);
    }
    EXPECT_EQ(zones_is_ip_allowed_sched("p", address, &sched), 1);
    EXPECT_EQ(sched, 1);
}

TEST_F(zones_test, a_key_that_json_c_loses_allows_nothing)
{
    const std::string peers = "'token-p':{'type':'serialization','direction':'in'},"
                              "'token-q':{'type':'serialization','direction':'out'}",
                      denying = "'1':{'deny_between_keys':true,'members':{" + peers + "}}",
                      allowing =
                          "'2':{'members':{" + peers +
                          ",'an entry whose name takes more room than json-c has at first':"
                          "{'type':'whitelisted_ip','address_start':'10.0.0.1','direction':'out','disabled':true},"
                          "'b':{'type':'whitelisted_ip','address_start':'10.0.0.2','direction':'out',"
                          "'address_end':'10.0.0.3'}}}";
    const struct {
        const char *name;
        std::string zones;
        bool is_read_again; // in any case: what is lost then is not made good
    } cases[] = {
        {"as it should be", "{" + denying + "," + allowing + "}", false},
        {"equal keys", "{" + denying + "," + allowing + "," + denying + "}", true},
        {"a number of many digits", "{" + denying + "," + allowing + ",'x':" + std::string(40, '1') + "}", true},
    };
    const auto ask = [] {
        std::string answers = std::to_string(zones_is_device_allowed("token-p", "token-q"));
        for (const uint32_t ip : {1U, 2U, 3U, 4U})
            answers += std::to_string(zones_is_ip_allowed("token-p", 0x0A000000 + ip));
        return answers + related("token-p", ZONE_DIRECTION_OUT);
    };
    for (const auto &[name, zones, is_read_again] : cases) {
        set_zones(zones);
        const std::string want = ask();
        EXPECT_EQ(want.substr(0, 5), "00110") << name;
        zones_free();
        enum { not_refused, made_good, abandoned, allows_more };
        int counts[4] = {}, n = 1;
        for (; n < 2000 && counts[not_refused] == 0; ++n) {
            const int found = result_in_child([&] {
                bool is_refused = false, is_loaded = false;
                {
                    const allocation_refusal refuse{n, "libjson-c.so"};
                    is_loaded = zones_load() != 0;
                    is_refused = refuse.happened();
                }
                if (ask() != want)
                    return +allows_more;
                return +(!is_refused ? not_refused : is_loaded ? made_good : abandoned);
            });
            EXPECT_NE(found, allows_more) << name << ", allocation " << n;
            if (found >= 0) // no crash
                ++counts[found];
        }
        EXPECT_EQ(counts[not_refused], 1) << name;
        EXPECT_GT(counts[made_good], 40) << name;
        EXPECT_EQ(counts[abandoned] > 40, is_read_again) << name;
    }
}

TEST_F(zones_test, what_errno_says_after_an_allocation_is_no_shortage)
{
    set_members(p_and_a);
    const misleading_errno enomem{ENOMEM};
    EXPECT_EQ(zones_load(), 1);
    EXPECT_EQ(may_reach(address), 1);
}
