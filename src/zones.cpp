#include "zones.h"

#include "boundary.hpp"
#include "heap.hpp"
#include "heap_array.hpp"
#include "ip_calculation.h"
#include "log.hpp"
#include "mac.h"
#include "paths.hpp"
#include "shell_command.hpp"
#include "util.h"
#include "zone_file.hpp"
#include "zone_model.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include <sys/stat.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "zones.c";

constexpr std::size_t command_size = 107; // a schedule command and its NUL
constexpr std::size_t answer_length = 31; // what is read of the schedule script's output

struct {
    std::unique_ptr<zone_model> model;
    time_t mtime = 0; // of the file that was loaded last
} state;

/// Says whether the whole file was loaded. Throws when memory runs out.
bool load()
{
    std::optional<zone_file> file = read_zone_file();
    if (!file)
        return false;
    state.mtime = file->mtime;
    if (!file->records)
        return false;
    state.model.reset(); // its memory may be needed for the new one
    state.model = std::make_unique<zone_model>(std::move(*file->records));
    give_memory_back();
    return file->is_complete;
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
            subject.zone_index() == last) // held twice: a zone that is asked again says the same
            continue;
        last = subject.zone_index();
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

/// Says, zone by zone in file order, whether a place in it can be reached as what is_kind asks for.
auto any_of(std::span<const place> places, bool (place::*is_kind)(directions) const)
{
    return [=](uint32_t zone_index) mutable {
        const auto first = std::ranges::lower_bound(places, zone_index, {}, &place::zone_index);
        places = {first, places.end()};
        for (; !places.empty() && places.front().zone_index() == zone_index; places = places.subspan(1)) {
            if ((places.front().*is_kind)(reachable))
                return true;
        }
        return false;
    };
}

/// For each direction that can be asked for, the directions of the peer and of what is listed.
constexpr struct {
    directions subject, listed;
} list_directions[] = {{reachable, subjects}, {subjects, reachable}, {all_directions, all_directions}};

using member_list = heap_array<zone_member *>;
constexpr std::size_t first_list_size = 64;

/// Appends the zone's members of these directions, but for peers of the denied type. False when memory runs out.
bool append_members(member_list &list, uint32_t zone_index, directions listed, int denied_type)
{
    zone_member *member = state.model->members_of(zone_index).data();
    for (const member_kind &kind : state.model->kinds_of(zone_index)) {
        const bool is_denied = denied_type != PEER_TYPE_UNKNOWN && kind.peer_type() == denied_type;
        if (kind.has_direction(listed) && !is_denied && !list.push_back(member))
            return false;
        ++member;
    }
    return true;
}

/// Appends what is related to the peer, in the order of the file. False when memory runs out.
bool append_related(member_list &list, const char *common_name, int direction)
{
    const auto [subject, listed] = list_directions[direction];
    const int type = vpn_type_get_by_common_name(common_name);
    uint32_t empty = place::max_zones; // a zone that has nothing to list, however often it holds the peer
    for (const place &peer : state.model->places_of(common_name)) {
        if (!peer.is_peer(subject) || peer.zone_index() == empty)
            continue;
        const std::size_t size_before = list.size();
        const bool is_denying = denies(state.model->zones()[peer.zone_index()], type, type);
        if (!append_members(list, peer.zone_index(), listed, is_denying ? type : PEER_TYPE_UNKNOWN))
            return false;
        if (list.size() == size_before)
            empty = peer.zone_index();
    }
    return true;
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
    bool is_complete = false;
    const bool has_memory = guarded(false, [&] {
        is_complete = load();
        return true;
    });
    if (!has_memory)
        zones_free();
    return is_complete ? 1 : 0;
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
        common_name, sched, [=](uint32_t zone_index) { return state.model->reaches_ip(zone_index, ip); }, never_denied);
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
        common_name, sched, [=](uint32_t zone_index) { return state.model->reaches_mac(zone_index, value); },
        never_denied);
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
        const zone_member *port =
            peer.is_peer(all_directions) ? state.model->first_port_of(peer.zone_index()) : nullptr;
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

    member_list list{first_list_size};
    if (!append_related(list, common_name, direction) || list.size() > UINT32_MAX)
        return 0;
    const auto listed = static_cast<uint32_t>(list.size());
    if (listed == 0 && !list.push_back(nullptr)) // an empty list is a list too
        return 0;
    *members = list.release();
    *count = listed;
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
