#include "netutil.h"

#include "digit.hpp"
#include "log.hpp"
#include "sizes.hpp"
#include "util.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include <uci.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "netutil.c";

constexpr int highest_parsed_number = 10002;
constexpr int highest_number = 9999;
constexpr int highest_vlan = 4095;

bool is_letter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

std::optional<int32_t> parse_number(const char *text, int highest)
{
    const char *error;
    const long long number = strtonum(text, 0, highest, &error);
    return error ? std::nullopt : std::optional{static_cast<int32_t>(number)};
}

/// Cuts the VLAN number behind the first dot off the name, if there is one.
bool take_vlan(char *name, int32_t &vlan)
{
    char *dot = std::strchr(name, '.');
    if (!dot)
        return true;
    const auto number = parse_number(dot + 1, highest_vlan);
    if (!number) {
        log_error("Failed parsing ifname: vlan %s is invalid", dot + 1);
        return false;
    }
    vlan = *number;
    *dot = '\0';
    return true;
}

/// Cuts the number behind the letters off the name.
bool take_number(char *name, int32_t &number)
{
    char *digits = name;
    while (is_letter(*digits))
        ++digits;
    if (*digits == '\0') {
        log_error("No physical interface number was found");
        return false;
    }
    if (!is_digit(*digits)) { // strtonum would take a sign or a blank
        log_error("Invalid character in interface name");
        return false;
    }
    const auto found = parse_number(digits, highest_parsed_number);
    if (!found) {
        log_error("Failed to parse ifname: interface number out of range");
        return false;
    }
    number = *found;
    *digits = '\0';
    return true;
}

/// Takes a name apart from its end: the VLAN and the number go, and the letters are left.
std::optional<netutil_ifname_parts> parse_ifname(const char *text)
{
    if (std::strlen(text) >= ifname_size) {
        log_error("Too long interface name");
        return {};
    }
    char name[ifname_size];
    strlcpy(name, text, sizeof name);
    netutil_ifname_parts parts{"", -1, -1};
    if (!take_vlan(name, parts.vlan) || !take_number(name, parts.number))
        return {};
    if (strlcpy(parts.prefix, name, sizeof parts.prefix) >= sizeof parts.prefix) {
        log_error("Too long LAN prefix name");
        return {};
    }
    return parts;
}

/// An Ethernet device name with a number that a port may have; the VLAN is free.
bool is_ethernet_port(const char *ifname)
{
    const auto parts = parse_ifname(ifname);
    if (!parts)
        return false;
    if (std::strcmp(parts->prefix, "eth") != 0) {
        log_error("Invalid LAN prefix %s", parts->prefix);
        return false;
    }
    if (parts->number > highest_number) {
        log_error("Port number out of range: %d", parts->number);
        return false;
    }
    return true;
}

/// The first section, of any type, whose device list begins with this device; null when there is none.
const uci_section *find_section_by_ifname(uci_package *network, const char *ifname)
{
    uci_element *element;
    uci_foreach_element (&network->sections, element) {
        uci_section *section = uci_to_section(element);
        char first[portname_size];
        const char *list = uci_lookup_option_string(network->ctx, section, "ifname");
        if (netutil_copy_first_ifname(first, list, sizeof first) == 0 && std::strcmp(first, ifname) == 0)
            return section;
    }
    return nullptr;
}

} // namespace

int netutil_parse_portname(netutil_ifname_parts *parts, const char *portname)
{
    if (!parts || !portname) {
        log_error("Missing arguments");
        return 0;
    }
    const auto parsed = parse_ifname(portname);
    if (!parsed)
        return 0;
    if (parsed->number > highest_number) {
        log_error("Port number out of range");
        return 0;
    }
    *parts = *parsed;
    return 1;
}

int netutil_copy_first_ifname(char *dst, const char *list, size_t size)
{
    if (!dst || !list || size == 0) {
        log_error("missing arguments");
        return -1;
    }
    const std::size_t length = std::min(std::strcspn(list, " "), size - 1);
    std::memmove(dst, list, length); // dst may be the list itself
    dst[length] = '\0';
    return 0;
}

int netutil_ifname_to_portname(char *dst, size_t size, const char *ifname, struct uci_package *network)
{
    if (!dst || !ifname || !network) {
        log_error("Missing arguments");
        return 0;
    }
    if (std::strlen(ifname) >= ifname_size) {
        log_error("Too long interface name");
        return 0;
    }
    strlcpy(dst, "", size);
    if (!is_ethernet_port(ifname))
        return 0;
    const uci_section *section = find_section_by_ifname(network, ifname);
    const char *name = section ? section->e.name : nullptr;
    // a name that had to be cut might be the name of another port
    if (!name || std::strlen(name) >= portname_size) {
        log_warning("cannot convert ifname %s to portname", ifname);
        return 0;
    }
    strlcpy(dst, std::strcmp(name, "lan") == 0 ? "lan1" : name, size);
    return 1;
}
