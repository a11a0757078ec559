#include "access.hpp"

#include "ip_calculation.h"
#include "util.h"

#include <algorithm>
#include <cstring>

namespace vdctl {

namespace {

constexpr std::size_t compared_length = 26; // of a target's name

/// The flag that keeps two peers apart in the zone: its key and line.
std::pair<const char *, unsigned> denial(const zone_entry &zone, const char *peer, const char *other)
{
    const int type = vpn_type_get_by_common_name(peer);
    if (type == PEER_TYPE_UNKNOWN || type != vpn_type_get_by_common_name(other))
        return {};
    if (type == PEER_TYPE_TOKEN)
        return zone.deny_keys ? std::pair{"deny_between_keys", zone.deny_keys_line}
                              : std::pair<const char *, unsigned>{};
    return zone.deny_locks ? std::pair{"deny_between_locks", zone.deny_locks_line}
                           : std::pair<const char *, unsigned>{};
}

template <typename Fits> const member_entry *loaded_member(const zone_entry &zone, Fits &&fits)
{
    const auto found = std::ranges::find_if(
        zone.members, [&](const member_entry &member) { return member.is_loaded() && fits(member); });
    return found == zone.members.end() ? nullptr : &*found;
}

/// The word for a no without a zone that has both.
const char *lack_of(const zone_reading &zones, const std::string &peer)
{
    const char *lack = "no-zone";
    for (const zone_entry &zone : zones) {
        if (!is_loaded(zone))
            continue;
        for (const member_entry &member : zone.members) {
            if (!member.is_loaded() || !is_peer(member, peer))
                continue;
            if (member.is_subject())
                return "no-target";
            lack = "no-subject";
        }
    }
    return lack;
}

} // namespace

bool is_loaded(const zone_entry &zone)
{
    return !zone.disabled;
}

bool is_peer(const member_entry &member, const std::string &peer)
{
    return member.record->type == ZONE_MEMBER_SERIALIZATION && peer == member.record->start.name;
}

bool holds(const member_entry &member, const target &what)
{
    const zone_member &record = *member.record;
    switch (what.type) {
    case ZONE_MEMBER_IP_RANGE:
        return record.type == ZONE_MEMBER_IP_NETWORK
                   ? ip_in_network(what.ip, record.start.ip, record.end.ip) != 0
                   : record.type == ZONE_MEMBER_IP_RANGE && record.start.ip <= what.ip && what.ip <= record.end.ip;
    case ZONE_MEMBER_MAC_RANGE:
        return record.type == ZONE_MEMBER_MAC_RANGE && record.start.mac <= what.mac && what.mac <= record.end.mac;
    default:
        return record.type == what.type && std::strncmp(record.start.name, what.name.c_str(), compared_length) == 0;
    }
}

std::optional<fit> fit_in(const zone_entry &zone, const std::string &peer, const target &what)
{
    if (!is_loaded(zone) ||
        !loaded_member(zone, [&](const member_entry &m) { return is_peer(m, peer) && m.is_subject(); }))
        return std::nullopt;
    const member_entry *found =
        loaded_member(zone, [&](const member_entry &m) { return m.is_target() && holds(m, what); });
    if (!found)
        return std::nullopt;
    if (what.type != ZONE_MEMBER_SERIALIZATION)
        return fit{&zone, found, nullptr, 0};
    const auto [key, line] = denial(zone, peer.c_str(), what.name.c_str());
    return fit{&zone, found, key, line};
}

bool is_kept_apart(const zone_entry &zone, const std::string &peer, const member_entry &member)
{
    return member.record->type == ZONE_MEMBER_SERIALIZATION &&
           denial(zone, peer.c_str(), member.record->start.name).first != nullptr;
}

std::vector<fit> fits_of(const zone_reading &zones, const std::string &peer, const target &what)
{
    std::vector<fit> fits;
    for (const zone_entry &zone : zones) {
        if (const auto found = fit_in(zone, peer, what)) {
            fits.push_back(*found);
            if (found->deny_key)
                break;
        }
    }
    return fits;
}

const char *reason_of(const verdict &given, bool has_schedule, const zone_reading &zones, const std::string &peer,
                      const std::vector<fit> &fits)
{
    if (!has_schedule && given.is_allowed != given.is_open)
        return nullptr;
    if (fits.empty())
        return given.is_allowed ? nullptr : lack_of(zones, peer);
    const bool first_denies = fits.front().deny_key, one_denies = fits.back().deny_key;
    if (!given.is_allowed)
        return first_denies ? "denied" : one_denies && has_schedule ? "denied-behind-closed" : nullptr;
    if (!given.is_open)
        return one_denies ? nullptr : "closed";
    return first_denies ? nullptr : "allowed";
}

} // namespace vdctl
