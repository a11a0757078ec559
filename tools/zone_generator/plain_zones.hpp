// What is asked of the zones, answered plainly: lists that every question walks from the head, with nothing prepared.
// Tests and benchmarks compare the library with it.
#pragma once

#include "zones.h"

#include <cstring>
#include <list>
#include <string>
#include <vector>

struct plain_zone {
    int id;
    bool deny_keys = false, deny_locks = false;
    uint8_t open = 1;
    std::list<zone_member> members = {};

    bool denies(const std::string &one, const std::string &other) const
    {
        const auto both_begin = [&](const char *prefix) {
            return one.starts_with(prefix) && other.starts_with(prefix);
        };
        return (deny_keys && both_begin("token-")) ||
               (deny_locks && (both_begin("vd-vpnserver-") || both_begin("vd-vpnclient-")));
    }
};
using plain_zones = std::list<plain_zone>;

inline bool has(const zone_member &member, zone_direction direction)
{
    return member.direction == direction || member.direction == ZONE_DIRECTION_BOTH;
}

inline bool is_peer(const zone_member &member, const char *name)
{
    return member.type == ZONE_MEMBER_SERIALIZATION && std::strcmp(member.start.name, name) == 0;
}

/// Whether the peer may reach a member that fits; other is the peer to be reached, if it is one.
template <typename Fits>
int plain_walk(const plain_zones &zones, const char *name, uint8_t *sched, Fits &&fits, const char *other = nullptr)
{
    int result = 0;
    if (sched)
        *sched = 0;
    for (const plain_zone &zone : zones) {
        bool is_found = false;
        for (auto peer = zone.members.begin(); peer != zone.members.end() && !is_found; ++peer) {
            if (!is_peer(*peer, name) || !has(*peer, ZONE_DIRECTION_IN))
                continue;
            for (auto m = zone.members.begin(); m != zone.members.end() && !is_found; ++m) {
                if (!has(*m, ZONE_DIRECTION_OUT) || !fits(*m))
                    continue;
                if (other && zone.denies(name, other))
                    return 0;
                if (sched)
                    *sched = zone.open;
                if (!sched || zone.open == 1)
                    return 1;
                result = 1;
                is_found = true;
            }
        }
    }
    return result;
}

inline int plain_ip(const plain_zones &zones, const char *name, uint32_t ip, uint8_t *sched)
{
    return plain_walk(zones, name, sched, [=](const zone_member &m) {
        return (m.type == ZONE_MEMBER_IP_RANGE && m.start.ip <= ip && ip <= m.end.ip) ||
               (m.type == ZONE_MEMBER_IP_NETWORK && ((ip ^ m.start.ip) & m.end.ip) == 0);
    });
}

inline int plain_port(const plain_zones &zones, const char *name, const char *port, uint8_t *sched)
{
    return plain_walk(zones, name, sched, [=](const zone_member &m) {
        return m.type == ZONE_MEMBER_PORT && std::strncmp(m.start.name, port, 26) == 0;
    });
}

inline int plain_mac(const plain_zones &zones, const char *name, const uint8_t *bytes, uint8_t *sched)
{
    uint64_t mac = 0;
    for (int i = 0; i < 6; ++i)
        mac = mac << 8 | bytes[i];
    return plain_walk(zones, name, sched, [=](const zone_member &m) {
        return m.type == ZONE_MEMBER_MAC_RANGE && m.start.mac <= mac && mac <= m.end.mac;
    });
}

inline int plain_device(const plain_zones &zones, const char *name, const char *other, uint8_t *sched)
{
    const auto fits = [=](const zone_member &m) {
        return m.type == ZONE_MEMBER_SERIALIZATION && std::strncmp(m.start.name, other, 26) == 0;
    };
    return plain_walk(zones, name, sched, fits, other);
}

/// All pairs of a member that is the peer and a member of the same zone that fit the direction; the second of each.
inline std::vector<const zone_member *> plain_members(const plain_zones &zones, const char *name, int direction)
{
    const bool any = direction == ZONE_DIRECTION_BOTH, out = direction == ZONE_DIRECTION_OUT;
    std::vector<const zone_member *> list;
    for (const plain_zone &zone : zones) {
        for (const zone_member &peer : zone.members) {
            if (!is_peer(peer, name) || (!any && !has(peer, out ? ZONE_DIRECTION_IN : ZONE_DIRECTION_OUT)))
                continue;
            for (const zone_member &m : zone.members) {
                if ((any || has(m, out ? ZONE_DIRECTION_OUT : ZONE_DIRECTION_IN)) &&
                    (m.type != ZONE_MEMBER_SERIALIZATION || !zone.denies(name, m.start.name)))
                    list.push_back(&m);
            }
        }
    }
    return list;
}

/// The first port of the peer's zones, null without one.
inline const char *plain_bridge(const plain_zones &zones, const char *name)
{
    for (const plain_zone &zone : zones) {
        for (const zone_member &peer : zone.members) {
            for (const zone_member &m : zone.members) {
                if (is_peer(peer, name) && m.type == ZONE_MEMBER_PORT)
                    return m.start.name;
            }
        }
    }
    return nullptr;
}
