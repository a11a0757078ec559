#include "zone_file.hpp"

#include "handles.hpp"
#include "heap.hpp"
#include "ip_calculation.h"
#include "json.hpp"
#include "json_census.hpp"
#include "json_document.hpp"
#include "log.hpp"
#include "mac.h"
#include "paths.hpp"
#include "util.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "zones.c";

/// What is read and counted of a document. A document that turns out not to be whole leaves no trace: what is to be
/// logged waits here.
struct reading {
    struct message {
        int priority;
        std::string text;
    };

    std::optional<zone_records> records;
    bool is_complete = false;
    json_counts counts;
    std::vector<message> messages;

    void warn(std::string text) { messages.push_back({LOG_WARNING, std::move(text)}); }
    void report(std::string text) { messages.push_back({LOG_ERR, std::move(text)}); }
};

// A JSON value is borrowed from its document, and null where the file has null or nothing.

/// The value's text. No text means no memory for it: taking the key for absent then could allow more than it says.
const char *text_of(json_object *value)
{
    const char *text = json_object_get_string(value);
    return text ? text : throw std::bad_alloc{};
}

uint8_t flag_of(json_object *value, reading &out)
{
    if (!value)
        return 0;
    if (!json_object_is_type(value, json_type_boolean)) {
        out.warn("Invalid type for field disabled"); // whichever field it is
        return 0;
    }
    return json_object_get_boolean(value) ? 1 : 0;
}

struct keyword {
    const char *text;
    int32_t value;
};

constexpr keyword directions_by_text[] = {
    {"in", ZONE_DIRECTION_IN}, {"out", ZONE_DIRECTION_OUT}, {"both", ZONE_DIRECTION_BOTH}};

constexpr keyword types_by_text[] = {{"serialization", ZONE_MEMBER_SERIALIZATION},
                                     {"port", ZONE_MEMBER_PORT},
                                     {"whitelisted_ip", ZONE_MEMBER_IP_RANGE}, // or a network, if it has a netmask
                                     {"whitelisted_mac", ZONE_MEMBER_MAC_RANGE}};

int32_t keyword_of(json_object *value, std::span<const keyword> keywords, int32_t otherwise)
{
    if (!value)
        return otherwise;
    const char *text = text_of(value);
    const auto found = std::ranges::find_if(keywords, [=](const keyword &k) { return std::strcmp(k.text, text) == 0; });
    return found == keywords.end() ? otherwise : found->value;
}

/// The values of a member's keys.
struct member_fields {
    json_object *disabled = nullptr;
    json_object *type = nullptr;
    json_object *direction = nullptr;
    json_object *address_start = nullptr;
    json_object *address_end = nullptr;
    json_object *netmask = nullptr;
};

constexpr struct {
    std::string_view key;
    json_object *member_fields::*field;
} member_keys[] = {
    {"disabled", &member_fields::disabled},       {"type", &member_fields::type},
    {"direction", &member_fields::direction},     {"address_start", &member_fields::address_start},
    {"address_end", &member_fields::address_end}, {"netmask", &member_fields::netmask},
};

member_fields fields_of(json_object *object)
{
    member_fields fields;
    if (!json_object_is_type(object, json_type_object))
        return fields;
    json_object_object_foreach(object, name, value)
    {
        const std::string_view text = name;
        for (const auto &[key, field] : member_keys) {
            if (key == text)
                fields.*field = value;
        }
    }
    return fields;
}

bool read_range(zone_member &member, const member_fields &fields)
{
    if (!fields.address_start)
        return false;
    member.start.ip = ip_parse(text_of(fields.address_start));
    member.end.ip = fields.address_end ? ip_parse(text_of(fields.address_end)) : member.start.ip;
    return true;
}

bool read_network(zone_member &member, const member_fields &fields, reading &out)
{
    if (!fields.address_start)
        return false;
    const char *netmask = text_of(fields.netmask);
    member.type = ZONE_MEMBER_IP_NETWORK;
    member.start.ip = ip_parse(text_of(fields.address_start));
    member.end.ip = ip_uint32_netmask_from_str(netmask, std::strlen(netmask));
    if (member.end.ip == 0 && member.start.ip != 0) {
        out.warn(std::string{"Failed to parse netmask "} + netmask);
        return false;
    }
    return true;
}

bool read_mac(uint64_t &mac, json_object *value)
{
    uint8_t bytes[6] = {};
    if (!mac_to_bytes_network(bytes, text_of(value)))
        return false;
    mac = mac_bytes_to_long(bytes);
    return true;
}

bool read_mac_range(zone_member &member, const member_fields &fields)
{
    if (!fields.address_start || !read_mac(member.start.mac, fields.address_start))
        return false;
    member.end.mac = member.start.mac;
    return !fields.address_end || read_mac(member.end.mac, fields.address_end);
}

bool read_member(zone_member &member, const char *name, const member_fields &fields, reading &out)
{
    member.type = keyword_of(fields.type, types_by_text, ZONE_MEMBER_INVALID);
    member.direction = keyword_of(fields.direction, directions_by_text, ZONE_DIRECTION_INVALID);
    switch (member.type) {
    case ZONE_MEMBER_SERIALIZATION:
        member.start = cut_name(name, common_name_length);
        return true;
    case ZONE_MEMBER_PORT:
        member.start = cut_name(name, port_name_length);
        return true;
    case ZONE_MEMBER_IP_RANGE:
        return fields.netmask ? read_network(member, fields, out) : read_range(member, fields);
    case ZONE_MEMBER_MAC_RANGE:
        return read_mac_range(member, fields);
    default:
        return false;
    }
}

void read_members(json_object *members, reading &out)
{
    json_object_object_foreach(members, name, value)
    {
        if (!value)
            continue;
        const member_fields fields = fields_of(value);
        if (flag_of(fields.disabled, out))
            continue;
        if (zone_member member{}; read_member(member, name, fields, out))
            out.records->members.push_back(member);
        else
            out.warn(std::string{name} + " parsing failed");
    }
}

/// Says whether the zone is complete; one without members is not. One that is not to be loaded is.
bool read_zone(const char *key, json_object *object, reading &out)
{
    const char *fault;
    const auto id = static_cast<int32_t>(strtonum(key, 0, INT_MAX, &fault));
    if (fault || flag_of(member_of(object, "disabled"), out))
        return true;
    zone &loaded = out.records->zones.emplace_back();
    loaded.id = id;
    loaded.members = static_cast<uint32_t>(out.records->members.size());
    json_object *members = member_of(object, "members");
    if (!members)
        return false;
    loaded.deny_between_keys = flag_of(member_of(object, "deny_between_keys"), out);
    loaded.deny_between_locks = flag_of(member_of(object, "deny_between_locks"), out);
    if (json_object_is_type(members, json_type_object))
        read_members(members, out);
    else
        out.report("Zone members is wrong type");
    return true;
}

/// Makes room for all zones and members, so that the records grow without ever being copied.
void reserve(zone_records &records, json_object *zones)
{
    std::size_t members = 0;
    json_object_object_foreach(zones, key, value)
    {
        static_cast<void>(key);
        json_object *list = member_of(value, "members");
        if (json_object_is_type(list, json_type_object))
            members += static_cast<std::size_t>(json_object_object_length(list));
    }
    records.zones.reserve(static_cast<std::size_t>(json_object_object_length(zones)) + 1); // the model closes the list
    records.members.reserve(members);
}

/// Counts, reads and deletes each zone in turn, while it is in the processor's caches. Says whether all are complete.
bool take_zones(json_object *zones, reading &out)
{
    if (!json_object_is_type(zones, json_type_object)) {
        out.report("Unexpected json type found, see RACK-457");
        return false;
    }
    reserve(*out.records, zones);
    bool is_complete = true;
    json_object_object_foreach(zones, key, value)
    {
        out.counts.add(key, value);
        if (value && !read_zone(key, value, out))
            is_complete = false;
        json_object_object_del(zones, key);
        join_freed_blocks();
    }
    return is_complete;
}

reading read_document(const json_handle &document)
{
    reading out;
    if (json_object *zones = member_of(member_of(document.get(), "zone_configuration"), "zones")) {
        out.records.emplace();
        out.is_complete = take_zones(zones, out);
    }
    out.counts.add(document.get()); // what is left of it
    return out;
}

/// None where the file can't be parsed or says null. A document that lacks a part of the file could allow more than the
/// file says.
std::optional<reading> read_whole(int fd)
{
    {
        json_parsing first = parse_json(fd);
        if (!first.document)
            return std::nullopt;
        reading out = read_document(*first.document);
        if (out.counts == first.counts)
            return *first.document ? std::optional{std::move(out)} : std::nullopt;
    }
    // A part is lost, or the file has equal keys.
    const json_handle document = parse_json_twice(fd);
    return document ? std::optional{read_document(document)} : std::nullopt;
}

} // namespace

namespace vandrel {

std::optional<zone_file> read_zone_file()
{
    const unique_fd fd = open_untrusted(zones_file);
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0)
        return std::nullopt;
    std::optional<reading> whole = read_whole(fd.get());
    if (!whole)
        return std::nullopt;
    for (const auto &[priority, text] : whole->messages)
        log_at(priority, -1, "%s", text.c_str());
    return zone_file{status.st_mtime, std::move(whole->records), whole->is_complete};
}

} // namespace vandrel
