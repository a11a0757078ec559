// Zone files made by chance, each with the zones that it means: the library must answer as the plain walk over them.
#include "device_test.hpp"
#include "zone_generator.hpp"

#include "zones.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json",
               script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";

void put_in_place(const generated_zones &made, unsigned seed)
{
    const auto second = static_cast<time_t>(seed);
    write_file(zones_file, made.text);
    write_script(script, made.script);
    const timespec times[2] = {{second, 0}, {second, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, zones_file, times, 0), 0);
}

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

void compare_addresses(const plain_zones &zones, const char *name)
{
    for (const uint32_t ip : {0U, 0x0A0000FFU, 0x0A000100U, 0x0A770106U, 0x80000000U, ~0U})
        compare(zones_is_ip_allowed_sched, plain_ip, zones, name, ip);
    for (uint8_t mac[6] = {0xFF}; mac[5] < 11; ++mac[5]) {
        compare(zones_is_ip_allowed_sched, plain_ip, zones, name, 0x0A000000U + mac[5]);
        compare(zones_is_mac_allowed_sched, plain_mac, zones, name, static_cast<const uint8_t *>(mac));
    }
}

void compare_all(const generated_zones &made)
{
    for (const std::string &text : made.names) {
        const char *name = text.c_str();
        compare_addresses(made.zones, name);
        for (const std::string &other : made.names) {
            compare(zones_is_port_allowed_sched, plain_port, made.zones, name, other.c_str());
            compare(zones_is_device_allowed_sched, plain_device, made.zones, name, other.c_str());
        }
        for (const int direction : {ZONE_DIRECTION_IN, ZONE_DIRECTION_OUT, ZONE_DIRECTION_BOTH})
            compare_members(made.zones, name, direction);
        char bridge[14];
        const char *answer = zones_get_client_options(bridge, name) == 1 ? bridge : nullptr;
        EXPECT_STREQ(answer, plain_bridge(made.zones, name)) << name;
    }
}

class zones_property : public device_test {};

} // namespace

TEST_F(zones_property, answers_as_the_plain_walk_does)
{
    for (unsigned seed = 1; seed <= 400 && !HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const generated_zones made = generate_zones({.seed = seed,
                                                     .has_equal_keys = seed % 2 == 0,
                                                     .has_faults = seed % 3 == 0,
                                                     .has_schedules = seed % 4 == 0});
        put_in_place(made, seed);
        if (seed % 4 == 0) { // else every zone is open
            EXPECT_EQ(zones_update_schedule_access(), made.zones.empty() ? 1 : made.zones.back().open);
        }
        compare_all(made);
        log();
    }
}
