#include "scenarios.hpp"

#include "files.hpp"

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

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <event2/event.h>
#include <json-c/json.h>
#include <uci.h>
#include <unistd.h>

namespace {

// The files.

constexpr char zone_file[] = "/etc/vandrel/zones.json";
constexpr char vandrel_package[] = "/etc/config/vandrel";
constexpr char state_changes[] = "/var/state/vandrel";

// Whoever loses a key of this file lets somebody in: "disabled", a netmask, an end, a deny flag.
constexpr char zones_text[] = R"({"version": 3, "zone_configuration": {"zones": {
"1": {"deny_between_keys": true, "members": {
    "token-A": {"type": "serialization", "direction": "in"},
    "token-B": {"type": "serialization", "direction": "both"},
    "token-C": {"type": "serialization", "direction": "both", "disabled": true},
    "lan1": {"type": "port", "direction": "out"},
    "lan2": {"type": "port", "direction": "out", "disabled": true},
    "office": {"type": "whitelisted_ip", "address_start": "10.1.0.0", "netmask": "16", "direction": "out"},
    "printers": {"type": "whitelisted_ip", "address_start": "192.168.1.10", "address_end": "192.168.1.20", "direction": "out"},
    "one": {"type": "whitelisted_ip", "address_start": "172.16.0.1", "direction": "out"},
    "cameras": {"type": "whitelisted_mac", "address_start": "00:11:22:33:44:00", "address_end": "00:11:22:33:44:ff", "direction": "out"}}},
"2": {"disabled": true, "members": {
    "token-A": {"type": "serialization", "direction": "in"},
    "all": {"type": "whitelisted_ip", "address_start": "0.0.0.0", "netmask": "0.0.0.0", "direction": "out"}}},
"3": {"deny_between_locks": true, "members": {
    "vd-vpnserver-x": {"type": "serialization", "direction": "both"},
    "vd-vpnserver-y": {"type": "serialization", "direction": "both"},
    "lan3": {"type": "port", "direction": "out"}}}}}})";

constexpr char network_text[] = R"(config interface lan
 option type bridge
 option ifname 'eth0.1 eth1'
 option ipaddr 192.168.1.1
 option netmask 255.255.255.0
 option netmap 1
 option netmapaddr 10.0.5.0
config interface wan
 option proto dhcp
config interface guest
 option type bridge
 option ipaddr 192.168.2.1
 option netmask 255.255.255.0
)";

constexpr char vandrel_text[] = R"(config settings settings
 option lan_networks 'br-lan lo'
 option name old
 list servers one
 list servers two
)";

constexpr char peer_text[] =
    R"({"state": 1, "dev": "tun0", "proto": "udp", "remote_ip": "192.0.2.9", "remote_port": 1194,
"common_name": "token-A", "relay_uuid": "x", "management_path": "/tmp/m", "tun_my_ip": "10.8.0.1"})";

void write_zones()
{
    zones_free();
    write_file(zone_file, zones_text);
    write_file("/usr/share/vandrel/check_zone_scheduled_access.lua", "#!/bin/sh\necho true\n", 0755);
}

void write_peers()
{
    write_file("/var/run/vandrel/vpnstate/token-A.json", peer_text);
    write_file("/var/run/vandrel/vpnstate/vd-vpnserver-b.json", "{\"state\": 0}");
}

void write_configuration()
{
    write_file(vandrel_package, vandrel_text);
    write_file("/etc/config/network", network_text);
    remove_file("/tmp/.uci/vandrel");
    remove_file(state_changes);
    write_file("/usr/share/vandrel/vd_features.lua", "#!/bin/sh\necho true\n", 0755);
}

void nothing() {}

// Zones.

/// One digit an answer: all that the file allows, and all that a lost key would allow.
outcome ask_everything()
{
    static const uint8_t camera[] = {0, 0x11, 0x22, 0x33, 0x44, 0x7f}, other[] = {0, 0x11, 0x22, 0x33, 0x45, 0};
    outcome answers{};
    char *end = answers.text;
    const auto note = [&](int answer) { *end++ = static_cast<char>('0' + answer); };
    for (const char *ip : {"10.1.200.3", "10.2.0.1", "192.168.1.20", "192.168.1.21", "192.168.2.1", "172.16.0.1",
                           "172.16.0.2", "255.255.255.254", "0.0.0.1"})
        note(zones_is_ip_allowed("token-A", ip_parse(ip)));
    for (const char *port : {"lan1", "lan2", "lan3"})
        note(zones_is_port_allowed("token-A", port));
    for (const uint8_t *mac : {camera, other})
        note(zones_is_mac_allowed("token-A", mac));
    for (const char *peer : {"token-B", "token-C"})
        note(zones_is_device_allowed("token-A", peer));
    note(zones_is_device_allowed("vd-vpnserver-x", "vd-vpnserver-y"));
    note(zones_is_port_allowed("token-C", "lan1"));
    note(zones_is_port_allowed("vd-vpnserver-x", "lan3"));
    return answers;
}

outcome load_and_ask()
{
    const int loaded = zones_load();
    outcome answers = ask_everything();
    answers.text[std::strlen(answers.text)] = static_cast<char>('0' + loaded);
    return answers;
}

outcome list_members()
{
    zone_member **members = nullptr;
    uint32_t count = 77;
    const int listed = zones_get_allowed_members(&members, &count, "token-A", ZONE_DIRECTION_OUT);
    free(members);
    return say("%d %u", listed, count);
}

outcome client_options()
{
    char bridge[14] = "none";
    const int found = zones_get_client_options(bridge, "token-A");
    return say("%d %s", found, bridge);
}

outcome update_schedules()
{
    const int updated = zones_update_schedule_access();
    uint8_t sched = 7;
    const int allowed = zones_is_port_allowed_sched("token-A", "lan1", &sched);
    return say("%d%d%d", updated, allowed, sched == 1);
}

// VPN state.

outcome load_peer()
{
    vpn_state *peer = vpnstate_load("token-A");
    const outcome got =
        peer ? say("%d %s %s %s %d %s %s %s %x", peer->state, peer->dev, peer->proto, peer->remote_ip,
                   peer->remote_port, peer->common_name, peer->relay_uuid, peer->management_path, peer->tun_my_ip)
             : say("none");
    vpn_free(peer);
    return got;
}

outcome peer_of_device()
{
    char common_name[27] = "";
    const int result = vpnstate_get_common_name(common_name, "tun0");
    return say("%d %s", result, result == 0 ? common_name : "");
}

outcome any_active()
{
    return say("%d", vpnstate_is_any_active());
}

int visited;

outcome visit_peers()
{
    visited = 0;
    const int result = vpnstate_foreach_cn([](const char *) { return ++visited, 0; });
    return say("%d %d", result, visited);
}

// Configuration.

outcome text_or_none(char *text)
{
    const outcome got = say("%s", text ? text : "none");
    free(text);
    return got;
}

/// What the package says of the name, read without a fault; whether it is whole.
const char *written_name()
{
    const file_text text = read_file(vandrel_package);
    const bool whole = std::strstr(text.bytes, "lan_networks") && std::strstr(text.bytes, "'two'");
    if (std::strcmp(text.bytes, vandrel_text) == 0)
        return "old";
    return !whole                                         ? "torn"
           : std::strstr(text.bytes, "option name 'new'") ? "new"
           : std::strstr(text.bytes, "option name")       ? "old"
                                                          : "deleted";
}

outcome set_name()
{
    const int result = config_set_vandrel_setting_string("name", "new");
    return say("%d %s", result, written_name());
}

outcome delete_name()
{
    const int result = config_set_section_setting_string("vandrel", nullptr, "name", nullptr);
    return say("%d %s", result, written_name());
}

struct loaded {
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    int result = config_load(&ctx, &package, &section);

    loaded() = default;
    loaded(const loaded &) = delete;
    loaded &operator=(const loaded &) = delete;
    ~loaded()
    {
        if (ctx)
            uci_free_context(ctx);
    }
};

outcome load_settings()
{
    const loaded settings;
    return say("%d %d%d%d", settings.result, settings.ctx != nullptr, settings.package != nullptr,
               settings.section != nullptr);
}

outcome load_network()
{
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    const int result = config_load_network(&ctx, &package, "lan", &section);
    const outcome got = say("%d %d%d%d", result, ctx != nullptr, package != nullptr, section != nullptr);
    if (ctx)
        uci_free_context(ctx);
    return got;
}

outcome set_and_commit()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    const int result = config_set_string(settings.ctx, settings.package, settings.section, "name", "new", true);
    return say("%d %s", result, written_name());
}

outcome set_in_memory()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    const int result = config_set_string(settings.ctx, settings.package, settings.section, "name", "new", false);
    const char *value = uci_lookup_option_string(settings.ctx, settings.section, "name");
    return say("%d %s", result, value ? value : "gone");
}

outcome set_in_section()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    return say("%d",
               uci_set_section_option(settings.ctx, settings.package, "settings", "name", "old", "added", "x", false));
}

outcome delete_in_memory()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    return say("%d", uci_delete_option(settings.section, "name", true));
}

outcome add_section()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    return say("%s", config_add_section(settings.ctx, settings.package, "peer", "p1") ? "added" : "none");
}

outcome report_error()
{
    loaded settings;
    if (settings.result != 0)
        return say("not loaded");
    ucierr(settings.ctx, "text %d", 1);
    return say("reported");
}

outcome feature_flag()
{
    return say("%d", config_get_feature_bool("remote", nullptr));
}

outcome feature_text()
{
    char answer[16] = "";
    const int result = config_get_feature_string(answer, sizeof answer, "remote", "system");
    return say("%d %s", result, answer);
}

outcome save_state()
{
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    if (state_load_vandrel(&ctx, &package) != 0)
        return say("not loaded");
    uci_section *section = uci_lookup_section(ctx, package, "settings");
    const int set = state_set_option(section, "name", "%s", "new");
    const int saved = set == 0 ? uci_save(ctx, package) : -1;
    uci_free_context(ctx);
    const file_text text = read_file(state_changes);
    const char *on_disk = std::strcmp(text.bytes, "vandrel.settings.name='new'\n") == 0 ||
                                  std::strcmp(text.bytes, "vandrel.settings.name=new\n") == 0
                              ? "new"
                          : text.bytes[0] == '\0' ? "old"
                                                  : "torn";
    return say("%d %s", set == 0 && saved == 0, on_disk);
}

// Network.

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
    const outcome got = say("%s %x", table ? "table" : "none", table ? netmap_translate(table, 0xC0A80105) : 0);
    free(table);
    return got;
}

outcome mapped_address()
{
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    char buffer[16] = "";
    if (state_load_network(&ctx, &package) != 0)
        return say("not loaded");
    const char *told = get_network_ip(buffer, ctx, uci_lookup_section(ctx, package, "lan"));
    uci_free_context(ctx);
    return say("%s", told ? buffer : "none");
}

outcome port_name()
{
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    char name[14] = "";
    if (config_load_network(&ctx, &package, nullptr, nullptr) != 0)
        return say("not loaded");
    const int result = netutil_ifname_to_portname(name, sizeof name, "eth0.1", package);
    uci_free_context(ctx);
    return say("%d %s", result, name);
}

outcome default_route()
{
    char ifname[17] = "";
    uint32_t gateway = 0;
    return say("%d", netinfo_get_default_route(ifname, &gateway));
}

// Message bus. What the loop does with a message, it does within the fault too.

event_base *base;
int server = -1, client = -1;
int received;

void count_message(int, const char *type, json_object *)
{
    received += type[0] == 'p';
}

void open_base()
{
    if (!base)
        base = event_base_new();
}

void turn_loop()
{
    for (int i = 0; i < 6; ++i)
        event_base_loop(base, EVLOOP_NONBLOCK);
}

void close_bus()
{
    ipc_server_remove_all_subscribers(-1);
    ipc_close(client);
    ipc_close(server);
    turn_loop(); // the other end of the connection notices
}

void open_bus()
{
    open_base();
    close_bus();
    server = ipc_server_new("faults", base, count_message);
    client = ipc_client_new("faults", base, count_message);
    turn_loop();
    received = 0;
}

json_object *message()
{
    static json_object *const made = json_tokener_parse("{\"type\": \"ping\", \"data\": {\"text\": \"some text that is "
                                                        "longer than a small string\", \"list\": [1, 2.5]}}");
    static const char *const text = json_object_to_json_string(made);
    static_cast<void>(text);
    return made;
}

void prepare_message()
{
    open_bus();
    message();
}

/// A frame that was queued arrives, or the connection has ended, or the message was dropped: it is never another one.
outcome send_message()
{
    const int result = ipc_write(client, message());
    turn_loop();
    return say("%d %d", result, received);
}

void subscribe()
{
    prepare_message();
    ipc_server_remove_all_subscribers(-1);
    ipc_server_add_subscriber("ping", client);
}

outcome publish_message()
{
    const int failed = ipc_server_write_to_subscribers("ping", message());
    turn_loop();
    return say("%d %d", failed, received);
}

outcome add_subscriber()
{
    ipc_server_remove_all_subscribers(-1);
    const int result = ipc_server_add_subscriber("a type that is longer than a small string", 7);
    int fds[50];
    const int count = ipc_server_get_subscibers(fds, "a type that is longer than a small string");
    ipc_server_remove_all_subscribers(-1);
    return say("%d %d", result, count);
}

outcome register_callback()
{
    ipc_register_callback("a type that is longer than a small string", count_message);
    ipc_deregister_callback("a type that is longer than a small string");
    return say("registered");
}

outcome open_server()
{
    const int fd = ipc_server_new("another", base, count_message);
    ipc_close(fd);
    return say("%s", fd >= 0 ? "open" : "none");
}

outcome connect_client()
{
    const int fd = ipc_client_new("faults", base, count_message);
    turn_loop();
    if (fd >= 0)
        ipc_close(fd);
    turn_loop();
    return say("%s", fd >= 0 ? "open" : "none");
}

// Foundation.

outcome open_log()
{
    logging_ctx *ctx = vd_logging_initialize("second", 0);
    const outcome got = say("%s", !ctx ? "none" : ctx->event_ctx ? "open" : "without a context");
    vd_logging_close(&ctx);
    return got;
}

outcome log_record()
{
    const int result = vd_logging_log(libvandrel_logcontext, 4, "file.c", 7, 2, "text %d", 1);
    return say("%d", result >= 0);
}

outcome run_command()
{
    char answer[16] = "";
    const int result = vd_run_command_simple("echo hi", answer, sizeof answer);
    return say("%d %s", result, answer);
}

outcome read_all()
{
    char *text = nullptr;
    const long size = file_read_all(&text, vandrel_package);
    const outcome got = say("%ld %.6s", size, text ? text : "none");
    free(text);
    return got;
}

outcome read_line()
{
    char line[32] = "";
    const int size = file_read(vandrel_package, line, sizeof line, 1);
    return say("%d %s", size, line);
}

outcome name_from_path()
{
    char name[27] = "untouched";
    const int result = extract_cn_from_path("/etc/keys/token-A.crt", name);
    return say("%d %s", result, name);
}

outcome change_user()
{
    return say("%d", vd_set_process_uid_and_gid_by_names("root", "root", false));
}

outcome copy_text()
{
    return text_or_none(safedup("text"));
}

outcome copy_block()
{
    return text_or_none(static_cast<char *>(memdup("text", 5)));
}

constexpr auto listed = after_fault::listed;
constexpr auto none_more = after_fault::none_more;

const scenario all[] = {
    {"vd_logging_initialize", nothing, open_log, nothing, listed, {"none", "without a context"}},
    {"vd_logging_log", nothing, log_record, nothing, listed, {"0"}},
    {"safedup", nothing, copy_text, nothing, listed, {"none"}},
    {"memdup", nothing, copy_block, nothing, listed, {"none"}},
    {"vd_run_command_simple", nothing, run_command, nothing, listed, {"16 "}},
    {"file_read_all", write_configuration, read_all, nothing, listed, {"-1 none"}},
    {"file_read", write_configuration, read_line, nothing, listed, {"0 "}},
    {"extract_cn_from_path", nothing, name_from_path, nothing, listed, {"-1 "}},
    {"vd_set_process_uid_and_gid_by_names", nothing, change_user, nothing, listed, {"-5", "-8", "-9"}},
    {"zones_load and all questions", write_zones, load_and_ask, zones_free, none_more, {}, true},
    {"questions that load the file", write_zones, ask_everything, zones_free, none_more, {}, true},
    {"zones_get_allowed_members", write_zones, list_members, zones_free, listed, {"0 77"}},
    {"zones_get_client_options", write_zones, client_options, zones_free, listed, {"0 none"}},
    {"zones_update_schedule_access", write_zones, update_schedules, zones_free, none_more, {}},
    {"vpnstate_load", write_peers, load_peer, nothing, listed, {"none"}, true},
    {"vpnstate_get_common_name", write_peers, peer_of_device, nothing, listed, {"1 ", "-1 "}},
    {"vpnstate_is_any_active", write_peers, any_active, nothing, listed, {"0"}},
    {"vpnstate_foreach_cn", write_peers, visit_peers, nothing, listed, {"-1 0", "-1 1"}},
    {"config_lookup",
     write_configuration,
     [] { return text_or_none(config_lookup("vandrel.settings.%s", "servers")); },
     nothing,
     listed,
     {"none"}},
    {"config_get_setting",
     write_configuration,
     [] { return text_or_none(config_get_setting("name")); },
     nothing,
     listed,
     {"none"}},
    {"config_get_section_setting",
     write_configuration,
     [] { return text_or_none(config_get_section_setting("network", "lan", "ipaddr")); },
     nothing,
     listed,
     {"none"}},
    {"config_get_setting_bool",
     write_configuration,
     [] { return say("%d", config_get_setting_bool("name")); },
     nothing,
     listed,
     {"0", "-1"}},
    {"state_lookup",
     write_configuration,
     [] { return text_or_none(state_lookup("vandrel.settings.name")); },
     nothing,
     listed,
     {"none"}},
    {"config_load", write_configuration, load_settings, nothing, listed, {"-1 000"}},
    {"config_load_network", write_configuration, load_network, nothing, listed, {"-1 000"}},
    {"config_set_string", write_configuration, set_in_memory, nothing, listed, {"not loaded", "1 old"}},
    {"config_set_string, committed",
     write_configuration,
     set_and_commit,
     nothing,
     listed,
     {"not loaded", "1 old", "1 new"}},
    {"uci_set_section_option", write_configuration, set_in_section, nothing, listed, {"not loaded", "1"}},
    {"uci_delete_option", write_configuration, delete_in_memory, nothing, listed, {"not loaded", "-1"}},
    {"config_add_section", write_configuration, add_section, nothing, listed, {"not loaded", "none"}},
    {"ucierr", write_configuration, report_error, nothing, listed, {"not loaded"}},
    {"config_set_vandrel_setting_string", write_configuration, set_name, nothing, listed, {"1 old", "1 new"}, true, 2},
    {"config_set_section_setting_string",
     write_configuration,
     delete_name,
     nothing,
     listed,
     {"1 old", "1 deleted"},
     true,
     2},
    {"config_get_feature_string", write_configuration, feature_text, nothing, listed, {"16 "}},
    {"config_get_feature_bool", write_configuration, feature_flag, nothing, listed, {"0"}},
    {"state_set_option", write_configuration, save_state, nothing, listed, {"not loaded", "0 old", "0 new"}, true},
    {"netinfo_get_lans", write_configuration, list_lans, nothing, listed, {"0 -1 "}},
    {"netmap_load", write_configuration, load_map, nothing, listed, {"none 0"}},
    {"get_network_ip", write_configuration, mapped_address, nothing, listed, {"not loaded", "none"}},
    {"netutil_ifname_to_portname", write_configuration, port_name, nothing, listed, {"not loaded", "0 "}},
    {"netinfo_get_default_route", nothing, default_route, nothing, listed, {"0"}},
    {"ipc_server_new", open_base, open_server, close_bus, listed, {"none"}},
    {"ipc_client_new", open_bus, connect_client, close_bus, listed, {"none"}},
    {"ipc_write", prepare_message, send_message, close_bus, listed, {"-1 0", "0 0"}},
    {"ipc_server_write_to_subscribers", subscribe, publish_message, close_bus, listed, {"1 0", "0 0"}},
    {"ipc_server_add_subscriber", nothing, add_subscriber, nothing, listed, {"-1 0"}},
    {"ipc_register_callback", nothing, register_callback, nothing, listed, {}},
};

bool none_is_more(const char *right, const char *got)
{
    if (std::strlen(right) != std::strlen(got))
        return false;
    for (; *right; ++right, ++got) {
        if (*got > *right)
            return false;
    }
    return true;
}

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

std::span<const scenario> scenarios()
{
    return all;
}

bool is_documented(const scenario &tried, const outcome &right, const outcome &got)
{
    if (right.view() == got.view())
        return true;
    if (tried.check == after_fault::none_more)
        return none_is_more(right.text, got.text);
    return std::ranges::any_of(tried.failures, [&](const char *failure) { return failure && got.view() == failure; });
}
