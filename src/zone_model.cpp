#include "zone_model.hpp"

#include "ip_calculation.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace vandrel;

static_assert(std::is_trivially_copyable_v<zone_member> && sizeof(zone_value) == 32);

bool has_name(const zone_member &member)
{
    return member.type == ZONE_MEMBER_SERIALIZATION || member.type == ZONE_MEMBER_PORT;
}

bool is_same(const zone_value &a, const zone_value &b)
{
    return std::memcmp(a.name, b.name, sizeof a.name) == 0;
}

uint64_t hash_of(const zone_value &name)
{
    uint64_t words[sizeof name.name / sizeof(uint64_t)];
    std::memcpy(words, name.name, sizeof words);
    uint64_t hash = 0;
    for (const uint64_t word : words) {
        hash = (hash ^ word) * 0x9E3779B97F4A7C15; // 2^64 divided by the golden ratio spreads every bit upwards
        hash ^= hash >> 32;
    }
    return hash;
}

/// Sorts the intervals from begin on and joins those that overlap.
template <typename Value> void merge(std::vector<interval<Value>> &intervals, std::size_t begin)
{
    const auto from = intervals.begin() + static_cast<std::ptrdiff_t>(begin);
    std::ranges::sort(from, intervals.end(), {}, &interval<Value>::first);
    auto merged = from;
    for (auto next = from; next != intervals.end(); ++next) {
        if (merged != from && next->first <= std::prev(merged)->last)
            std::prev(merged)->last = std::max(std::prev(merged)->last, next->last);
        else
            *merged++ = *next;
    }
    intervals.erase(merged, intervals.end());
}

/// Whether one of the merged intervals in [begin, end) holds the value: the last one that begins at or before it does,
/// or none.
template <typename Value>
bool holds(const std::vector<interval<Value>> &intervals, uint32_t begin, uint32_t end, Value value)
{
    const interval<Value> *candidate = intervals.data() + begin;
    for (uint32_t count = end - begin; count > 1;) {
        const uint32_t half = count / 2;
        candidate += candidate[half].first <= value ? half : 0; // without a branch, which nobody could foretell
        count -= half;
    }
    return begin != end && candidate->first <= value && value <= candidate->last;
}

} // namespace

namespace vandrel {

zone_value cut_name(const char *text, std::size_t length)
{
    zone_value value{};
    std::memcpy(value.name, text, strnlen(text, length));
    return value;
}

member_kind::member_kind(const zone_member &member)
{
    const bool is_peer = member.type == ZONE_MEMBER_SERIALIZATION;
    const int peer_type = is_peer ? vpn_type_get_by_common_name(member.start.name) : PEER_TYPE_UNKNOWN;
    bits_ = static_cast<uint8_t>((peer_type - PEER_TYPE_UNKNOWN) << 2 | member.direction);
}

uint32_t without_gaps(uint32_t netmask)
{
    return ip_netmask(static_cast<unsigned>(std::countl_one(netmask)));
}

zone_model::zone_model(zone_records records) : zones_{std::move(records.zones)}, members_{std::move(records.members)}
{
    if (zones_.size() > place::max_zones || members_.size() > max_members)
        throw std::length_error{"zone model"};
    zones_.emplace_back().members = static_cast<uint32_t>(members_.size()); // ends the parts of the last zone
    link_members();
    index_addresses();
    index_names();
}

void zone_model::link_members()
{
    kinds_.reserve(members_.size());
    for (std::size_t index = 0; index < zones().size(); ++index) {
        zone_member *previous = nullptr;
        for (zone_member &member : members_of(index)) {
            member.prev = previous;
            if (previous)
                previous->next = &member;
            previous = &member;
            if (member.type == ZONE_MEMBER_PORT && zones_[index].first_port == no_member)
                zones_[index].first_port = index_of(member);
            kinds_.emplace_back(member);
        }
    }
}

void zone_model::index_addresses()
{
    const auto count = [this](auto... types) {
        return static_cast<std::size_t>(std::ranges::count_if(
            members_, [=](const zone_member &member) { return ((member.type == types) || ...); }));
    };
    addresses_.reserve(count(ZONE_MEMBER_IP_RANGE, ZONE_MEMBER_IP_NETWORK));
    macs_.reserve(count(ZONE_MEMBER_MAC_RANGE));
    for (std::size_t index = 0; index < zones().size(); ++index) {
        for (const zone_member &member : members_of(index)) {
            if (has(reachable, member.direction))
                add_address(member);
        }
        merge(addresses_, zones_[index].addresses);
        merge(macs_, zones_[index].macs);
        zone &next = zones_[index + 1];
        next.addresses = static_cast<uint32_t>(addresses_.size());
        next.macs = static_cast<uint32_t>(macs_.size());
        next.odd_networks = static_cast<uint32_t>(odd_networks_.size());
    }
}

void zone_model::add_address(const zone_member &member)
{
    if (member.type == ZONE_MEMBER_IP_RANGE && member.start.ip <= member.end.ip) {
        addresses_.push_back({member.start.ip, member.end.ip});
    } else if (member.type == ZONE_MEMBER_MAC_RANGE && member.start.mac <= member.end.mac) {
        macs_.push_back({member.start.mac, member.end.mac});
    } else if (member.type == ZONE_MEMBER_IP_NETWORK) {
        const uint32_t netmask = member.end.ip;
        if (netmask == without_gaps(netmask))
            addresses_.push_back({member.start.ip & netmask, ip_last_ip_from_netmask(member.start.ip, netmask)});
        else
            odd_networks_.push_back({member.start.ip, netmask});
    }
}

/// Sorts the places by name in two passes over the members, without a list for each name: the first one counts the
/// places of each name, the second one puts each place where the counts of the names before it say.
void zone_model::index_names()
{
    const auto names = static_cast<std::size_t>(std::ranges::count_if(members_, has_name));
    slots_.resize(names + names / 2 + 1); // a third stays free, so that a search soon meets a free one
    places_.resize(names);

    std::vector<uint32_t> slot_of; // of each member with a name
    slot_of.reserve(names);
    for (const zone_member &member : members_) {
        if (has_name(member))
            slot_of.push_back(count_name(member));
    }
    uint32_t end = 0;
    for (name_slot &slot : slots_)
        slot.first_place = end += slot.places; // for now the end of its places
    fill_places(std::move(slot_of));
}

/// Gives the name's slot.
uint32_t zone_model::count_name(const zone_member &member)
{
    const uint64_t hash = hash_of(member.start);
    const std::size_t index = find_slot(member.start, hash);
    name_slot &slot = slots_[index];
    if (slot.places++ == 0) {
        slot.tag = static_cast<uint32_t>(hash);
        slot.member = index_of(member);
    }
    return static_cast<uint32_t>(index);
}

/// From the last member to the first, so that the places of each name are filled in from their end and stand in the
/// order of the file, and first_place ends up at the first of them.
void zone_model::fill_places(std::vector<uint32_t> slot_of)
{
    for (std::size_t index = zones().size(); index-- > 0;) {
        const auto members = members_of(index);
        for (std::size_t i = members.size(); i-- > 0;) {
            if (!has_name(members[i]))
                continue;
            places_[--slots_[slot_of.back()].first_place] = place{index, members[i]};
            slot_of.pop_back();
        }
    }
}

uint32_t zone_model::index_of(const zone_member &member) const
{
    return static_cast<uint32_t>(&member - members_.data());
}

std::span<zone_member> zone_model::members_of(std::size_t zone_index)
{
    return {members_.data() + zones_[zone_index].members, members_.data() + zones_[zone_index + 1].members};
}

std::span<const member_kind> zone_model::kinds_of(std::size_t zone_index) const
{
    return {kinds_.data() + zones_[zone_index].members, kinds_.data() + zones_[zone_index + 1].members};
}

const zone_member *zone_model::first_port_of(std::size_t zone_index) const
{
    const uint32_t port = zones_[zone_index].first_port;
    return port == no_member ? nullptr : &members_[port];
}

/// Where the name is in the hash table, or the free slot where it would be. A name stands in the slot that the upper
/// half of its hash leads to, or in the next free one; the lower half tells most other names apart from it without a
/// look at the member.
std::size_t zone_model::find_slot(const zone_value &name, uint64_t hash) const
{
    const auto tag = static_cast<uint32_t>(hash);
    auto index = static_cast<std::size_t>((hash >> 32) * slots_.size() >> 32);
    for (;; index = index + 1 == slots_.size() ? 0 : index + 1) {
        const name_slot &slot = slots_[index];
        if (slot.places == 0 || (slot.tag == tag && is_same(members_[slot.member].start, name)))
            return index;
    }
}

std::span<const place> zone_model::places_of(const char *name) const
{
    const std::size_t length = name ? strnlen(name, common_name_length + 1) : 0;
    return name && length <= common_name_length ? places_of(name, length) : std::span<const place>{};
}

std::span<const place> zone_model::places_of_cut(const char *name) const
{
    return name ? places_of(name, strnlen(name, common_name_length)) : std::span<const place>{};
}

std::span<const place> zone_model::places_of(const char *name, std::size_t length) const
{
    zone_value value{};
    std::memcpy(value.name, name, length);
    const name_slot &slot = slots_[find_slot(value, hash_of(value))];
    return {places_.data() + slot.first_place, slot.places};
}

bool zone_model::reaches_ip(std::size_t zone_index, uint32_t ip) const
{
    const zone &begin = zones_[zone_index], &end = zones_[zone_index + 1];
    const std::span odd{odd_networks_.data() + begin.odd_networks, odd_networks_.data() + end.odd_networks};
    return holds(addresses_, begin.addresses, end.addresses, ip) ||
           std::ranges::any_of(odd, [=](const network &n) { return ip_in_network(ip, n.address, n.netmask) != 0; });
}

bool zone_model::reaches_mac(std::size_t zone_index, uint64_t mac) const
{
    return holds(macs_, zones_[zone_index].macs, zones_[zone_index + 1].macs, mac);
}

} // namespace vandrel
