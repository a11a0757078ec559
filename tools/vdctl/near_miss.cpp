// What is closest to a yes. Each near miss is one edit of the reading after which a zone has both and none denies, so
// that the answer is yes whatever the schedules say.
#include "access.hpp"

#include <algorithm>
#include <cstdlib>
#include <map>

#include <strings.h>

namespace vdctl {

namespace {

constexpr std::size_t most_near_misses = 3;
constexpr uint32_t farthest = 256;         // an end of a range is moved by that at most
constexpr uint64_t farthest_hint = 0xFFFF; // a network or MAC range away

/// The value of an edit.
std::string json_of(std::string_view word)
{
    return std::string{'"'}.append(word).append("\"");
}

text in_zone(const zone_entry &zone)
{
    return " of zone " + text::of(zone.key);
}

/// How far the value is outside of first to last, 0 inside.
template <typename Value> Value distance(Value value, Value first, Value last)
{
    return value < first ? first - value : value > last ? value - last : 0;
}

class search {
public:
    search(const zone_reading &zones, const std::string &peer, const target &what)
        : zones_{zones}, peer_{peer}, what_{what}
    {
        for (const zone_entry &zone : zones) {
            const auto found = fit_in(zone, peer, what);
            denials_ += found && found->deny_key ? 1 : 0;
        }
    }

    std::vector<near_miss> run()
    {
        for (const auto step : {&search::turn_members, &search::enable, &search::add_peer, &search::move_ends}) {
            for (const zone_entry &zone : zones_) {
                if (denials_ == 0)
                    (this->*step)(zone);
            }
        }
        if (found_.size() > most_near_misses)
            found_.resize(most_near_misses);
        return std::move(found_);
    }

private:
    /// Notes the edit if it makes the answer a yes.
    template <typename Edit> void try_edit(const zone_entry &zone, near_miss miss, Edit &&edit)
    {
        if (found_.size() >= most_near_misses)
            return;
        zone_entry edited = zone;
        edit(edited);
        const auto found = fit_in(edited, peer_, what_);
        if (found && !found->deny_key)
            found_.push_back(std::move(miss));
    }

    template <typename Edit> void try_member_edit(const zone_entry &zone, const member_entry &member, const char *key,
                                                  std::string value, const text &what, Edit &&edit)
    {
        const auto index = static_cast<std::size_t>(&member - zone.members.data());
        try_edit(zone, {zone.key, member.key, member.line, key, std::move(value), what},
                 [&](zone_entry &edited) { edit(edited.members[index]); });
    }

    void turn_members(const zone_entry &zone)
    {
        if (!is_loaded(zone))
            return;
        for (const member_entry &member : zone.members) {
            if (!member.is_loaded())
                continue;
            const bool is_subject_wanted = is_peer(member, peer_) && !member.is_subject();
            if (is_subject_wanted || (holds(member, what_) && !member.is_target()))
                turn(zone, member, is_subject_wanted);
        }
    }

    void turn(const zone_entry &zone, const member_entry &member, bool to_subject)
    {
        const bool has_direction = member.record->direction != ZONE_DIRECTION_INVALID;
        const zone_direction wanted = has_direction ? ZONE_DIRECTION_BOTH
                                      : to_subject  ? ZONE_DIRECTION_IN
                                                    : ZONE_DIRECTION_OUT;
        static constexpr const char *names[] = {"in", "out", "both"};
        const text is = has_direction ? " is " + quoted(names[member.record->direction]) : text{" has no direction"};
        try_member_edit(zone, member, "direction", json_of(names[wanted]),
                        described(member) + in_zone(zone) + is + ", not " + quoted(names[wanted]),
                        [&](member_entry &edited) { edited.record->direction = wanted; });
    }

    void enable(const zone_entry &zone)
    {
        if (!is_loaded(zone)) {
            try_edit(
                zone,
                {zone.key, std::nullopt, zone.line, "disabled", "false", "zone " + text::of(zone.key) + " is disabled"},
                [](zone_entry &edited) { edited.disabled = false; });
            return;
        }
        for (const member_entry &member : zone.members) {
            if (member.disabled && member.record && (is_peer(member, peer_) || holds(member, what_)))
                try_member_edit(zone, member, "disabled", "false", described(member) + in_zone(zone) + " is disabled",
                                [](member_entry &edited) { edited.disabled = false; });
        }
    }

    void add_peer(const zone_entry &zone)
    {
        const bool is_there = std::ranges::any_of(zone.members, [&](const member_entry &m) { return m.key == peer_; });
        if (!is_loaded(zone) || !zone.has_members || is_there)
            return;
        member_entry added;
        added.key = peer_;
        added.record = zone_member{};
        added.record->type = ZONE_MEMBER_SERIALIZATION;
        added.record->direction = ZONE_DIRECTION_IN;
        if (peer_.size() > common_name_length)
            return; // it would be cut and be another one
        peer_.copy(added.record->start.name, common_name_length);
        try_edit(zone,
                 {zone.key, peer_, zone.line, std::nullopt, R"({"type": "serialization", "direction": "in"})",
                  "zone " + text::of(zone.key) + " lets its peers reach it, but " + text::of(peer_) + " is not in it"},
                 [&](zone_entry &edited) { edited.members.push_back(added); });
    }

    void move_ends(const zone_entry &zone)
    {
        if (what_.type != ZONE_MEMBER_IP_RANGE || !is_loaded(zone))
            return;
        for (const member_entry &member : zone.members) {
            if (!member.is_loaded() || member.record->type != ZONE_MEMBER_IP_RANGE ||
                member.record->start.ip > member.record->end.ip)
                continue;
            const uint32_t away = distance(what_.ip, member.record->start.ip, member.record->end.ip);
            const bool is_above = what_.ip > member.record->end.ip;
            if (away == 0 || away > farthest || (!is_above && !member.has_end))
                continue; // without an end, another start would be the only address
            try_member_edit(
                zone, member, is_above ? "address_end" : "address_start", json_of(ip_text(what_.ip)),
                text{away} + (is_above ? text{" above "} : text{" below "}) + described(member) + in_zone(zone),
                [&](member_entry &edited) { (is_above ? edited.record->end : edited.record->start).ip = what_.ip; });
        }
    }

    const zone_reading &zones_;
    const std::string &peer_;
    const target &what_;
    unsigned denials_ = 0; // zones that deny the pair, which no edit elsewhere changes
    std::vector<near_miss> found_;
};

/// Every loaded member of a loaded zone.
template <typename Use> void for_each_member(const zone_reading &zones, Use &&use)
{
    for (const zone_entry &zone : zones) {
        for (const member_entry &member : zone.members) {
            if (is_loaded(zone) && member.is_loaded())
                use(zone, member);
        }
    }
}

text place_of(const zone_entry &zone, const member_entry &member)
{
    return " (zone " + text::of(zone.key) + ", line " + text{member.line} + ")";
}

/// Names that were perhaps meant.
class name_hints {
public:
    name_hints(const zone_reading &zones, bool has_near_misses) : zones_{zones}, only_other_case_{has_near_misses} {}

    /// Hints at the nearest name of the kind, where the name itself is none.
    void look_for(const std::string &name, zone_member_type type, std::vector<text> &result) const
    {
        std::size_t least = SIZE_MAX;
        text nearest;
        for_each_member(zones_, [&](const zone_entry &zone, const member_entry &member) {
            if (member.record->type != type || !may_be_meant(name, member.key))
                return;
            const std::size_t letters = letters_between(name, member.key);
            if (letters < least) {
                least = letters;
                nearest = quoted(member.key) + place_of(zone, member) + " is written almost like " + quoted(name);
            }
        });
        if (least != 0 && least != SIZE_MAX)
            result.push_back(std::move(nearest));
    }

private:
    bool may_be_meant(const std::string &name, const std::string &other) const
    {
        return only_other_case_ ? strcasecmp(name.c_str(), other.c_str()) == 0 : name == other || is_near(name, other);
    }

    const zone_reading &zones_;
    bool only_other_case_;
};

/// The nearest network or MAC range that the peer reaches.
void look_nearby(const zone_reading &zones, const std::string &peer, const target &what, std::vector<text> &result)
{
    uint64_t least = farthest_hint + 1;
    text nearest;
    for_each_member(zones, [&](const zone_entry &zone, const member_entry &member) {
        zone_member range = *member.record;
        if (range.type == ZONE_MEMBER_IP_NETWORK && !has_gaps(range.end.ip))
            zones_ip_netmask_to_range(&range, &range);
        if (range.type != what.type || !member.is_target() ||
            std::ranges::none_of(zone.members, [&](const member_entry &m) {
                return m.is_loaded() && is_peer(m, peer) && m.is_subject();
            }))
            return;
        const bool is_mac = range.type == ZONE_MEMBER_MAC_RANGE;
        const uint64_t away = is_mac ? distance(what.mac, range.start.mac, range.end.mac)
                                     : distance(what.ip, range.start.ip, range.end.ip);
        if (away != 0 && away < least) {
            least = away;
            nearest = "the nearest that it reaches is " + described(member) + place_of(zone, member);
        }
    });
    if (!nearest.empty())
        result.push_back(std::move(nearest));
}

} // namespace

std::vector<near_miss> near_misses(const zone_reading &zones, const std::string &peer, const target &what)
{
    return search{zones, peer, what}.run();
}

std::vector<text> hints(const zone_reading &zones, const std::string &peer, const target &what, bool has_near_misses)
{
    std::vector<text> result;
    if (peer.size() > common_name_length)
        result.emplace_back("a peer's name over 26 characters is in no zone");
    const name_hints names{zones, has_near_misses};
    names.look_for(peer, ZONE_MEMBER_SERIALIZATION, result);
    if (what.type == ZONE_MEMBER_IP_RANGE || what.type == ZONE_MEMBER_MAC_RANGE) {
        if (!has_near_misses)
            look_nearby(zones, peer, what, result);
        return result;
    }
    names.look_for(what.name, what.type, result);
    const bool is_port = what.type == ZONE_MEMBER_PORT;
    bool is_found = false, is_other = false;
    for_each_member(zones, [&](const zone_entry &, const member_entry &member) {
        is_found |= holds(member, what);
        is_other |=
            member.key == what.name && member.record->type == (is_port ? ZONE_MEMBER_SERIALIZATION : ZONE_MEMBER_PORT);
    });
    if (is_other && !is_found) {
        result.push_back(quoted(what.name) +
                         (is_port ? text{" is a peer and not a port: ask for peer:"}
                                  : text{" is a port and not a peer: ask for port:"}) +
                         text::of(what.name));
    }
    return result;
}

} // namespace vdctl
