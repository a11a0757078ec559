// Zone files made by chance, each with the zones that it means: the library must answer as the plain walk over them.
#include "../bench/plain_zones.hpp"
#include "device_test.hpp"

#include <cstddef>
#include <cstdlib>
#include <random>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

#define LONGEST "token-abcdefghijklmnopqrst" // as a name can be
const char *const names[] = {
    "token-a", "token-b",   "vd-vpnserver-a", "vd-vpnserver-b", "vd-vpnclient-a", "vd-vpnclient-b",
    "x",       "",          "lan1",           "abcdefghijklm",  "abcdefghijklmn", "abcdefghijklmnopqrstuvwxyz12",
    LONGEST,   LONGEST "u", LONGEST "v"};
const struct {
    const char *text;
    uint32_t value;
} netmasks[] = {{"24", 0xFFFFFF00}, {"30", 0xFFFFFFFC}, {"255.255.255.251", 0xFFFFFFFB},
                {"1", 0x80000000},  {"32", ~0U},        {"255.0.255.6", 0xFF00FF06}};
const uint32_t first_ip = 0x0A000000;
const uint64_t first_mac = 0xFF0000000000;
const char *const types[] = {"serialization", "port", "whitelisted_ip", "whitelisted_ip",
                             "whitelisted_mac"}; // by value
const char *const directions[] = {"in", "out", "both", "none"};

/// A zone file made by chance, and the zones that it means.
class generated {
public:
    explicit generated(unsigned seed) : random_{seed}
    {
        for (unsigned n = below(8); n > 0; --n)
            add_zone();
        text = R"({"zone_configuration":{"zones":{)" + text + R"("":null}}})";
    }

    plain_zones zones;
    std::string text;

private:
    unsigned below(std::size_t end) { return static_cast<unsigned>(random_() % end); }
    template <typename List> const auto &one_of(const List &list) { return list[below(std::size(list))]; }

    void add_zone()
    {
        plain_zone zone{.id = next_id_++, .deny_keys = below(3) == 0, .deny_locks = below(3) == 0};
        const bool is_left_out = below(8) == 0;
        text += '"' + std::to_string(zone.id) + (is_left_out ? R"(":{"disabled":true)" : R"(":{"disabled":false)");
        text += zone.deny_keys ? R"(,"deny_between_keys":true)" : "";
        text += zone.deny_locks ? R"(,"deny_between_locks":true,"members":{)" : R"(,"members":{)";
        std::set<std::string> keys;
        for (unsigned n = below(24); n > 0; --n)
            add_member(zone, keys);
        text += R"("end":null}},)";
        if (!is_left_out)
            zones.push_back(zone);
    }

    void add_member(plain_zone &zone, std::set<std::string> &keys)
    {
        zone_member m{static_cast<int>(below(5)), static_cast<int>(below(4)), {}, {}, nullptr, nullptr};
        const bool has_name = m.type <= ZONE_MEMBER_PORT, is_network = m.type == ZONE_MEMBER_IP_NETWORK;
        const std::string key = has_name ? one_of(names) : "address " + std::to_string(keys.size());
        if (!keys.insert(key).second)
            return;
        text += '"' + key + R"(":{"type":")" + types[m.type] + R"(","direction":")" + directions[m.direction];
        const unsigned first = below(10), last = below(10);
        const auto &[netmask, mask] = one_of(netmasks);
        if (has_name) {
            key.copy(m.start.name, m.type == ZONE_MEMBER_PORT ? 13 : 26);
        } else {
            const std::string prefix = m.type == ZONE_MEMBER_MAC_RANGE ? "ff:00:00:00:00:0" : "10.0.0.";
            text += R"(","address_start":")" + prefix + std::to_string(first);
            text += is_network ? R"(","netmask":")" + std::string{netmask}
                               : R"(","address_end":")" + prefix + std::to_string(last);
            if (m.type == ZONE_MEMBER_MAC_RANGE)
                m.start.mac = first_mac + first, m.end.mac = first_mac + last;
            else
                m.start.ip = first_ip + first, m.end.ip = is_network ? mask : first_ip + last;
        }
        const bool is_left_out = below(10) == 0;
        text += is_left_out ? R"(","disabled":true},)" : R"("},)";
        if (!is_left_out)
            zone.members.push_back(m);
    }

    std::mt19937 random_;
    int next_id_ = 0;
};

template <typename Library, typename Plain, typename Target>
void compare(Library *library, Plain *plain, const plain_zones &zones, const char *name, Target target)
{
    uint8_t sched = 7, plain_sched = 7;
    EXPECT_EQ(library(name, target, nullptr), plain(zones, name, target, nullptr)) << name << ' ' << target;
    EXPECT_EQ(library(name, target, &sched), plain(zones, name, target, &plain_sched)) << name << ' ' << target;
    EXPECT_EQ(sched, plain_sched) << name << ' ' << target;
}

void compare_members(const plain_zones &zones, const char *name, int direction)
{
    const auto want = plain_members(zones, name, direction);
    zone_member **list = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(zones_get_allowed_members(&list, &count, name, direction), 1);
    ASSERT_EQ(count, want.size()) << name << ' ' << direction;
    for (uint32_t i = 0; i < count; ++i)
        EXPECT_EQ(std::memcmp(list[i], want[i], offsetof(zone_member, next)), 0)
            << name << ' ' << direction << ' ' << i;
    std::free(list);
}

} // namespace

class zones_property : public device_test {};

TEST_F(zones_property, answers_as_the_plain_walk_does)
{
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", "#!/bin/sh\n[ $(($2 % 2)) = 1 ] || echo true\n");
    for (unsigned seed = 1; seed <= 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        generated made{seed};
        write_file("/etc/vandrel/zones.json", made.text);
        const auto second = static_cast<time_t>(seed);
        const timespec times[2] = {{second, 0}, {second, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, "/etc/vandrel/zones.json", times, 0), 0);
        if (seed % 4 == 0) { // every other zone is closed
            for (plain_zone &zone : made.zones)
                zone.open = zone.id % 2 == 0;
            EXPECT_EQ(zones_update_schedule_access(), made.zones.empty() ? 1 : made.zones.back().open);
        }
        for (const char *name : names) {
            for (const uint32_t ip : {0U, 0x0A0000FFU, 0x0A000100U, 0x0A770106U, 0x80000000U, ~0U})
                compare(zones_is_ip_allowed_sched, plain_ip, made.zones, name, ip);
            for (uint8_t mac[6] = {0xFF}; mac[5] < 11; ++mac[5]) {
                compare(zones_is_ip_allowed_sched, plain_ip, made.zones, name, first_ip + mac[5]);
                compare(zones_is_mac_allowed_sched, plain_mac, made.zones, name, mac);
            }
            for (const char *other : names) {
                compare(zones_is_port_allowed_sched, plain_port, made.zones, name, other);
                compare(zones_is_device_allowed_sched, plain_device, made.zones, name, other);
            }
            for (const int direction : {ZONE_DIRECTION_IN, ZONE_DIRECTION_OUT, ZONE_DIRECTION_BOTH})
                compare_members(made.zones, name, direction);
            char bridge[14];
            const char *answer = zones_get_client_options(bridge, name) == 1 ? bridge : nullptr;
            EXPECT_STREQ(answer, plain_bridge(made.zones, name)) << name;
        }
        log();
    }
}
