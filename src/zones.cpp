#include "zones.h"

#include "boundary.hpp"
#include "handles.hpp"
#include "ip_calculation.h"
#include "json.hpp"
#include "log.hpp"
#include "mac.h"
#include "paths.hpp"
#include "shell_command.hpp"
#include "util.h"
#include "zone_model.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include <json-c/json.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "zones.c";

constexpr std::size_t command_size = 107;                  // a schedule command and its NUL
constexpr std::size_t answer_length = 31;                  // what is read of the schedule script's output
constexpr std::size_t chunk_size = std::size_t{64} * 1024; // of the zone file

struct {
    std::optional<zone_model> model;
    time_t mtime = 0; // of the file that was loaded last
} state;

// Reading the file. A JSON value is borrowed from its document, and null where the file has null or nothing.

/// The value's text. No text means no memory for it: taking the key for absent then could allow more than it says.
const char *text_of(json_object *value)
{
    const char *text = json_object_get_string(value);
    return text ? text : throw std::bad_alloc{};
}

uint8_t flag_of(json_object *value)
{
    if (!value)
        return 0;
    if (!json_object_is_type(value, json_type_boolean)) {
        log_warning("Invalid type for field disabled"); // whichever field it is
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

bool read_network(zone_member &member, const member_fields &fields)
{
    if (!fields.address_start)
        return false;
    const char *netmask = text_of(fields.netmask);
    member.type = ZONE_MEMBER_IP_NETWORK;
    member.start.ip = ip_parse(text_of(fields.address_start));
    member.end.ip = ip_uint32_netmask_from_str(netmask, std::strlen(netmask));
    if (member.end.ip == 0 && member.start.ip != 0) {
        log_warning("Failed to parse netmask %s", netmask);
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

bool read_member(zone_member &member, const char *name, const member_fields &fields)
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
        return fields.netmask ? read_network(member, fields) : read_range(member, fields);
    case ZONE_MEMBER_MAC_RANGE:
        return read_mac_range(member, fields);
    default:
        return false;
    }
}

void read_members(json_object *members, zone_records &records)
{
    json_object_object_foreach(members, name, value)
    {
        if (!value)
            continue;
        const member_fields fields = fields_of(value);
        if (flag_of(fields.disabled))
            continue;
        if (zone_member member{}; read_member(member, name, fields))
            records.members.push_back(member);
        else
            log_warning("%s parsing failed", name);
    }
}

/// Lets glibc give back the memory of a document that is parsed and released while this lives. Its heap shrinks as far
/// as nothing at the end is in use, which it looks at when a block of 64 KB is freed: the chunk. The last freed blocks
/// of each small size, which it sets aside, count as in use, so those that parsing frees would hold the whole heap.
/// Blocks from before the document are set aside in their place.
class document_room {
public:
    document_room() : chunk_{static_cast<char *>(std::malloc(chunk_size))} { take(before_); }
    document_room(const document_room &) = delete;
    document_room &operator=(const document_room &) = delete;

    char *chunk() const { return chunk_.get(); }
    void is_parsed()
    {
        take(after_);
        before_ = {};
    }

    /// Joins blocks that were freed with their neighbours, which costs least while they are in the processor's caches:
    /// glibc puts it off until a larger block is asked for.
    void join() { larger_.reset(static_cast<char *>(std::malloc(larger_size))); }

private:
    static constexpr std::size_t sizes[] = {24, 40, 56, 72, 88, 104, 120, 136, 640}; // of json-c's keys, values, tables
    static constexpr std::size_t set_aside = 7;                                      // of each size
    static constexpr std::size_t larger_size = 2000;
    using blocks = std::array<c_string, std::size(sizes) * set_aside>;

    static void take(blocks &taken)
    {
        for (std::size_t i = 0; i < taken.size(); ++i)
            taken[i].reset(static_cast<char *>(std::malloc(sizes[i / set_aside])));
    }

    c_string chunk_; // freed last
    blocks before_, after_;
    c_string larger_;
};

/// Says whether the zone is complete; one without members is not. One that is not to be loaded is.
bool read_zone(const char *key, json_object *object, zone_records &records)
{
    const char *fault;
    const auto id = static_cast<int32_t>(strtonum(key, 0, INT_MAX, &fault));
    if (fault || flag_of(member_of(object, "disabled")))
        return true;
    zone &loaded = records.zones.emplace_back();
    loaded.id = id;
    loaded.members = static_cast<uint32_t>(records.members.size());
    json_object *members = member_of(object, "members");
    if (!members)
        return false;
    loaded.deny_between_keys = flag_of(member_of(object, "deny_between_keys"));
    loaded.deny_between_locks = flag_of(member_of(object, "deny_between_locks"));
    if (json_object_is_type(members, json_type_object))
        read_members(members, records);
    else
        log_error("Zone members is wrong type");
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

/// Says whether all zones are complete.
bool read_zones(json_object *zones, zone_records &records, document_room &room)
{
    if (!json_object_is_type(zones, json_type_object)) {
        log_error("Unexpected json type found, see RACK-457");
        return false;
    }
    reserve(records, zones);
    bool complete = true;
    json_object_object_foreach(zones, key, value)
    {
        if (value && !read_zone(key, value, records))
            complete = false;
        json_object_object_del(zones, key); // at once, while it is in the processor's caches
        room.join();
    }
    return complete;
}

/// What json_object_from_file would make of the same bytes. It would also read all of them into one block, and once
/// glibc has freed such a large block, it gives less memory back.
json_handle parse(int fd, char *chunk)
{
    const tokener_handle tokener{json_tokener_new()};
    if (!tokener || !chunk)
        throw std::bad_alloc{};
    json_handle document;
    do {
        const ssize_t length = uninterrupted([&] { return read(fd, chunk, chunk_size); });
        if (length <= 0)
            return nullptr;
        errno = 0;
        document.reset(json_tokener_parse_ex(tokener.get(), chunk, static_cast<int>(length)));
        if (errno == ENOMEM) // before 0.17 json-c drops a key that it has no memory for and goes on
            throw std::bad_alloc{};
    } while (json_tokener_get_error(tokener.get()) == json_tokener_continue);
    return document;
}

struct zone_file {
    json_handle document; // null when it can't be parsed
    time_t mtime;         // before it was read, so what is written or put in its place later has another one
};

zone_file read_file(char *chunk)
{
    const unique_fd fd = open_untrusted(zones_file);
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0)
        return {};
    return {parse(fd.get(), chunk), status.st_mtime};
}

/// The value of "zones", the only part of the document that is kept.
json_handle zones_of(json_object *document)
{
    return json_handle{json_object_get(member_of(member_of(document, "zone_configuration"), "zones"))};
}

int build_model(json_handle zones, document_room &room)
{
    zone_records records;
    const bool complete = read_zones(zones.get(), records, room);
    zones.reset();
    state.model.emplace(std::move(records));
    return complete ? 1 : 0;
}

int load()
{
    document_room room;
    zone_file file = read_file(room.chunk());
    room.is_parsed();
    if (!file.document)
        return 0;
    json_handle zones = zones_of(file.document.get());
    file.document.reset();
    state.mtime = file.mtime;
    if (!zones)
        return 0;
    zones_free();
    return build_model(std::move(zones), room);
}

/// Whether the file is still the one that was loaded. A file that has a status exists, so one call says here what
/// file_get_mtime says with two, and a query costs half. Where it has none, file_get_mtime reports why.
bool is_unchanged()
{
    struct stat status;
    const bool found = stat(zones_file, &status) == 0;
    return (found ? status.st_mtime : file_get_mtime(zones_file)) == state.mtime;
}

bool reload_if_changed()
{
    if (state.model && state.mtime > 0 && is_unchanged())
        return true;
    zones_free();
    return zones_load() != 0;
}

// Asking the model.

/// Whether the zone keeps peers of these types apart.
bool denies(const zone &holder, int type, int other_type)
{
    if (type != other_type || type == PEER_TYPE_UNKNOWN)
        return false;
    return (type == PEER_TYPE_TOKEN ? holder.deny_between_keys : holder.deny_between_locks) != 0;
}

bool never_denied(const zone &)
{
    return false;
}

/// Asks the zones in which the peer is a subject, in file order: is_target whether the zone, by its index, has a
/// target, then is_denied whether the zone denies the pair.
template <typename Target, typename Denial>
int is_allowed(const char *common_name, uint8_t *sched, Target &&is_target, Denial &&is_denied)
{
    if (sched)
        *sched = 0;
    int result = 0;
    uint32_t last = place::max_zones;
    for (const place &subject : state.model->places_of(common_name)) {
        if (!subject.is_peer(subjects) ||
            subject.zone() == last) // held twice: a zone that is asked again says the same
            continue;
        last = subject.zone();
        if (!is_target(last))
            continue;
        const zone &holder = state.model->zones()[last];
        if (is_denied(holder))
            return 0;
        if (!sched)
            return 1;
        *sched = holder.scheduled_access;
        if (*sched)
            return 1;
        result = 1;
    }
    return result;
}

/// Says, zone by zone in file order, whether one of the places is there and fits.
auto any_of(std::span<const place> places, bool (place::*fits)(directions) const)
{
    return [=](uint32_t zone) mutable {
        const auto there = std::ranges::lower_bound(places, zone, {}, &place::zone);
        places = {there, places.end()};
        for (; !places.empty() && places.front().zone() == zone; places = places.subspan(1)) {
            if ((places.front().*fits)(reachable))
                return true;
        }
        return false;
    };
}

/// For each direction that can be asked for, the directions of the peer and of what is listed.
constexpr struct {
    directions subject, listed;
} list_directions[] = {{reachable, subjects}, {subjects, reachable}, {all_directions, all_directions}};

using member_list = std::unique_ptr<zone_member *, released_by<::free>>;

/// Calls use with each member to be listed, in order.
template <typename Use> void for_each_listed(const char *common_name, int direction, Use &&use)
{
    const auto [subject, listed] = list_directions[direction];
    const int type = vpn_type_get_by_common_name(common_name);
    uint32_t barren = place::max_zones; // has nothing to list, however often it holds the peer
    for (const place &peer : state.model->places_of(common_name)) {
        if (!peer.is_peer(subject) || peer.zone() == barren)
            continue;
        barren = peer.zone();
        const bool is_denying = denies(state.model->zones()[peer.zone()], type, type);
        for (zone_member &member : state.model->members_of(peer.zone())) {
            if (has(listed, member.direction) && !(is_denying && member.type == ZONE_MEMBER_SERIALIZATION &&
                                                   vpn_type_get_by_common_name(member.start.name) == type)) {
                barren = place::max_zones;
                use(member);
            }
        }
    }
}

/// Runs the script for one zone. A zone whose script cannot be started is open.
uint8_t ask_schedule(int32_t id)
{
    char command[command_size];
    std::snprintf(command, sizeof command, schedule_command_format, zones_file, id);
    shell_command running{command};
    if (!running.has_started()) {
        log_error("ERROR: cannot popen schedule check command");
        return 1;
    }
    char answer[answer_length + 1] = {};
    running.read(answer, answer_length);
    return safestrncmp(answer, "true", 4) == 0 ? 1 : 0;
}

} // namespace

int zones_load(void)
{
    if (!file_exists(zones_file)) {
        log_warning("zones.json is missing");
        return 0;
    }
    constexpr int out_of_memory = -1;
    const int result = guarded(out_of_memory, load);
    if (result == out_of_memory)
        zones_free();
    return result == 1 ? 1 : 0;
}

void zones_free(void)
{
    state.model.reset();
}

int zones_is_ip_allowed_sched(const char *common_name, uint32_t ip, uint8_t *sched)
{
    if (!reload_if_changed())
        return 0;
    return is_allowed(
        common_name, sched, [=](uint32_t zone) { return state.model->reaches_ip(zone, ip); }, never_denied);
}

int zones_is_ip_allowed(const char *common_name, uint32_t ip)
{
    return zones_is_ip_allowed_sched(common_name, ip, nullptr);
}

int zones_is_port_allowed_sched(const char *common_name, const char *port, uint8_t *sched)
{
    if (!reload_if_changed())
        return 0;
    return is_allowed(common_name, sched, any_of(state.model->places_of(port), &place::is_port), never_denied);
}

int zones_is_port_allowed(const char *common_name, const char *port)
{
    return zones_is_port_allowed_sched(common_name, port, nullptr);
}

int zones_is_mac_allowed_sched(const char *common_name, const uint8_t *mac, uint8_t *sched)
{
    if (!reload_if_changed())
        return 0;
    const uint64_t value = mac ? mac_bytes_to_long(mac) : UINT64_MAX; // none is in no range
    return is_allowed(
        common_name, sched, [=](uint32_t zone) { return state.model->reaches_mac(zone, value); }, never_denied);
}

int zones_is_mac_allowed(const char *common_name, const uint8_t *mac)
{
    return zones_is_mac_allowed_sched(common_name, mac, nullptr);
}

int zones_is_device_allowed_sched(const char *common_name, const char *other, uint8_t *sched)
{
    if (!reload_if_changed())
        return 0;
    if (safestrcmp(common_name, other) == 0)
        log_warning("common names were equal: %s", common_name ? common_name : "(null)");
    const auto is_denied = [=](const zone &holder) {
        return (holder.deny_between_keys || holder.deny_between_locks) &&
               denies(holder, vpn_type_get_by_common_name(common_name), vpn_type_get_by_common_name(other));
    };
    return is_allowed(common_name, sched, any_of(state.model->places_of_cut(other), &place::is_peer), is_denied);
}

int zones_is_device_allowed(const char *common_name, const char *other)
{
    return zones_is_device_allowed_sched(common_name, other, nullptr);
}

int zones_get_client_options(char *bridge, const char *common_name)
{
    if (!bridge || !common_name) {
        log_error("Missing arguments");
        return 0;
    }
    if (!reload_if_changed())
        return 0;
    for (const place &peer : state.model->places_of(common_name)) {
        const zone_member *port = peer.is_peer(all_directions) ? state.model->first_port_of(peer.zone()) : nullptr;
        if (port) {
            strlcpy(bridge, port->start.name, port_name_length + 1);
            return 1;
        }
    }
    log_warning("No bridge found for %s", common_name);
    return 0;
}

int zones_get_allowed_members(zone_member ***members, uint32_t *count, const char *common_name, int direction)
{
    if (!members || !count || !common_name) {
        log_error("Missing arguments");
        return 0;
    }
    if (direction < ZONE_DIRECTION_IN || direction > ZONE_DIRECTION_BOTH) {
        log_error("Invalid direction value");
        return 0;
    }
    if (!reload_if_changed())
        return 0;

    uint64_t listed = 0;
    for_each_listed(common_name, direction, [&](zone_member &) { ++listed; });
    if (listed > std::min<uint64_t>(UINT32_MAX, PTRDIFF_MAX / sizeof(zone_member *)))
        return 0;
    // at least one, so that an empty list is a list too
    const std::size_t size = static_cast<std::size_t>(std::max<uint64_t>(listed, 1)) * sizeof(zone_member *);
    auto **list = static_cast<zone_member **>(std::malloc(size));
    if (!list)
        return 0;
    *members = list;
    *count = static_cast<uint32_t>(listed);
    for_each_listed(common_name, direction, [&](zone_member &member) { *list++ = &member; });
    return 1;
}

int zones_ip_netmask_to_range(zone_member *out, const zone_member *in)
{
    if (!out || !in) {
        log_error("Missing arguments");
        return 0;
    }
    const uint32_t netmask = without_gaps(in->end.ip);
    const uint32_t network = in->start.ip & netmask;
    out->type = ZONE_MEMBER_IP_RANGE;
    out->start.ip = network;
    out->end.ip = ip_last_ip_from_netmask(network, netmask);
    return 1;
}

int zones_update_schedule_access(void)
{
    if (!reload_if_changed())
        return 0;
    int last = 1;
    for (zone &holder : state.model->zones()) {
        holder.scheduled_access = ask_schedule(holder.id);
        last = holder.scheduled_access;
    }
    return last;
}
