// The zone model: the members of the zone file in its order, and an index that finds what a walk over all of them
// would find. The index has two parts:
// - each name, of peer or port, leads to its places: the zones that hold it, in file order, and how each holds it;
// - each zone has the addresses and MAC addresses that can be reached in it, merged into sorted intervals.
// Both hold what the members say and nothing else, and never change.
#pragma once

#include "sizes.hpp"
#include "util.h"
#include "zones.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace vandrel {

// a longer name is cut
constexpr std::size_t common_name_length = common_name_size - 1, port_name_length = portname_size - 1;

/// A set of directions, one bit for each.
using directions = unsigned;
constexpr directions subjects = 1U << ZONE_DIRECTION_IN | 1U << ZONE_DIRECTION_BOTH;
constexpr directions reachable = 1U << ZONE_DIRECTION_OUT | 1U << ZONE_DIRECTION_BOTH;
constexpr directions all_directions = subjects | reachable | 1U << ZONE_DIRECTION_INVALID;

constexpr bool has(directions set, int32_t direction)
{
    return (set >> static_cast<unsigned>(direction) & 1) != 0;
}

/// The text as a member holds it: cut, with zero bytes behind it.
zone_value cut_name(const char *text, std::size_t length);

/// The netmask up to its first gap.
uint32_t without_gaps(uint32_t netmask);

constexpr std::size_t max_members = std::size_t{1} << 31;
constexpr uint32_t no_member = UINT32_MAX;

/// A zone. What it holds stands in the model's arrays, each part from the zone's own index to that of the next zone.
struct zone {
    int32_t id = 0;
    uint8_t deny_between_keys = 0;
    uint8_t deny_between_locks = 0;
    uint8_t scheduled_access = 1;
    uint32_t members = 0;
    uint32_t first_port = no_member;
    uint32_t addresses = 0;
    uint32_t odd_networks = 0;
    uint32_t macs = 0;
};

/// The zones of a file with the members of all of them, as the loader collects them.
struct zone_records {
    std::vector<zone> zones; // id, flags and members are set
    std::vector<zone_member> members;
};

/// Where one member with a name stands, and what it is there.
class place {
public:
    static constexpr std::size_t max_zones = std::size_t{1} << 29;

    place() = default;
    place(std::size_t zone_index, const zone_member &member)
        : bits_{static_cast<uint32_t>(zone_index) << 3 | (member.type == ZONE_MEMBER_PORT ? 4U : 0U) |
                static_cast<uint32_t>(member.direction)}
    {
    }

    uint32_t zone_index() const { return bits_ >> 3; }
    bool is_peer(directions set) const { return has(set, kind()); }
    bool is_port(directions set) const { return has(set << 4, kind()); }

private:
    int32_t kind() const { return static_cast<int32_t>(bits_ & 7); }

    uint32_t bits_; // the zone's index, port or not, direction
};

/// What a list of members asks of one. A byte for each, side by side, is read in a fraction of the time that the
/// records would take, which are 96 bytes apart.
class member_kind {
public:
    explicit member_kind(const zone_member &member);

    bool has_direction(directions set) const { return has(set, bits_ & 3); }
    int peer_type() const { return (bits_ >> 2) + PEER_TYPE_UNKNOWN; } // which it is where it is no peer

private:
    uint8_t bits_; // direction, peer type
};

template <typename Value> struct interval {
    Value first, last;
};

struct network {
    uint32_t address, netmask;
};

class zone_model {
public:
    explicit zone_model(zone_records records);
    zone_model(const zone_model &) = delete;
    zone_model &operator=(const zone_model &) = delete;

    std::span<zone> zones() { return {zones_.data(), zones_.size() - 1}; }

    // A zone is named by its index.

    std::span<zone_member> members_of(std::size_t zone_index);
    std::span<const member_kind> kinds_of(std::size_t zone_index) const; // in the same order
    const zone_member *first_port_of(std::size_t zone_index) const;      // null without one

    /// Where the name stands, in file order. One that is too long for a member stands nowhere.
    std::span<const place> places_of(const char *name) const;
    /// The same, where only the name's first 26 characters count.
    std::span<const place> places_of_cut(const char *name) const;

    /// Whether the value is, or is inside, a member that can be reached.
    bool reaches_ip(std::size_t zone_index, uint32_t ip) const;
    bool reaches_mac(std::size_t zone_index, uint64_t mac) const;

private:
    struct name_slot { // one name of the hash table; free while it has no places
        uint32_t tag;  // of its hash
        uint32_t member;
        uint32_t first_place;
        uint32_t places;
    };

    void link_members();
    void index_addresses();
    void index_names();
    uint32_t count_name(const zone_member &member);
    void fill_places(std::vector<uint32_t> slot_of);
    void add_address(const zone_member &member);
    uint32_t index_of(const zone_member &member) const;
    std::span<const place> places_of(const char *name, std::size_t length) const;
    std::size_t find_slot(const zone_value &name, uint64_t hash) const;

    std::vector<zone> zones_; // the last one only ends the parts of the one before
    std::vector<zone_member> members_;
    std::vector<member_kind> kinds_; // of the members
    std::vector<name_slot> slots_;
    std::vector<place> places_; // name by name
    std::vector<interval<uint32_t>> addresses_;
    std::vector<interval<uint64_t>> macs_;
    std::vector<network> odd_networks_; // those whose netmask has gaps
};

} // namespace vandrel
