#include "scenarios.hpp"

#include "files.hpp"
#include "inject.hpp"
#include "zone_generator.hpp"

#include "daemon_tools.h"
#include "ip_calculation.h"
#include "ipc.h"
#include "logging.h"
#include "netinfo.h"
#include "netmap.h"
#include "netutil.h"
#include "uciconfig.h"
#include "ucistate.h"
#include "util.h"
#include "vpnstate.h"
#include "zones.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include <event2/event.h>
#include <json-c/json.h>
#include <uci.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

// Files, packages and connections, for each call anew.

constexpr char vandrel_package[] = "/etc/config/vandrel";
constexpr char vandrel_text[] = R"(config settings settings
 option lan_networks 'br-lan lo'
 option name old
 list servers one
 list servers two
)";
constexpr char network_text[] = R"(config interface lan
 option type bridge
 option ifname 'eth0.1 eth1'
 option ipaddr 192.168.1.1
 option netmask 255.255.255.0
 option netmap 1
 option netmapaddr 10.0.5.0
)";
constexpr char peer_text[] = R"({"state": 1, "dev": "tun0", "proto": "udp", "remote_ip": "192.0.2.9",
"remote_port": 1194, "common_name": "token-A", "relay_uuid": "x", "management_path": "/tmp/m", "tun_my_ip": "10.8.0.1"})";
constexpr char zone_file[] = "/etc/vandrel/zones.json";
constexpr char state_changes[] = "/var/state/vandrel";

void write_files()
{
    for (const char *script : {"check_zone_scheduled_access", "vd_features"})
        write_script(std::string{"/usr/share/vandrel/"} + script + ".lua", "#!/bin/sh\necho true\n");
    write_file("/var/run/vandrel/vpnstate/token-A.json", peer_text);
    write_file("/var/run/vandrel/vpnstate/vd-vpnserver-b.json", "{\"state\": 0}");
    write_file("/etc/config/network", network_text);
    write_file(vandrel_package, vandrel_text);
    unlink("/tmp/.uci/vandrel");
    unlink(state_changes);
}

// Whoever loses a deny flag of the file, "disabled" or a netmask, or keeps what was loaded before, lets somebody in.
const generated_zones written = generate_zones({.seed = 98, .zones = 6, .members = 12});

/// A file by which everybody reaches all others and all addresses.
std::string wide_open()
{
    std::string members =
        R"("all": {"type": "whitelisted_ip", "direction": "out", "address_start": "0.0.0.0", "netmask": "0.0.0.0"})";
    for (const std::string &name : written.names)
        members += ", \"" + name + R"(": {"type": "serialization", "direction": "both"})";
    return R"({"zone_configuration": {"zones": {"1": {"members": {)" + members + "}}}}}";
}

void write_zones()
{
    write_file(zone_file, wide_open());
    fs::last_write_time(zone_file, fs::file_time_type::clock::now() - std::chrono::hours{1});
    zones_load();
    write_file(zone_file, written.text);
}

struct {
    uci_context *ctx;
    uci_package *package;
    uci_section *section;
} settings, state;

event_base *base;
int server = -1, client = -1;
int received;

void count_message(int, const char *type, json_object *)
{
    received += type[0] == 'p';
}

void turn_loop()
{
    for (int i = 0; i < 6; ++i)
        event_base_loop(base, EVLOOP_NONBLOCK);
}

json_object *message()
{
    static json_object *const made = json_tokener_parse(
        R"({"type": "ping", "data": {"text": "some text that is longer than a small string", "list": [1, 2.5]}})");
    return made;
}

void open_bus()
{
    if (!base)
        base = event_base_new();
    server = ipc_server_new("faults", base, count_message);
    client = ipc_client_new("faults", base, count_message);
    turn_loop();
    ipc_server_add_subscriber("ping", client);
    json_object_to_json_string(message()); // keeps its text
    received = 0;
}

// Calls, and what they gave.

/// A new text.
outcome text(char *text)
{
    const outcome got = say("%s", text ? text : "none");
    free(text);
    return got;
}

/// What a call writes into a buffer.
template <auto Call> outcome filled()
{
    char buffer[32] = "as it was";
    const int result = Call(buffer);
    return say("%d %s", result, buffer);
}

/// One digit an answer: all that the file allows, and all that a lost key would allow.
outcome ask_everything()
{
    outcome answers{};
    char *end = answers.text;
    const auto note = [&](int answer) { *end++ = static_cast<char>('0' + answer); };
    for (const std::string &name : written.names) {
        for (const std::string &other : written.names) {
            if (name != other)
                note(zones_is_device_allowed(name.c_str(), other.c_str()));
            note(zones_is_port_allowed(name.c_str(), other.c_str()));
        }
        for (uint8_t i = 0; i < 12; ++i) {
            const uint8_t mac[] = {0xff, 0, 0, 0, 0, i};
            note(zones_is_ip_allowed(name.c_str(), 0x0A000000U + i));
            note(zones_is_mac_allowed(name.c_str(), mac));
        }
    }
    return answers;
}

/// The result of a call, then all answers.
outcome asked(int result)
{
    return say("%d%s", result, ask_everything().text);
}

outcome list_members()
{
    zone_member **members = nullptr;
    uint32_t count = 77;
    const int listed = zones_get_allowed_members(&members, &count, "vd-vpnclient-b", ZONE_DIRECTION_BOTH);
    free(members);
    return say("%d %u", listed, count);
}

outcome load_peer()
{
    vpn_state *it = vpnstate_load("token-A");
    const outcome got = it ? say("%d %s %s %s %d %s %s %s %x", it->state, it->dev, it->proto, it->remote_ip,
                                 it->remote_port, it->common_name, it->relay_uuid, it->management_path, it->tun_my_ip)
                           : say("none");
    vpn_free(it);
    return got;
}

outcome visit_peers()
{
    static int visited;
    visited = 0;
    const int result = vpnstate_foreach_cn([](const char *) { return ++visited, 0; });
    return say("%d %d", result, visited);
}

template <auto Load> outcome loaded()
{
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    const int result = Load(&ctx, &package, &section);
    const outcome got = say("%d %d%d%d", result, ctx != nullptr, package != nullptr, section != nullptr);
    if (ctx)
        uci_free_context(ctx);
    return got;
}

/// The result of a call that commits, and what the package file says of the name now.
outcome committed(int result)
{
    inject::armed.left = 0;
    const std::string text = read_file(vandrel_package);
    const auto has = [&](const char *part) { return text.find(part) != text.npos; };
    const bool is_whole = has("lan_networks") && has("'two'");
    return say("%d %s", result,
               text == vandrel_text       ? "old"
               : !is_whole                ? "torn"
               : has("option name 'new'") ? "new"
               : has("option name")       ? "old"
                                          : "deleted");
}

outcome save_state()
{
    const int set = state_set_option(state.section, "name", "%s", "new");
    const int saved = set == 0 ? uci_save(state.ctx, state.package) : -1;
    inject::armed.left = 0;
    const std::string text = read_file(state_changes);
    return say("%d %d %s", set, saved, text == "vandrel.settings.name='new'\n" ? "new" : text.empty() ? "old" : "torn");
}

outcome list_lans()
{
    netinfo_lan *lans = nullptr;
    int count = -1;
    const int result = netinfo_get_lans(&lans, &count);
    const outcome got = say("%d %d %s", result, count, lans ? lans[0].name : "");
    free(lans);
    return got;
}

outcome load_map()
{
    netmap_entry *table = netmap_load();
    const outcome got = say("%x", table ? netmap_translate(table, 0xC0A80105) : 0);
    free(table);
    return got;
}

/// A frame that was queued arrives, or the connection has ended, or the message was dropped: it is never another one.
/// What the loop does with it, it does within the fault too.
outcome sent(int result)
{
    turn_loop();
    return say("%d %d", result, received);
}

outcome opened(int fd)
{
    turn_loop();
    if (fd >= 0)
        ipc_close(fd);
    turn_loop();
    return say("%s", fd >= 0 ? "open" : "none");
}

uint32_t gateway;
constexpr char long_type[] = "a type that is longer than a small string";

outcome add_subscriber()
{
    const int result = ipc_server_add_subscriber(long_type, 7);
    int fds[50];
    return say("%d %d", result, ipc_server_get_subscibers(fds, long_type));
}

outcome register_callback()
{
    ipc_register_callback(long_type, count_message);
    ipc_deregister_callback(long_type);
    return say("registered");
}

outcome open_log()
{
    logging_ctx *ctx = vd_logging_initialize("second", 0);
    const outcome got = say("%s", !ctx ? "none" : ctx->event_ctx ? "open" : "without a context");
    vd_logging_close(&ctx);
    return got;
}

outcome read_all()
{
    char *text = nullptr;
    const long size = file_read_all(&text, vandrel_package);
    const outcome got = say("%ld %.6s", size, text ? text : "none");
    free(text);
    return got;
}

const scenario all[] = {
    {"vd_logging_initialize", open_log, "none|without a context"},
    {"vd_logging_log", [] { return say("%d", vd_logging_log(libvandrel_logcontext, 4, "f.c", 7, 2, "%d", 1) >= 0); },
     "0"},
    {"safedup", [] { return text(safedup("text")); }, "none"},
    {"memdup", [] { return text(static_cast<char *>(memdup("text", 5))); }, "none"},
    {"vd_run_command_simple", filled<[](char *to) { return vd_run_command_simple("echo hi", to, 16); }>, "16 "},
    {"file_read_all", read_all, "-1 none"},
    {"file_read", filled<[](char *to) { return file_read(vandrel_package, to, 32, 1); }>, "0 as it was"},
    {"extract_cn_from_path", filled<[](char *to) { return extract_cn_from_path("/etc/token-A.crt", to); }>, "-1 "},
    {"vd_set_process_uid_and_gid_by_names",
     [] { return say("%d", vd_set_process_uid_and_gid_by_names("root", "root", false)); }, "-5|-8|-9"},

    {"zones_load", [] { return asked(zones_load()); }, nullptr, true},
    {"zones_update_schedule_access", [] { return asked(zones_update_schedule_access()); }, nullptr, true},
    {"zones_get_allowed_members", list_members, "0 77"},
    {"zones_get_client_options", filled<[](char *to) { return zones_get_client_options(to, "vd-vpnclient-b"); }>,
     "0 as it was"},

    {"vpnstate_load", load_peer, "none", true},
    {"vpnstate_get_common_name", filled<[](char *to) { return vpnstate_get_common_name(to, "tun0"); }>,
     "1 as it was|-1 as it was"},
    {"vpnstate_is_any_active", [] { return say("%d", vpnstate_is_any_active()); }, "0"},
    {"vpnstate_foreach_cn", visit_peers, "-1 0|-1 1"},

    {"config_lookup", [] { return text(config_lookup("vandrel.settings.%s", "servers")); }, "none"},
    {"config_get_setting", [] { return text(config_get_setting("name")); }, "none"},
    {"config_get_section_setting", [] { return text(config_get_section_setting("network", "lan", "ipaddr")); }, "none"},
    {"config_get_setting_bool", [] { return say("%d", config_get_setting_bool("name")); }, "0|-1"},
    {"config_load", loaded<config_load>, "-1 000"},
    {"config_load_network",
     loaded<[](auto ctx, auto package, auto at) { return config_load_network(ctx, package, "lan", at); }>, "-1 000"},
    {"state_load_vandrel", loaded<[](auto ctx, auto package, auto) { return state_load_vandrel(ctx, package); }>,
     "-1 000", true},
    {"state_load_network", loaded<[](auto ctx, auto package, auto) { return state_load_network(ctx, package); }>,
     "-1 000"},
    {"state_lookup", [] { return text(state_lookup("vandrel.settings.name")); }, "none"},
    {"state_set_option", save_state, "1 -1 old|0 1 old|0 4 old", true},
    {"config_set_string",
     [] { return committed(config_set_string(settings.ctx, settings.package, settings.section, "name", "new", true)); },
     "1 old|1 new"},
    {"uci_set_section_option",
     [] {
         return say("%d", uci_set_section_option(settings.ctx, settings.package, "settings", "name", "old", "added",
                                                 "x", false));
     },
     "1"},
    {"uci_delete_option", [] { return say("%d", uci_delete_option(settings.section, "name", true)); }, "-1"},
    {"config_add_section",
     [] { return say("%d", config_add_section(settings.ctx, settings.package, "peer", "p1") != nullptr); }, "0"},
    {"ucierr", [] { return ucierr(settings.ctx, "text %d", 1), say("reported"); }, ""},
    {"config_set_vandrel_setting_string", [] { return committed(config_set_vandrel_setting_string("name", "new")); },
     "1 old|1 new", true, 2},
    {"config_set_section_setting_string",
     [] { return committed(config_set_section_setting_string("vandrel", nullptr, "name", nullptr)); },
     "1 old|1 deleted", true, 2},
    {"config_get_feature_string",
     filled<[](char *to) { return config_get_feature_string(to, 16, "remote", "system"); }>, "16 "},
    {"config_get_feature_bool", [] { return say("%d", config_get_feature_bool("remote", nullptr)); }, "0"},

    {"netinfo_get_lans", list_lans, "0 -1 "},
    {"netmap_load", load_map, "0"},
    {"netinfo_get_default_route", filled<[](char *to) { return netinfo_get_default_route(to, &gateway); }>, "0"},

    {"ipc_server_new", [] { return opened(ipc_server_new("another", base, count_message)); }, "none"},
    {"ipc_client_new", [] { return opened(ipc_client_new("faults", base, count_message)); }, "none"},
    {"ipc_write", [] { return sent(ipc_write(client, message())); }, "-1 0|0 0"},
    {"ipc_server_write_to_subscribers", [] { return sent(ipc_server_write_to_subscribers("ping", message())); },
     "1 0|0 0"},
    {"ipc_server_add_subscriber", add_subscriber, "-1 0"},
    {"ipc_register_callback", register_callback, ""},
};

} // namespace

outcome say(const char *format, ...)
{
    outcome said{};
    va_list args;
    va_start(args, format);
    std::vsnprintf(said.text, sizeof said.text, format, args);
    va_end(args);
    return said;
}

const std::span<const scenario> scenarios = all;

void prepare()
{
    release();
    write_files();
    write_zones();
    config_load(&settings.ctx, &settings.package, &settings.section);
    state_load_vandrel(&state.ctx, &state.package);
    state.section = uci_lookup_section(state.ctx, state.package, "settings");
    open_bus();
}

void release()
{
    if (!settings.ctx)
        return;
    uci_free_context(std::exchange(settings.ctx, nullptr));
    uci_free_context(state.ctx);
    zones_free();
    ipc_server_remove_all_subscribers(-1);
    ipc_close(client);
    ipc_close(server);
    turn_loop(); // the other end of the connection notices
}
