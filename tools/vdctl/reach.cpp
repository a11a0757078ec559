#include "reach.hpp"

#include "access.hpp"
#include "output.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace vdctl {

namespace {

constexpr int32_t types_in_order[] = {ZONE_MEMBER_IP_RANGE, ZONE_MEMBER_MAC_RANGE, ZONE_MEMBER_PORT,
                                      ZONE_MEMBER_SERIALIZATION};

bool is_same_record(const zone_member &a, const zone_member &b)
{
    return std::memcmp(&a, &b, offsetof(zone_member, next)) == 0;
}

struct span_of_values {
    uint64_t first, last;
    source from;
};

/// The ranges of one type; a network that has one is a range.
std::vector<span_of_values> spans_of(const std::vector<source> &sources, int32_t type)
{
    std::vector<span_of_values> spans;
    for (const source &from : sources) {
        zone_member range = *from.member->record;
        if (range.type == ZONE_MEMBER_IP_NETWORK && !has_gaps(range.end.ip))
            zones_ip_netmask_to_range(&range, &range);
        if (range.type != type)
            continue;
        const bool is_mac = type == ZONE_MEMBER_MAC_RANGE;
        const uint64_t first = is_mac ? range.start.mac : range.start.ip, last = is_mac ? range.end.mac : range.end.ip;
        if (first <= last)
            spans.push_back({first, last, from});
    }
    return spans;
}

/// Calls use(first, last) with each interval that a span covers and in which none begins or ends, in order.
template <typename Use> void for_each_interval(const std::vector<span_of_values> &spans, Use &&use)
{
    std::vector<std::pair<uint64_t, int>> steps; // a value, and how many more spans cover from there on
    for (const span_of_values &span : spans) {
        steps.emplace_back(span.first, 1);
        steps.emplace_back(span.last + 1, -1);
    }
    std::ranges::sort(steps);
    int covering = 0;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (i > 0 && covering > 0 && steps[i].first > steps[i - 1].first)
            use(steps[i - 1].first, steps[i].first - 1);
        covering += steps[i].second;
    }
}

target target_of(const extent &reached)
{
    target what{static_cast<zone_member_type>(reached.type), std::string{reached.name}};
    if (reached.type == ZONE_MEMBER_IP_NETWORK)
        what.type = ZONE_MEMBER_IP_RANGE;
    what.ip = static_cast<uint32_t>(reached.start);
    what.mac = reached.start;
    return what;
}

/// What one peer reaches, in the order in which it is shown.
class peer_reach {
public:
    peer_reach(const std::string &peer, const std::vector<source> &sources) : peer_{peer}, sources_{sources}
    {
        for (const int32_t type : types_in_order)
            type <= ZONE_MEMBER_PORT ? add_names(type) : add_ranges(type);
    }

    std::vector<extent> found;
    bool is_exact = true, disagrees = false;

private:
    /// Asks for one value or name; whether it is reached.
    bool is_reached(extent &asked)
    {
        const verdict given = ask(peer_.c_str(), target_of(asked));
        asked.is_open = given.is_open;
        return given.is_allowed;
    }

    void add_ranges(int32_t type)
    {
        const auto spans = spans_of(sources_, type);
        const std::size_t begin = found.size();
        for_each_interval(spans, [&](uint64_t first, uint64_t last) {
            extent next{type, first, last};
            if (!is_reached(next))
                disagrees = true;
            else if (found.size() > begin && found.back().end + 1 == first && found.back().is_open == next.is_open)
                found.back().end = last;
            else
                found.push_back(std::move(next));
        });
        for (const span_of_values &span : spans) {
            auto at = std::ranges::lower_bound(found.begin() + static_cast<std::ptrdiff_t>(begin), found.end(),
                                               span.first, {}, &extent::end);
            for (; at != found.end() && at->start <= span.last; ++at)
                at->members.push_back(span.from);
        }
        if (type == ZONE_MEMBER_IP_RANGE)
            add_networks_with_gaps();
    }

    void add_networks_with_gaps()
    {
        for (const source &from : sources_) {
            const zone_member &record = *from.member->record;
            if (record.type != ZONE_MEMBER_IP_NETWORK || !has_gaps(record.end.ip))
                continue;
            extent network{record.type, record.start.ip, record.end.ip, {}, true, {from}};
            is_exact = false;
            disagrees |= !is_reached(network);
            found.push_back(std::move(network));
        }
    }

    void add_names(int32_t type)
    {
        std::unordered_map<std::string_view, std::size_t> places;
        std::vector<extent> names;
        for (const source &from : sources_) {
            if (from.member->record->type != type)
                continue;
            const std::string_view name = from.member->record->start.name;
            const auto [place, is_new] = places.emplace(name, names.size());
            if (is_new)
                names.push_back({type, 0, 0, name});
            names[place->second].members.push_back(from);
        }
        for (extent &named : names) {
            if (is_reached(named))
                found.push_back(std::move(named));
            else if (type == ZONE_MEMBER_PORT)
                disagrees = true; // a peer may be denied by an earlier zone
        }
    }

    const std::string &peer_;
    const std::vector<source> &sources_;
};

/// Mixes a value into a hash, with 2^64 divided by the golden ratio, which spreads every bit upwards.
uint64_t mixed(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9E3779B97F4A7C15;
    return hash ^ hash >> 32;
}

std::size_t hash_of(const extent &reached)
{
    uint64_t hash = std::hash<std::string_view>{}(reached.name);
    for (const uint64_t part :
         {static_cast<uint64_t>(reached.type) << 1 | (reached.is_open ? 1U : 0U), reached.start, reached.end})
        hash = mixed(hash, part);
    for (const source &from : reached.members)
        hash = mixed(hash, std::hash<const void *>{}(from.member));
    return static_cast<std::size_t>(hash);
}

std::size_t hash_of(const std::vector<uint32_t> &row)
{
    uint64_t hash = row.size();
    for (const uint32_t index : row)
        hash = mixed(hash, index);
    return static_cast<std::size_t>(hash);
}

} // namespace

std::string range_text(const extent &reached)
{
    zone_member record{};
    record.type = reached.type;
    if (reached.type == ZONE_MEMBER_PORT || reached.type == ZONE_MEMBER_SERIALIZATION)
        return std::string{reached.name};
    if (reached.type == ZONE_MEMBER_MAC_RANGE) {
        record.start.mac = reached.start;
        record.end.mac = reached.end;
    } else {
        record.start.ip = static_cast<uint32_t>(reached.start);
        record.end.ip = static_cast<uint32_t>(reached.end);
    }
    return extent_of(record);
}

std::string target_text(const extent &reached)
{
    const uint64_t size = reached.end - reached.start + 1;
    const bool is_network = reached.type == ZONE_MEMBER_IP_RANGE && size > 1 && std::has_single_bit(size) &&
                            (reached.start & (size - 1)) == 0;
    if (!is_network)
        return range_text(reached);
    return ip_text(static_cast<uint32_t>(reached.start)) + "/" + std::to_string(32 - std::countr_zero(size));
}

peer_list::peer_list(const zone_reading &zones)
{
    for (const zone_entry &zone : zones) {
        for (const member_entry &member : zone.members) {
            if (!is_loaded(zone) || !member.is_loaded() || !member.is_subject())
                continue;
            subject_zones &of_peer = zones_[member.record->start.name];
            if (of_peer.empty())
                names_.emplace_back(member.record->start.name);
            of_peer.push_back(&zone);
        }
    }
}

const subject_zones &peer_list::zones_of(const std::string &peer) const
{
    static const subject_zones none;
    const auto found = zones_.find(peer);
    return found == zones_.end() ? none : found->second;
}

matrix::matrix(std::shared_ptr<const zone_reading> zones) : zones_{std::move(zones)}, peers_{*zones_} {}

/// What the library lists for the peer, each with its place in the reading, which must list the same.
std::vector<source> matrix::sources_of(const std::string &peer)
{
    zone_member **listed = nullptr;
    uint32_t count = 0;
    if (zones_get_allowed_members(&listed, &count, peer.c_str(), ZONE_DIRECTION_OUT) == 0)
        throw failure{"the library lists nothing for " + text::of(peer)};
    const std::unique_ptr<zone_member *, released_by<::free>> owner{listed};
    std::vector<source> sources;
    const zone_entry *previous = nullptr;
    uint32_t next = 0;
    for (const zone_entry *zone : peers_.zones_of(peer)) {
        for (const member_entry &member : zone->members) {
            if (!member.is_loaded() || !member.is_target() || is_kept_apart(*zone, peer, member))
                continue;
            disagrees_ |= next >= count || !is_same_record(*member.record, *listed[next]);
            ++next;
            if (zone != previous) // which holds the peer twice
                sources.push_back({zone, &member});
        }
        previous = zone;
    }
    disagrees_ |= next != count;
    return sources;
}

uint32_t matrix::intern(extent reached)
{
    const std::size_t hash = hash_of(reached);
    const auto [begin, end] = extents_by_hash_.equal_range(hash);
    for (auto at = begin; at != end; ++at) {
        if (extents_[at->second] == reached)
            return at->second;
    }
    const auto index = static_cast<uint32_t>(extents_.size());
    extents_.push_back(std::move(reached));
    extents_by_hash_.emplace(hash, index);
    return index;
}

void matrix::add(const std::string &peer)
{
    peer_reach reach{peer, sources_of(peer)};
    disagrees_ |= reach.disagrees;
    reach_row row{{peer}, {}, reach.is_exact};
    for (extent &reached : reach.found)
        row.reached.push_back(intern(std::move(reached)));
    const std::size_t hash = hash_of(row.reached);
    const auto [begin, end] = rows_by_hash_.equal_range(hash);
    for (auto at = begin; at != end; ++at) {
        if (rows_[at->second].reached == row.reached) {
            rows_[at->second].peers.push_back(peer);
            return;
        }
    }
    rows_by_hash_.emplace(hash, static_cast<uint32_t>(rows_.size()));
    rows_.push_back(std::move(row));
}

void matrix::add_all()
{
    for (const std::string &peer : peers_.names())
        add(peer);
}

} // namespace vdctl
