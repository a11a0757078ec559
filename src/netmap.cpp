#include "netmap.h"

#include "heap_array.hpp"
#include "ip_calculation.h"
#include "loaded_package.hpp"
#include "log.hpp"
#include "uciconfig.h"
#include "util.h"

#include <cstring>
#include <optional>

#include <uci.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "netmap.c";

constexpr std::size_t shortest_address = 7; // "1.2.3.4"
constexpr std::size_t address_size = 16;    // "255.255.255.255" and its NUL
constexpr netmap_entry end_of_table{};

uint32_t with_network(uint32_t ip, uint32_t network, uint32_t netmask)
{
    return (ip & ~netmask) | (network & netmask);
}

/// The text of an address option; null when it is absent or too short for an address.
const char *lookup_address(uci_context *ctx, uci_section *section, const char *option)
{
    const char *text = uci_lookup_option_string(ctx, section, option);
    return text && std::strlen(text) >= shortest_address ? text : nullptr;
}

/// The rule that a section makes, if it makes one.
std::optional<netmap_entry> mapping_of(uci_context *ctx, uci_section *section)
{
    if (std::strcmp(section->type, "interface") != 0 || !uci_lookup_option_bool(ctx, section, "netmap"))
        return {};
    uint32_t ip, netmask, mapped;
    if (!ip_parse_p(&ip, lookup_address(ctx, section, "ipaddr")) ||
        !ip_parse_p(&netmask, lookup_address(ctx, section, "netmask")) ||
        !ip_parse_p(&mapped, lookup_address(ctx, section, "netmapaddr")) || (ip & netmask) == 0)
        return {};
    return netmap_entry{ip & netmask, mapped & netmask, netmask};
}

/// An address with its network replaced; which of the texts is no address is logged.
std::optional<uint32_t> translate_text(const char *ipaddr, const char *netmask, const char *netmapaddr)
{
    uint32_t ip, mask, mapped;
    if (!ip_parse_p(&ip, ipaddr)) {
        log_warning("Parsing ipaddr %s failed", ipaddr);
        return {};
    }
    if (!ip_parse_p(&mask, netmask)) {
        log_warning("Parsing netmaks %s failed", netmask); // spelled so in the message
        return {};
    }
    if (!ip_parse_p(&mapped, netmapaddr)) {
        log_warning("Parsing netmapaddr %s failed", netmapaddr);
        return {};
    }
    return with_network(ip, mapped, mask);
}

/// What an interface's address is in the network that it is mapped to; why it is nothing is logged.
std::optional<uint32_t> find_mapped_address(uci_context *ctx, uci_section *section, const char *ipaddr)
{
    const char *netmask = lookup_address(ctx, section, "netmask");
    if (!netmask) {
        log_warning("No netmask found for interface");
        return {};
    }
    const char *netmapaddr = lookup_address(ctx, section, "netmapaddr");
    if (!netmapaddr) {
        log_warning("No netmapaddr found for interface");
        return {};
    }
    return translate_text(ipaddr, netmask, netmapaddr);
}

/// Puts a rule in the place of the one that ends the table, and ends it again.
bool append(heap_array<netmap_entry> &table, const netmap_entry &entry)
{
    table.back() = entry;
    return table.push_back(end_of_table);
}

} // namespace

uint32_t netmap_translate(const netmap_entry *table, uint32_t ip)
{
    for (; table && table->network != 0; ++table) {
        if ((ip & table->netmask) == table->network)
            return with_network(ip, table->mapped_network, table->netmask);
    }
    return ip;
}

netmap_entry *netmap_load(void)
{
    heap_array<netmap_entry> table{2};
    const bool ended = table.push_back(end_of_table);
    log_info("state_load_network");
    if (!ended)
        return nullptr;
    const loaded_package network = load_state(network_package);
    if (!network) {
        log_warning("Loading UCI state failed");
        return nullptr;
    }
    uci_element *element;
    uci_foreach_element (&network.package->sections, element) {
        const auto entry = mapping_of(network.ctx.get(), uci_to_section(element));
        if (entry && !append(table, *entry))
            return nullptr;
    }
    return table.release();
}

char *get_network_ip(char *buffer, struct uci_context *ctx, struct uci_section *section)
{
    if (!buffer || !ctx || !section)
        return nullptr;
    const char *ipaddr = lookup_address(ctx, section, "ipaddr");
    if (!ipaddr) {
        log_warning("No ipaddr found for interface");
        return nullptr;
    }
    if (!uci_lookup_option_bool(ctx, section, "netmap")) {
        strlcpy(buffer, ipaddr, address_size);
        return buffer;
    }
    const auto mapped = find_mapped_address(ctx, section, ipaddr);
    if (!mapped)
        return nullptr;
    if (!ip_format(buffer, *mapped)) {
        log_warning("Formatting IP address failed!");
        return nullptr;
    }
    return buffer;
}
