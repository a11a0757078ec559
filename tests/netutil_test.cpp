#include "device_test.hpp"

#include "netutil.h"
#include "uciconfig.h"

#include <uci.h>

namespace {

class netutil : public device_test {};

TEST_F(netutil, port_names_are_taken_apart)
{
    const char *const cases[][2] = {{"Z9999.4095", "Z 9999 4095"}, // prefix, number, VLAN
                                    {"00000000000005", " 5 -1"},
                                    {"lan0000000000001", "Too long interface name"},
                                    {"lan10000", "Port number out of range"},
                                    {"lan10003", "Failed to parse ifname: interface number out of range"},
                                    {"lan1a", "Failed to parse ifname: interface number out of range"},
                                    {"-.1.2", "Failed parsing ifname: vlan 1.2 is invalid"},
                                    {"lan1.4096", "Failed parsing ifname: vlan 4096 is invalid"},
                                    {"l\xe4n1", "Invalid character in interface name"},
                                    {"lan.5", "No physical interface number was found"},
                                    {"wlan0", "Too long LAN prefix name"},
                                    {nullptr, "Missing arguments"}};
    for (const auto &[name, want] : cases) {
        netutil_ifname_parts parts{"?", -9, -9};
        const bool parsed = netutil_parse_portname(&parts, name) == 1;
        const std::string text = parts.prefix + (' ' + std::to_string(parts.number)) + ' ' + std::to_string(parts.vlan);
        EXPECT_EQ(text, parsed ? want : "? -9 -9") << name;
        EXPECT_EQ(log(), parsed ? records{} : records{error(want, "netutil.c")}) << name;
    }
}

TEST_F(netutil, device_lists_give_their_first_device_and_that_a_port)
{
    std::string buffer = "########";
    char *const list = buffer.data();
    EXPECT_EQ(netutil_copy_first_ifname(list, "eth0.1 eth0.2", 6) + netutil_copy_first_ifname(list + 6, " eth0", 1), 0);
    EXPECT_EQ(netutil_copy_first_ifname(list + 7, "eth0", 0), -1);
    EXPECT_EQ(buffer, std::string("eth0.\0\0#", 8));
    EXPECT_EQ(netutil_copy_first_ifname(list, list + 1, 8), 0); // in place
    EXPECT_STREQ(list, "th0.");
    EXPECT_EQ(log(), records{error("missing arguments", "netutil.c")});

    write_file("/etc/config/network", "config interface lan\n option ifname 'eth0.1 eth0.2'\nconfig interface\n"
                                      "config switch thirteen_char\n option ifname eth5\n"
                                      "config interface late\n option ifname eth5\n"
                                      "config interface fourteen_chars\n option ifname eth6\n"
                                      "config interface items\n list ifname eth7\n"
                                      "config interface cut\n option ifname eth00000000012\n");
    const std::tuple<const char *, std::size_t, std::string, std::size_t, const char *> devices[] = {
        {"eth0.1", 3, "la", 0, ""}, // of "lan1"; the next number: sections without a device that were passed
        {"eth5", 14, "thirteen_char", 1, ""},
        {"eth0000000001", 4, "cut", 2, ""}, // of a longer device name, these 13 characters count
        {"eth6", 14, "", 1, "cannot convert ifname eth6 to portname"},
        {"eth0", 14, "", 2, "cannot convert ifname eth0 to portname"},
        {"wan0", 1, "", 0, "Invalid LAN prefix wan"},
        {"eth10002", 14, "", 0, "Port number out of range: 10002"},
        {"eth0.00000000001", 14, "###", 0, "Too long interface name"}};
    uci_context *ctx;
    uci_package *network;
    ASSERT_EQ(config_load_network(&ctx, &network, nullptr, nullptr), 0);
    for (const auto &[ifname, size, want, passed, message] : devices) {
        std::string name(16, '#');
        EXPECT_EQ(netutil_ifname_to_portname(name.data(), size, ifname, network), *message ? 0 : 1) << ifname;
        EXPECT_EQ(name, want + (want == "###" ? '#' : '\0') + std::string(15 - want.size(), '#')) << ifname;
        records wanted(passed, error("missing arguments", "netutil.c"));
        if (*message)
            wanted.push_back(*message == 'c' ? warning(message, "netutil.c") : error(message, "netutil.c"));
        EXPECT_EQ(log(), wanted) << ifname;
    }
    uci_free_context(ctx);
}

} // namespace
