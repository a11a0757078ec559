#include "check_address.hpp"

#include "ip_calculation.h"
#include "mac.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include <strings.h>

namespace vdctl {

namespace {

bool is_mac_address(const char *written, uint64_t *mac = nullptr)
{
    uint8_t bytes[6] = {};
    const bool is_good = mac_to_bytes_network(bytes, written) != 0;
    if (mac)
        *mac = mac_bytes_to_long(bytes);
    return is_good;
}

bool is_ip_address(const char *written)
{
    uint32_t ip;
    return ip_parse_p(&ip, written) != 0;
}

/// Whether who reads four decimal numbers there reads a later address.
bool is_less_than_it_looks(uint32_t ip, const char *written)
{
    unsigned parts[4];
    return std::sscanf(written, "%3u.%3u.%3u.%3u", &parts[0], &parts[1], &parts[2], &parts[3]) == 4 &&
           ip < (parts[0] << 24 | parts[1] << 16 | parts[2] << 8 | parts[3]);
}

bool is_zero_netmask(const char *written)
{
    return std::strcmp(written, "0") == 0 || std::strcmp(written, "0.0.0.0") == 0;
}

} // namespace

address_check::address_check(zone_member_type type, const char *start)
    : is_mac_{type == ZONE_MEMBER_MAC_RANGE},
      start_is_good_{is_mac_ ? is_mac_address(start) : is_ip_address(start)}, start_{start}
{
}

std::optional<remark> address_check::of_start() const
{
    return is_mac_ ? of_mac("address_start", start_, level::more)
                   : of_ip("address_start", start_, level::less, level::more);
}

std::optional<remark> address_check::of_end(const char *written) const
{
    if (is_mac_)
        return of_mac("address_end", written, level::less); // what is cut off counts as 0
    const bool is_less = is_less_than_it_looks(ip_parse(written), written);
    return of_ip("address_end", written, start_is_good_ ? level::more : level::less,
                 is_less ? level::less : level::more);
}

std::optional<remark> address_check::of_ip(const char *name, const char *written, level if_refused,
                                           level if_other) const
{
    const text what = text::of(name) + " " + quoted(written);
    if (!is_ip_address(written))
        return remark{if_refused, "address", what + " is no address, counts as 255.255.255.255"};
    const std::string other = ip_text(ip_parse(written));
    if (other != written)
        return remark{if_other, "address", what + " counts as " + text::of(other)};
    return std::nullopt;
}

std::optional<remark> address_check::of_mac(const char *name, const char *written, level if_other) const
{
    uint64_t mac;
    const text what = text::of(name) + " " + quoted(written);
    if (!is_mac_address(written, &mac))
        return remark{level::less, "mac", what + " is no MAC address, so the member is dropped"};
    if (strcasecmp(mac_text(mac).c_str(), written) != 0)
        return remark{if_other, "mac", what + " counts as " + text::of(mac_text(mac))};
    return std::nullopt;
}

std::optional<remark> address_check::of_netmask(const char *written) const
{
    const std::size_t length = std::strlen(written);
    const uint32_t netmask = ip_uint32_netmask_from_str(written, length);
    const text what = "netmask " + quoted(written);
    if (netmask == 0 && ip_parse(start_) != 0)
        return remark{level::less, "netmask", what + " counts as 0, so the member is dropped"};
    if (netmask == 0 && !is_zero_netmask(written))
        return remark{level::more, "netmask", what + " counts as 0: every address"};
    if (netmask == 0 || length <= 2)
        return std::nullopt;
    if (!is_ip_address(written))
        return remark{level::less, "netmask", what + " counts as 255.255.255.255: the one address"};
    if (netmask != ip_netmask(static_cast<unsigned>(std::countl_one(netmask))))
        return remark{level::more, "netmask", what + " has gaps: only its one bits are compared"};
    if (ip_text(netmask) != written)
        return remark{level::more, "netmask", what + " counts as " + text::of(ip_text(netmask))};
    return std::nullopt;
}

} // namespace vdctl
