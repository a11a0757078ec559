// vpn: the peers' state files, as the library reads them.
#include "command.hpp"
#include "handles.hpp"

#include "ip_calculation.h"
#include "util.h"
#include "vpnstate.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace vdctl {

int vpn(const invocation &given);

namespace {

constexpr char directory[] = "/var/run/vandrel/vpnstate/";
constexpr std::size_t longest_name = 26; // a longer one could lead to another peer's file

using state_handle = std::unique_ptr<vpn_state, released_by<::vpn_free>>;

struct peer_state {
    std::string name;
    time_t written;     // -1: no file
    state_handle state; // null: not to be read, or its name is too long
};

peer_state load(const char *name)
{
    const std::string path = std::string{directory}.append(name).append(".json");
    const bool may_load = std::strlen(name) <= longest_name;
    return {name, file_get_mtime(path.c_str()), state_handle{may_load ? vpnstate_load(name) : nullptr}};
}

std::vector<peer_state> load_all()
{
    static std::vector<std::string> names; // the callback has no argument of its own
    names.clear();
    const int walked = vpnstate_foreach_cn([](const char *name) {
        names.emplace_back(name);
        return 0;
    });
    if (walked != 0 && file_exists(directory))
        throw failure{"cannot read /var/run/vandrel/vpnstate"};
    std::ranges::sort(names);
    std::vector<peer_state> peers;
    peers.reserve(names.size());
    for (const std::string &name : names)
        peers.push_back(load(name.c_str()));
    return peers;
}

text role_of(const std::string &name)
{
    switch (vpn_type_get_by_common_name(name.c_str())) {
    case PEER_TYPE_TOKEN:
        return "key";
    case PEER_TYPE_VPNSERVER:
        return "server";
    case PEER_TYPE_VPNCLIENT:
        return "client";
    default:
        return "";
    }
}

text number(int32_t value)
{
    return value == -1 ? text{} : text{value};
}

text string(const char *value)
{
    return value ? text::of(value) : text{};
}

text address(uint32_t ip)
{
    return ip == 0 ? text{} : text::of(ip_format_s(ip));
}

text flag(int32_t value)
{
    return value == -1 ? "" : value == 0 ? "no" : text{"yes"};
}

text age(time_t written)
{
    if (written < 0)
        return "";
    const time_t seconds = std::time(nullptr) - written;
    if (seconds < 0)
        return "in the future";
    if (seconds < 60)
        return text{seconds} + " s ago";
    if (seconds < 3600)
        return text{seconds / 60} + " min ago";
    return seconds < 86400 ? text{seconds / 3600} + " h ago" : text{seconds / 86400} + " d ago";
}

text remote(const vpn_state &state)
{
    if (!state.remote_ip)
        return "";
    return string(state.remote_ip) + (state.remote_port > 0 ? ":" + text{state.remote_port} : text{});
}

const char *fault_of(const peer_state &peer)
{
    return peer.name.size() > longest_name ? "its name is over 26 characters" : "its file cannot be read";
}

/// The record's fields in its order, for the text and the JSON of one peer.
template <typename Number, typename Flag, typename String, typename Address>
void for_each_field(const vpn_state &s, Number &&number_of, Flag &&flag_of, String &&string_of, Address &&address_of)
{
    number_of("state", s.state);
    number_of("connection_id", s.connection_id);
    number_of("vpn_client_id", s.vpn_client_id);
    number_of("vpn_server_id", s.vpn_server_id);
    string_of("proto", s.proto);
    string_of("remote_ip", s.remote_ip);
    number_of("local_port", s.local_port);
    number_of("remote_port", s.remote_port);
    number_of("management_port", s.management_port);
    string_of("management_path", s.management_path);
    number_of("openvpn_pid", s.openvpn_pid);
    flag_of("relayed", s.relayed);
    string_of("relay_uuid", s.relay_uuid);
    string_of("dev", s.dev);
    string_of("common_name", s.common_name);
    string_of("connection_common_name", s.connection_common_name);
    flag_of("offline_connection", s.offline_connection);
    number_of("firewall", s.firewall);
    number_of("connection_type", s.connection_type);
    number_of("peer_type", s.peer_type);
    address_of("tun_server_ip", s.tun_server_ip);
    address_of("tun_client_ip", s.tun_client_ip);
    address_of("tun_my_ip", s.tun_my_ip);
    address_of("tun_peer_ip", s.tun_peer_ip);
    address_of("peer_virtual_ip", s.peer_virtual_ip);
    address_of("peer_public_ip", s.peer_public_ip);
}

json_object *json_of(const peer_state &peer)
{
    json_object *object = json_object_new_object();
    const text role = role_of(peer.name);
    json_object_object_add(object, "peer", new_string(peer.name));
    json_object_object_add(object, "role", role.empty() ? nullptr : new_string(role.str()));
    json_object_object_add(object, "written", peer.written < 0 ? nullptr : json_object_new_int64(peer.written));
    json_object_object_add(object, "fault", peer.state ? nullptr : json_object_new_string(fault_of(peer)));
    const vpn_state none{};
    const auto add = [&](const char *key, json_object *value) {
        const json_handle owner{peer.state ? nullptr : value};
        json_object_object_add(object, key, owner ? nullptr : value);
    };
    for_each_field(
        peer.state ? *peer.state : none,
        [&](const char *key, int32_t v) { add(key, v == -1 ? nullptr : json_object_new_int(v)); },
        [&](const char *key, int32_t v) { add(key, v == -1 ? nullptr : json_object_new_boolean(v != 0)); },
        [&](const char *key, const char *v) { add(key, v ? new_string(v) : nullptr); },
        [&](const char *key, uint32_t v) { add(key, v == 0 ? nullptr : json_object_new_string(ip_format_s(v))); });
    return object;
}

void print_json_of(const std::vector<peer_state> &peers)
{
    json_object *list = json_object_new_array();
    for (const peer_state &peer : peers)
        json_object_array_add(list, json_of(peer));
    json_object *object = json_object_new_object();
    json_object_object_add(object, "peers", list);
    print_json(object);
}

void print_table(const std::vector<peer_state> &peers)
{
    table rows{{"PEER", "ROLE", "STATE", "DEV", "TUNNEL", "REMOTE", "RELAYED", "WRITTEN"}};
    for (const peer_state &peer : peers) {
        if (const vpn_state *s = peer.state.get()) {
            rows.add({text::of(peer.name), role_of(peer.name), number(s->state), string(s->dev), address(s->tun_my_ip),
                      remote(*s), flag(s->relayed), age(peer.written)});
        } else {
            rows.add({text::of(peer.name), role_of(peer.name), text{}, text{}, text{}, text::of(fault_of(peer)), text{},
                      age(peer.written)});
        }
    }
    rows.print();
}

void print_fields(const peer_state &peer)
{
    table rows{{}};
    const auto add = [&](const char *key, const text &value) {
        rows.add({text::of(key), value.empty() ? text{"-"} : value});
    };
    add("peer", text::of(peer.name));
    add("role", role_of(peer.name));
    add("written", age(peer.written));
    for_each_field(
        *peer.state, [&](const char *key, int32_t v) { add(key, number(v)); },
        [&](const char *key, int32_t v) { add(key, flag(v)); },
        [&](const char *key, const char *v) { add(key, string(v)); },
        [&](const char *key, uint32_t v) { add(key, address(v)); });
    rows.print();
}

int show_one(const char *name)
{
    std::vector<peer_state> peers;
    peers.push_back(load(name));
    const peer_state &peer = peers.front();
    if (peer.name.size() <= longest_name && peer.written < 0)
        throw failure{"no state file of " + quoted(name)};
    if (!peer.state)
        throw failure{quoted(name) + ": " + text::of(fault_of(peer))};
    if (style().json)
        print_json_of(peers);
    else
        print_fields(peer);
    return peer.state->dev ? status_yes : status_no;
}

} // namespace

int vpn(const invocation &given)
{
    if (!given.words.empty())
        return show_one(given.words[0]);
    const std::vector<peer_state> peers = load_all();
    if (style().json)
        print_json_of(peers);
    else
        print_table(peers);
    for (const peer_state &peer : peers) {
        if (peer.state && peer.state->dev)
            return status_yes;
    }
    return status_no;
}

} // namespace vdctl
