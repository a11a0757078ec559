#include "reading.hpp"

#include "ip_calculation.h"
#include "output.hpp"

#include <bit>

namespace vdctl {

namespace {

member_entry read_entry(const scanned_key &key, json_object *value)
{
    member_entry entry;
    entry.key = key.name;
    entry.line = key.line;
    entry.disabled = flag_of(value_of(value, "disabled"));
    entry.has_end = value_of(value, "address_end");
    entry.record = read_member(key.name, value);
    return entry;
}

unsigned line_of(const scanned_key &zone, const char *key)
{
    const scanned_key *place = place_of(zone, key);
    return place ? place->line : 0;
}

zone_entry read_zone(const scanned_key &key, json_object *value)
{
    zone_entry zone;
    zone.key = key.name;
    zone.line = key.line;
    zone.disabled = flag_of(value_of(value, "disabled"));
    zone.deny_keys = flag_of(value_of(value, "deny_between_keys"));
    zone.deny_locks = flag_of(value_of(value, "deny_between_locks"));
    zone.deny_keys_line = line_of(key, "deny_between_keys");
    zone.deny_locks_line = line_of(key, "deny_between_locks");
    json_object *members = value_of(value, "members");
    zone.has_members = members != nullptr;
    if (members) {
        for_each_key(members, *place_of(key, "members"), [&](const scanned_key &name, json_object *member) {
            if (member)
                zone.members.push_back(read_entry(name, member));
        });
    }
    return zone;
}

std::string range_text(const std::string &start, const std::string &end)
{
    return start == end ? start : start + "-" + end;
}

} // namespace

json_object *zones_value(const zone_document &document)
{
    return value_of(value_of(document.root.get(), "zone_configuration"), "zones");
}

zone_reading read_zones(const zone_document &document)
{
    zone_reading zones;
    json_object *value = zones_value(document);
    if (!value)
        return zones;
    const scanned_key &place = *place_of(*place_of(document.keys, "zone_configuration"), "zones");
    for_each_key(value, place, [&](const scanned_key &key, json_object *zone) {
        if (zone && zone_id(key.name))
            zones.push_back(read_zone(key, zone));
    });
    return zones;
}

bool has_gaps(uint32_t netmask)
{
    return netmask != ip_netmask(static_cast<unsigned>(std::countl_one(netmask)));
}

std::string extent_of(const zone_member &record)
{
    switch (record.type) {
    case ZONE_MEMBER_IP_RANGE:
        return range_text(ip_text(record.start.ip), ip_text(record.end.ip));
    case ZONE_MEMBER_IP_NETWORK:
        if (has_gaps(record.end.ip))
            return ip_text(record.start.ip) + "/" + ip_text(record.end.ip) + " (gaps)";
        return ip_text(record.start.ip) + "/" + std::to_string(std::countl_one(record.end.ip));
    case ZONE_MEMBER_MAC_RANGE:
        return range_text(mac_text(record.start.mac), mac_text(record.end.mac));
    default:
        return record.start.name;
    }
}

text described(const member_entry &member)
{
    const bool has_name = member.record->type == ZONE_MEMBER_SERIALIZATION || member.record->type == ZONE_MEMBER_PORT;
    return quoted(member.key) + (has_name ? text{} : " " + text::of(extent_of(*member.record)));
}

} // namespace vdctl
