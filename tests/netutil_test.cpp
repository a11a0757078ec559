#include "device_test.hpp"

#include "netutil.h"
#include "uciconfig.h"

#include <uci.h>

namespace {

class netutil : public device_test {};

TEST_F(netutil, port_names_are_taken_apart)
{
    const struct {
        const char *name, *prefix;
        int number, vlan;
    } cases[] = {{"lan2.10", "lan", 2, 10}, {"Z9999.4095", "Z", 9999, 4095}, {"e0.0", "e", 0, 0},
                 {"Aaz1", "Aaz", 1, -1},    {"00000000000005", "", 5, -1},   {"lan000000000012", "lan", 12, -1}};
    for (const auto &[name, prefix, number, vlan] : cases) {
        netutil_ifname_parts parts{"?", -9, -9};
        EXPECT_EQ(netutil_parse_portname(&parts, name), 1) << name;
        EXPECT_STREQ(parts.prefix, prefix) << name;
        EXPECT_EQ(parts.number, number) << name;
        EXPECT_EQ(parts.vlan, vlan) << name;
    }
    EXPECT_EQ(log(), records{});
}

TEST_F(netutil, what_is_no_port_name_leaves_the_parts_as_they_were)
{
    const std::string out_of_range = "Failed to parse ifname: interface number out of range";
    const std::pair<const char *, std::string> cases[] = {
        {"lan0000000000001", "Too long interface name"}, // 16 characters
        {"lan10000", "Port number out of range"},
        {"lan10002", "Port number out of range"},
        {"lan10003", out_of_range},
        {"lan1a", out_of_range},
        {"-.1.2", "Failed parsing ifname: vlan 1.2 is invalid"}, // before anything else
        {"lan1.", "Failed parsing ifname: vlan  is invalid"},
        {"lan1.4096", "Failed parsing ifname: vlan 4096 is invalid"},
        {"l\xe4n1", "Invalid character in interface name"},
        {"la n1", "Invalid character in interface name"},
        {"lan+1", "Invalid character in interface name"},
        {"lan.5", "No physical interface number was found"},
        {"", "No physical interface number was found"},
        {"wlan0", "Too long LAN prefix name"},
        {nullptr, "Missing arguments"}};
    for (const auto &[name, message] : cases) {
        netutil_ifname_parts parts{"?", -9, -9};
        EXPECT_EQ(netutil_parse_portname(&parts, name), 0) << message;
        EXPECT_EQ(log(), records{error(message, "netutil.c")}) << message;
        EXPECT_STREQ(parts.prefix, "?") << message;
        EXPECT_EQ(parts.number, -9) << message;
        EXPECT_EQ(parts.vlan, -9) << message;
    }
    EXPECT_EQ(netutil_parse_portname(nullptr, "lan1"), 0);
    EXPECT_EQ(log(), records{error("Missing arguments", "netutil.c")});
}

TEST_F(netutil, a_device_list_gives_its_first_device)
{
    const struct {
        const char *list;
        std::size_t size;
        std::string want; // eight bytes
    } cases[] = {{"eth0.1 eth0.2", 8, {"eth0.1\0#", 8}}, {"eth0.1 eth0.2", 6, {"eth0.\0##", 8}},
                 {"eth0", 8, {"eth0\0###", 8}},          {" eth0", 8, {"\0#######", 8}},
                 {"a\tb", 8, {"a\tb\0####", 8}},         {"eth0", 1, {"\0#######", 8}}};
    for (const auto &[list, size, want] : cases) {
        std::string buffer(8, '#');
        EXPECT_EQ(netutil_copy_first_ifname(buffer.data(), list, size), 0) << list;
        EXPECT_EQ(buffer, want) << list << size;
    }
    char in_place[] = "#eth0 x";
    EXPECT_EQ(netutil_copy_first_ifname(in_place, in_place + 1, sizeof in_place), 0);
    EXPECT_STREQ(in_place, "eth0");
    EXPECT_EQ(log(), records{});
}

TEST_F(netutil, a_device_list_without_room_or_text_is_an_error)
{
    char buffer[] = "left";
    const struct {
        char *dst;
        const char *list;
        std::size_t size;
    } cases[] = {{nullptr, "eth0", 5}, {buffer, nullptr, 5}, {buffer, "eth0", 0}};
    for (const auto &[dst, list, size] : cases) {
        EXPECT_EQ(netutil_copy_first_ifname(dst, list, size), -1);
        EXPECT_EQ(log(), records{error("missing arguments", "netutil.c")});
    }
    EXPECT_STREQ(buffer, "left");
}

class conversion : public device_test {
protected:
    conversion()
    {
        write_file("/etc/config/network", "config interface lan\n option ifname 'eth0.1 eth0.2'\nconfig interface\n"
                                          "config switch thirteen_char\n option ifname eth5\n"
                                          "config interface late\n option ifname eth5\n"
                                          "config interface fourteen_chars\n option ifname eth6\n"
                                          "config interface items\n list ifname eth7\n"
                                          "config interface cut\n option ifname eth00000000012\n");
        EXPECT_EQ(config_load_network(&ctx, &network, nullptr, nullptr), 0);
    }
    ~conversion() override { uci_free_context(ctx); }

    uci_context *ctx = nullptr;
    uci_package *network = nullptr;
};

TEST_F(conversion, a_device_has_the_port_of_the_first_section_that_begins_with_it)
{
    const struct {
        const char *ifname;
        std::size_t size;
        std::string want;
        std::size_t passed; // sections without a device before it
    } cases[] = {{"eth0.1", 14, "lan1", 0},
                 {"eth0.1", 3, "la", 0},
                 {"eth5", 14, "thirteen_char", 1},
                 {"eth0000000001", 4, "cut", 2}}; // of a longer device name, these 13 characters count
    for (const auto &[ifname, size, want, passed] : cases) {
        std::string name(16, '#');
        EXPECT_EQ(netutil_ifname_to_portname(name.data(), size, ifname, network), 1) << ifname;
        EXPECT_EQ(name, want + '\0' + std::string(15 - want.size(), '#')) << ifname;
        EXPECT_EQ(log(), records(passed, error("missing arguments", "netutil.c"))) << ifname;
    }
    char untouched = '#';
    EXPECT_EQ(netutil_ifname_to_portname(&untouched, 0, "eth0.1", network), 1);
    EXPECT_EQ(untouched, '#');
}

TEST_F(conversion, a_device_without_a_port_gives_an_empty_name)
{
    const record passed = error("missing arguments", "netutil.c");
    const auto warn = [](const char *text) { return warning(text, "netutil.c"); };
    const auto fail = [](const char *text) { return error(text, "netutil.c"); };
    const std::pair<const char *, records> cases[] = {
        {"eth6", {passed, warn("cannot convert ifname eth6 to portname")}}, // whose section has too long a name
        {"eth0", {passed, passed, warn("cannot convert ifname eth0 to portname")}},
        {"eth0.2", {passed, passed, warn("cannot convert ifname eth0.2 to portname")}},
        {"eth9999", {passed, passed, warn("cannot convert ifname eth9999 to portname")}},
        {"wan0", {fail("Invalid LAN prefix wan")}},
        {"e0", {fail("Invalid LAN prefix e")}},
        {"eth10000", {fail("Port number out of range: 10000")}},
        {"br-lan", {fail("Invalid character in interface name")}}};
    for (const auto &[ifname, messages] : cases) {
        char name[] = "################";
        EXPECT_EQ(netutil_ifname_to_portname(name, 14, ifname, network), 0) << ifname;
        EXPECT_STREQ(name, "") << ifname;
        EXPECT_EQ(name[1], '#') << ifname;
        EXPECT_EQ(log(), messages) << ifname;
    }
}

TEST_F(conversion, without_arguments_or_with_too_long_a_name_nothing_is_written)
{
    char name[] = "left";
    const struct {
        char *dst;
        const char *ifname;
        uci_package *network;
        const char *message;
    } cases[] = {{nullptr, "eth0", network, "Missing arguments"},
                 {name, nullptr, network, "Missing arguments"},
                 {name, "eth0", nullptr, "Missing arguments"},
                 {name, "eth0.00000000001", network, "Too long interface name"}};
    for (const auto &[dst, ifname, package, message] : cases) {
        EXPECT_EQ(netutil_ifname_to_portname(dst, sizeof name, ifname, package), 0);
        EXPECT_EQ(log(), records{error(message, "netutil.c")});
    }
    EXPECT_STREQ(name, "left");
}

} // namespace
