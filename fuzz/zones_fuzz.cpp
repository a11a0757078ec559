// Any bytes as a zone file: every question is answered, twice the same, and with and without sched alike; what a listed
// peer may reach is listed, and each list holds together.
#include "device.hpp"

#include "zones.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json";
const char *const names[] = {"token-A", "token-B", "vd-vpnserver-1", "lan1", "", "abcdefghijklmnopqrstuvwxyz-longer"};

void require(bool holds)
{
    if (!holds)
        std::abort();
}

void write_zone_file(const uint8_t *data, std::size_t size)
{
    const int fd = open(zones_file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
    close(fd);
}

/// Without a schedule having been asked, every zone is open.
template <typename Target> int ask(int (*query)(const char *, Target, uint8_t *), const char *name, Target target)
{
    uint8_t sched = 7;
    const int answer = query(name, target, &sched);
    require(sched == answer && query(name, target, nullptr) == answer);
    return answer;
}

void check_member(const char *name, const zone_member &member)
{
    require(member.type >= ZONE_MEMBER_SERIALIZATION && member.type < ZONE_MEMBER_INVALID);
    if (member.type == ZONE_MEMBER_SERIALIZATION) {
        require(std::strlen(member.start.name) <= 26);
        ask(zones_is_device_allowed_sched, name,
            static_cast<const char *>(member.start.name)); // an earlier zone may deny it
    } else if (member.type == ZONE_MEMBER_PORT) {
        require(std::strlen(member.start.name) <= 13);
        require(ask(zones_is_port_allowed_sched, name, static_cast<const char *>(member.start.name)) == 1);
    } else if (member.type == ZONE_MEMBER_IP_NETWORK) {
        require(ask(zones_is_ip_allowed_sched, name, member.start.ip) == 1);
        zone_member range = member;
        require(zones_ip_netmask_to_range(&range, &member) == 1 && range.start.ip <= range.end.ip);
    } else if (member.type == ZONE_MEMBER_IP_RANGE && member.start.ip <= member.end.ip) {
        require(ask(zones_is_ip_allowed_sched, name, member.start.ip) == 1);
        require(ask(zones_is_ip_allowed_sched, name, member.end.ip) == 1);
    } else if (member.type == ZONE_MEMBER_MAC_RANGE && member.start.mac <= member.end.mac) {
        uint8_t mac[6];
        for (int i = 0; i < 6; ++i)
            mac[i] = static_cast<uint8_t>(member.end.mac >> (40 - 8 * i));
        require(ask(zones_is_mac_allowed_sched, name, static_cast<const uint8_t *>(mac)) == 1);
    }
}

void check_list(const char *name, int direction)
{
    zone_member **members = nullptr;
    uint32_t count = 0;
    if (!zones_get_allowed_members(&members, &count, name, direction))
        return;
    for (uint32_t i = 0; i < count; ++i) {
        const zone_member &member = *members[i];
        require(!member.next || member.next->prev == &member);
        require(!member.prev || member.prev->next == &member);
        if (direction == ZONE_DIRECTION_OUT)
            check_member(name, member);
    }
    std::free(members);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    write_zone_file(data, size);
    zones_load();
    static const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
    for (const char *name : names) {
        if (zones_is_ip_allowed(name, 0x0A000001) == 0 && zones_load() == 0)
            continue; // the questions below would each load the file again
        ask<uint32_t>(zones_is_ip_allowed_sched, name, 0x0A000001);
        ask<const uint8_t *>(zones_is_mac_allowed_sched, name, mac);
        for (const char *other : names) {
            ask<const char *>(zones_is_port_allowed_sched, name, other);
            ask<const char *>(zones_is_device_allowed_sched, name, other);
        }
        char bridge[14];
        require(zones_get_client_options(bridge, name) == 0 || std::strlen(bridge) <= 13);
        for (const int direction : {ZONE_DIRECTION_IN, ZONE_DIRECTION_OUT, ZONE_DIRECTION_BOTH})
            check_list(name, direction);
    }
    zones_free();
    return 0;
}
