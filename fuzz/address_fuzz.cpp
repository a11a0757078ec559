// Address, netmask and MAC texts: whatever they hold, nothing is read beyond them, and what parses keeps its value when
// it is formatted and parsed again.
#include "device.hpp"

#include "ip_calculation.h"
#include "mac.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

/// A text in a block of exactly its size, so that the sanitizer sees every read beyond it.
std::unique_ptr<char[]> exact(const std::string &text)
{
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

void require(bool holds)
{
    if (!holds)
        std::abort();
}

bool is_prefix_mask(uint32_t mask)
{
    return (~mask & (~mask + 1)) == 0;
}

void check_address(const char *text)
{
    const uint32_t parsed = ip_parse(text);
    uint32_t ip = 1;
    const bool good = ip_parse_p(&ip, text) == 1;
    require(good ? ip == parsed : ip == 0 && parsed == 0xFFFFFFFF);

    const auto formatted = std::make_unique<char[]>(16);
    require(ip_format(formatted.get(), parsed) == 1 && ip_parse(formatted.get()) == parsed);
    require(std::strcmp(ip_format_s(parsed), formatted.get()) == 0);

    const auto safe = std::make_unique<char[]>(16);
    const bool usable = ip_safe(text, safe.get()) == 0;
    require(usable == (parsed != 0 && parsed != 0xFFFFFFFF));
    require(std::strcmp(safe.get(), usable ? formatted.get() : "") == 0);
}

void check_netmask(const char *text)
{
    const std::size_t length = std::strlen(text);
    const uint32_t mask = ip_uint32_netmask_from_str(text, length);
    if (length <= 2)
        require(is_prefix_mask(mask));
    else
        require(mask == (length >= 7 && length <= 15 ? ip_parse(text) : 0));
    ip_uint32_netmask_from_str(text, 2); // told to be longer or shorter than it is
    uint32_t network = 0, last = 0;
    ip_get_network(0xC0A80164, mask, &network, &last);
    require(network <= 0xC0A80164 && last >= 0xC0A80164 && ip_in_network(network, last, mask) == 1);
}

void check_mac(const char *text)
{
    const auto bytes = std::make_unique<uint8_t[]>(6), again = std::make_unique<uint8_t[]>(6);
    if (mac_to_bytes_network(bytes.get(), text) == 1) {
        const auto formatted = std::make_unique<char[]>(18);
        require(mac_bytes_to_mac(formatted.get(), bytes.get()) == 1 && std::strlen(formatted.get()) == 17);
        require(mac_to_bytes_network(again.get(), formatted.get()) == 1 && mac_equals(bytes.get(), again.get()) == 1);
        require((mac_bytes_to_long(bytes.get()) == 0) == (mac_is_null(bytes.get()) == 1));
    }
    const int temporary = mac_is_temporary(text);
    require(temporary == 1 || (temporary == 0 && std::strlen(text) >= 17));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    const auto text = exact({reinterpret_cast<const char *>(data), size});
    check_address(text.get());
    check_netmask(text.get());
    check_mac(text.get());
    return 0;
}
