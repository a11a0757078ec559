#include "mac.h"

#include "log.hpp"
#include "util.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr char log_module[] = "mac.c";

constexpr std::size_t mac_size = 6;
constexpr std::size_t text_length = 17; // of "00:11:22:33:44:55"
constexpr uint8_t null_mac[mac_size] = {};

} // namespace

int mac_to_bytes_network(uint8_t *out, const char *str)
{
    if (!out)
        return 0;
    if (!str) {
        memzero(out, mac_size);
        return 1;
    }
    if (std::strlen(str) != text_length)
        return 0;
    return std::sscanf(str, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", // lenient, but what zone files have always been read with
                       &out[0], &out[1], &out[2], &out[3], &out[4], &out[5]) == mac_size;
}

int mac_bytes_to_mac(char *dst, const uint8_t *mac)
{
    if (!dst || !mac)
        return 0;
    memzero(dst, text_length + 1);
    std::snprintf(dst, text_length + 1, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                  mac[5]);
    return 1;
}

uint64_t mac_bytes_to_long(const uint8_t *mac)
{
    uint64_t packed = 0;
    for (std::size_t i = 0; mac && i < mac_size; ++i)
        packed = packed << 8 | mac[i];
    return packed;
}

int mac_is_null(const uint8_t *mac)
{
    return !mac || std::memcmp(mac, null_mac, mac_size) == 0;
}

int mac_equals(const uint8_t *a, const uint8_t *b)
{
    return std::memcmp(a ? a : null_mac, b ? b : null_mac, mac_size) == 0;
}

int mac_is_temporary(const char *mac)
{
    if (!mac || std::strlen(mac) < text_length) {
        log_error("Too short mac: %s", mac ? mac : "(null)");
        return 1;
    }
    if (std::memcmp(mac, "00", 2) == 0 && std::memcmp(mac + 3, "ff", 2) == 0)
        return 1;
    return std::strchr("26ae", mac[1]) != nullptr; // locally administered (0x02), not a group (0x01)
}
