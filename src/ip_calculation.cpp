#include "ip_calculation.h"

#include "log.hpp"
#include "util.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include <arpa/inet.h>

namespace {

constexpr char log_module[] = "ip_calculation.c";

} // namespace

uint32_t ip_parse(const char *text)
{
    return text ? ntohl(inet_addr(text)) : 0;
}

uint32_t ip_parse_free(char *text)
{
    const uint32_t ip = ip_parse(text);
    std::free(text);
    return ip;
}

int ip_parse_p(uint32_t *ip, const char *text)
{
    if (!ip)
        return 0;
    *ip = 0;
    in_addr address;
    if (!text || inet_aton(text, &address) == 0)
        return 0;
    *ip = ntohl(address.s_addr);
    return 1;
}

uint32_t ip_uint32_netmask_from_str(const char *text, size_t length)
{
    if (!text)
        return 0;
    if (length == 1 || length == 2) {
        if (std::strspn(text, "0123456789") < length)
            return 0;
        return ip_netmask(static_cast<unsigned int>(strtonum(text, 0, std::numeric_limits<int>::max(), nullptr)));
    }
    return length >= 7 && length <= 15 ? ip_parse(text) : 0;
}

int ip_in_network_str(const char *ip, const char *network, const char *netmask)
{
    return ip && network && netmask && ip_in_network(ip_parse(ip), ip_parse(network), ip_parse(netmask));
}

int ip_format(char *buffer, uint32_t ip)
{
    if (!buffer)
        return 0;
    const in_addr address{htonl(ip)};
    if (!inet_ntop(AF_INET, &address, buffer, INET_ADDRSTRLEN)) {
        log_error("inet_ntop failed");
        return 0;
    }
    return 1;
}

char *ip_format_s(uint32_t ip)
{
    static char text[INET_ADDRSTRLEN];
    memzero(text, sizeof text);
    ip_format(text, ip);
    return text;
}

int ip_safe(const char *src, char *dst)
{
    if (!src || !dst) {
        log_error("missing arguments");
        return -1;
    }
    memzero(dst, INET_ADDRSTRLEN);
    const uint32_t ip = ip_parse(src);
    if (ip == INADDR_ANY || ip == INADDR_NONE) {
        log_error("Parsing ip %s failed", src);
        return -1;
    }
    return ip_format(dst, ip) ? 0 : -1;
}

uint32_t ip_netmask(unsigned int prefix_length)
{
    if (prefix_length == 0 || prefix_length > 32)
        return 0;
    return 0xFFFFFFFFU << (32 - prefix_length);
}

int ip_get_network(uint32_t ip, uint32_t mask, uint32_t *network, uint32_t *last)
{
    if (network)
        *network = ip & mask;
    if (last)
        *last = ip_last_ip_from_netmask(ip, mask);
    return 1;
}

uint32_t ip_last_ip_from_netmask(uint32_t ip, uint32_t mask)
{
    return ip | ~mask;
}

int ip_in_network(uint32_t ip, uint32_t net, uint32_t mask)
{
    return ((ip ^ net) & mask) == 0;
}
