#include "device_test.hpp"

#include "netutil.h"
#include "uciconfig.h"

#include <uci.h>

namespace {

class netutil : public device_test {};

const record no_device = error("missing arguments", "netutil.c");
const std::string untouched(16, '#');

/// What a buffer of untouched holds after text was written into it.
std::string holding(const std::string &text)
{
    return (text + '\0' + untouched).substr(0, untouched.size());
}

TEST_F(netutil, port_names_are_taken_apart)
{
    const char *const cases[][2] = {
        {"Z9999.4095", "Z 9999 4095"}, // prefix, number, VLAN
        {"lan000000000001", "lan 1 -1"},
        {"5", " 5 -1"},
        {"lan0000000000001", "Too long interface name"},
        {"lan10000", "Port number out of range"},
        {"lan10003", "Failed to parse ifname: interface number out of range"},
        {"lan1a", "Failed to parse ifname: interface number out of range"},
        {"-.1.2", "Failed parsing ifname: vlan 1.2 is invalid"},
        {"lan1.4096", "Failed parsing ifname: vlan 4096 is invalid"},
        {"l\xe4n1", "Invalid character in interface name"},
        {"lan.5", "No physical interface number was found"},
        {"wlan0", "Too long LAN prefix name"},
        {nullptr, "Missing arguments"},
    };
    for (const auto &[name, want] : cases) {
        netutil_ifname_parts parts{"?", -9, -9};
        const bool parsed = netutil_parse_portname(&parts, name) == 1;
        const std::string text = parts.prefix + (' ' + std::to_string(parts.number)) + ' ' + std::to_string(parts.vlan);
        EXPECT_EQ(text, parsed ? want : "? -9 -9") << name;
        EXPECT_EQ(log(), parsed ? records{} : records{error(want, "netutil.c")}) << name;
    }
}

TEST_F(netutil, first_device_of_a_list_is_copied_within_the_buffer)
{
    const std::tuple<const char *, std::size_t, const char *> cases[] = {
        {"eth0.1 eth0.2", 7, "eth0.1"}, {"eth0.1 eth0.2", 6, "eth0."}, {"eth0\teth1", 8, "eth0\tet"}, {" eth0", 4, ""},
        {"eth0", 0, nullptr},           {nullptr, 8, nullptr}};
    for (const auto &[list, size, want] : cases) {
        std::string buffer = untouched;
        EXPECT_EQ(netutil_copy_first_ifname(buffer.data(), list, size), want ? 0 : -1) << list;
        EXPECT_EQ(buffer, want ? holding(want) : untouched) << list;
        EXPECT_EQ(log(), want ? records{} : records{no_device}) << list;
    }
}

TEST_F(netutil, port_is_named_after_the_first_section_that_has_the_device_first)
{
    write_file("/etc/config/network", "config interface lan\n option ifname eth0.1\nconfig interface\n"
                                      "config switch lan2\n option ifname 'eth0.3 eth0.4'\n"
                                      "config interface items\n list ifname eth7\n"
                                      "config interface thirteen_char\n option ifname eth5\n"
                                      "config interface fourteen_chars\n option ifname eth6\n"
                                      "config interface cut\n option ifname eth00000000012\n");
    const struct {
        const char *ifname;
        std::size_t size, deviceless; // the latter: sections without a device that are passed
        std::string want, failure;
    } cases[] = {
        {"eth0.1", 14, 0, "lan1", ""},
        {"eth0.1", 3, 0, "la", ""},
        {"eth0.3", 5, 1, "lan2", ""},
        {"eth5", 14, 2, "thirteen_char", ""},
        {"eth0000000001", 14, 2, "cut", ""},                           // of a device name, 13 characters count
        {"eth6", 14, 2, "", "cannot convert ifname eth6 to portname"}, // of a port name too, but not cut
        {"eth0.4", 14, 2, "", "cannot convert ifname eth0.4 to portname"},
        {"eth10002", 14, 0, "", "Port number out of range: 10002"},
        {"wan0", 0, 0, untouched, "Invalid LAN prefix wan"},
        {"eth0000000000001", 14, 0, untouched, "Too long interface name"},
        {nullptr, 14, 0, untouched, "Missing arguments"},
    };
    uci_context *ctx;
    uci_package *network;
    ASSERT_EQ(config_load_network(&ctx, &network, nullptr, nullptr), 0);
    for (const auto &[ifname, size, deviceless, want, failure] : cases) {
        records wanted(deviceless, no_device);
        if (!failure.empty())
            wanted.push_back(failure[0] == 'c' ? warning(failure, "netutil.c") : error(failure, "netutil.c"));
        std::string buffer = untouched;
        EXPECT_EQ(netutil_ifname_to_portname(buffer.data(), size, ifname, network), failure.empty() ? 1 : 0) << ifname;
        EXPECT_EQ(buffer, holding(want)) << ifname;
        EXPECT_EQ(log(), wanted) << ifname;
    }
    uci_free_context(ctx);
}

} // namespace
