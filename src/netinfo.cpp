#include "netinfo.h"

#include "handles.hpp"
#include "heap_array.hpp"
#include "ip_calculation.h"
#include "loaded_package.hpp"
#include "log.hpp"
#include "netutil.h"
#include "paths.hpp"
#include "sizes.hpp"
#include "uciconfig.h"
#include "util.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <span>
#include <string_view>

#include <endian.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <uci.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "netinfo.c";

constexpr std::size_t net_class_path_size = 32;
constexpr std::size_t max_lan_ifnames = 5;
constexpr const char *default_lan_ifnames[] = {"br-lan", "eth0"};

constexpr int route_table_lines = 6; // the header and five routes
constexpr std::size_t route_line_size = 129;
constexpr char no_address[] = "00000000"; // of a destination or gateway

/// Where netinfo_get_my_lan_ip looks, once lan_networks has given names: they point into its text, which is kept.
/// From then on nothing is written here any more, so the names are read without the lock.
struct {
    std::mutex filling;
    std::array<const char *, max_lan_ifnames> my_lan_ifnames;
    std::size_t count = 0;
} state;

uint32_t address_in(const ifreq &request)
{
    sockaddr_in address;
    static_assert(sizeof address == sizeof request.ifr_addr);
    std::memcpy(&address, &request.ifr_addr, sizeof address);
    return be32toh(address.sin_addr.s_addr);
}

/// The gateway field of a route: the number that the kernel makes of the address's four bytes in memory.
uint32_t parse_gateway(const char *text)
{
    unsigned int number = 0;
    if (std::sscanf(text, "%x", &number) != 1)
        log_warning("parsing gateway failed: %s", text);
    return be32toh(number); // 192.168.1.1 is "0101A8C0" from a little-endian kernel, "C0A80101" from a big-endian one
}

/// Takes a line of the route table apart; true when it is a default route with a gateway, which is then stored.
bool parse_default_route(char *line, char *ifname, uint32_t *gateway)
{
    char *rest = nullptr; // strtok_r skips empty fields, as the table is to be read
    const char *name = strtok_r(line, "\t", &rest);
    const char *destination = strtok_r(nullptr, "\t", &rest);
    if (!name || !destination || std::strcmp(destination, no_address) != 0)
        return false;
    const char *gateway_text = strtok_r(nullptr, "\t", &rest);
    if (!gateway_text || std::strcmp(gateway_text, no_address) == 0)
        return false;
    const uint32_t address = gateway ? parse_gateway(gateway_text) : 0;
    const char *flags = strtok_r(nullptr, "\t", &rest);
    if (!flags)
        return false;
    if (ifname)
        strlcpy(ifname, std::strlen(name) < ifname_size ? name : "", ifname_size);
    if (gateway)
        *gateway = address;
    return true;
}

bool is_lan(uci_context *ctx, uci_section *section)
{
    return std::strcmp(section->type, "interface") == 0 &&
           safestrcmp(uci_lookup_option_string(ctx, section, "type"), "bridge") == 0 &&
           safestrncmp(section->e.name, "wan", 3) != 0;
}

/// The address of a LAN's bridge, from the kernel, else from the configuration.
void fill_address(netinfo_lan &lan, uci_context *ctx, uci_section *section)
{
    if (netinfo_get_if_info(&lan, lan.ifname) && lan.ip != 0)
        return;
    if (uci_lookup_option_string(ctx, section, "ipaddr"))
        lan.ip = uci_lookup_option_ip(ctx, section, "ipaddr");
    if (uci_lookup_option_string(ctx, section, "netmask"))
        lan.netmask = uci_lookup_option_ip(ctx, section, "netmask");
}

netinfo_lan describe_lan(uci_context *ctx, uci_section *section)
{
    netinfo_lan lan{};
    const char *name = section->e.name;
    if (name)
        strlcpy(lan.name, name, sizeof lan.name);
    else
        log_warning("Can't copy: argument null");
    std::snprintf(lan.ifname, sizeof lan.ifname, "br-%s", name ? name : "");
    if (safestrcmp(uci_lookup_option_string(ctx, section, "proto"), "none") == 0)
        return lan;

    fill_address(lan, ctx, section);
    if (const char *devices = uci_lookup_option_string(ctx, section, "ifname")) {
        netutil_copy_first_ifname(lan.phys_ifname, devices, sizeof lan.phys_ifname);
        netutil_ifname_to_portname(lan.portname, sizeof lan.portname, lan.phys_ifname, section->package);
    }
    return lan;
}

/// Fills my_lan_ifnames from the setting's text and keeps the text if it holds a name.
void remember_lan_ifnames(c_string setting)
{
    char *rest = nullptr;
    char *name = strtok_r(setting.get(), " ", &rest);
    for (; name && state.count < max_lan_ifnames; name = strtok_r(nullptr, " ", &rest))
        state.my_lan_ifnames[state.count++] = name;
    if (state.count > 0)
        static_cast<void>(setting.release());
}

std::span<const char *const> lan_ifnames()
{
    const std::lock_guard guard{state.filling}; // any call may be the first that finds the setting
    if (state.count == 0) {
        c_string setting{config_get_setting("lan_networks")};
        if (!setting)
            return default_lan_ifnames;
        remember_lan_ifnames(std::move(setting));
    }
    return std::span{state.my_lan_ifnames}.first(state.count);
}

bool interface_exists(const char *ifname)
{
    char path[net_class_path_size];
    std::snprintf(path, sizeof path, net_class_format, ifname);
    return file_exists(path);
}

netinfo_lan *find_lan(netinfo_lan *lans, int count, const char *name, auto field)
{
    if (!lans || !name || count <= 0)
        return nullptr;
    netinfo_lan *end = lans + count;
    netinfo_lan *found = std::find_if(lans, end, [&](netinfo_lan &lan) { return std::strcmp(lan.*field, name) == 0; });
    return found == end ? nullptr : found;
}

} // namespace

int netinfo_get_if_info(netinfo_lan *lan, const char *ifname)
{
    if (!lan || !ifname)
        return 0;
    const unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)}; // without one, the questions fail
    ifreq request{};
    strlcpy(request.ifr_name, ifname, sizeof request.ifr_name);
    request.ifr_addr.sa_family = AF_INET;
    if (ioctl(fd.get(), SIOCGIFADDR, &request) < 0) {
        log_warning("Failed to get IP address for %s", ifname);
        return 0;
    }
    lan->ip = address_in(request);
    // the answer stays in the request: of several addresses, the kernel now tells the netmask of this one
    if (ioctl(fd.get(), SIOCGIFNETMASK, &request) < 0) {
        log_warning("Failed to get netmask for %s", ifname);
        return 0;
    }
    lan->netmask = address_in(request);
    return 1;
}

int netinfo_get_default_route(char *ifname, uint32_t *gateway)
{
    if (!ifname && !gateway)
        return 0;
    const stream_handle table{std::fopen(route_table, "re")};
    if (!table)
        return 0;
    char line[route_line_size];
    for (int number = 0; number < route_table_lines && std::fgets(line, sizeof line, table.get()); ++number) {
        const bool is_header = number == 0;
        if (!is_header && parse_default_route(line, ifname, gateway))
            return 1;
    }
    return 0;
}

int netinfo_get_bearer_type(void)
{
    char ifname[ifname_size + 1] = "";
    if (!netinfo_get_default_route(ifname, nullptr)) {
        log_warning("Could not get network interface");
        return NETINFO_BEARER_UNKNOWN;
    }
    const std::string_view name{ifname};
    if (name == "3g-wan3" || name.starts_with("wwan"))
        return NETINFO_BEARER_MOBILE;
    if (name == "br-wan" || name.starts_with("br-lan") || name.starts_with("eth"))
        return NETINFO_BEARER_ETHERNET;
    return NETINFO_BEARER_UNKNOWN;
}

int netinfo_get_route(uint32_t *network, uint32_t *netmask, const netmap_entry *table, const netinfo_lan *lan)
{
    if (!network || !lan)
        return 0;
    if (lan->ip == 0 || lan->netmask == 0) {
        log_warning("No IP or netmask for %s", lan->ifname);
        return 0;
    }
    *network = netmap_translate(table, lan->ip & lan->netmask);
    if (netmask)
        *netmask = lan->netmask;
    return 1;
}

netinfo_lan *netinfo_find_by_portname(netinfo_lan *lans, int count, const char *portname)
{
    return find_lan(lans, count, portname, &netinfo_lan::portname);
}

netinfo_lan *netinfo_find_by_ifname(netinfo_lan *lans, int count, const char *ifname)
{
    return find_lan(lans, count, ifname, &netinfo_lan::ifname);
}

int netinfo_get_lans(netinfo_lan **lans, int *count)
{
    log_info("netinfo_get_lans");
    const loaded_package network = lans && count ? load_config(network_package) : loaded_package{};
    if (!network)
        return 0;
    heap_array<netinfo_lan> found{1};
    uci_element *element;
    uci_foreach_element (&network.package->sections, element) {
        uci_section *section = uci_to_section(element);
        if (is_lan(network.ctx.get(), section) && !found.push_back(describe_lan(network.ctx.get(), section)))
            return 0;
    }
    *count = static_cast<int>(found.size());
    *lans = found.release();
    return 1;
}

int netinfo_get_my_lan_ip(char *buffer)
{
    for (const char *ifname : lan_ifnames()) {
        netinfo_lan lan{};
        if (interface_exists(ifname) && netinfo_get_if_info(&lan, ifname) && ip_format(buffer, lan.ip))
            return 1;
    }
    return 0;
}
