#include "device_test.hpp"

#include "ip_calculation.h"
#include "netinfo.h"

#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <sys/mount.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

class netinfo : public device_test {
protected:
    static void run(const char *command) { EXPECT_EQ(std::system(command), 0) << command; }
    static record warn(const std::string &text) { return warning(text, "netinfo.c"); }
};

//   br-lan 192.168.1.1/24 and 192.168.7.7/30        eth0 ---- eth1, without address
const char topology[] = "ip link add br-lan up type bridge && ip address add 192.168.1.1/24 dev br-lan &&"
                        "ip address add 192.168.7.7/30 dev br-lan && ip link add eth0 type veth peer name eth1";

/// Result, interface and gateway as text.
std::string default_route()
{
    char ifname[] = "#################";
    uint32_t gateway = 0xFFFFFFFE;
    const int found = netinfo_get_default_route(ifname, &gateway);
    return std::to_string(found) + ' ' + ifname + ifname[16] + ip_format_s(gateway);
}

const std::string no_route = "0 ##################255.255.255.254";

TEST_F(netinfo, default_route_with_a_gateway_is_among_the_first_five)
{
    run(topology);
    run("ip route add default dev br-lan"); // without one
    EXPECT_TRUE(default_route() == no_route && netinfo_get_bearer_type() == NETINFO_BEARER_UNKNOWN);
    EXPECT_EQ(log(), records{warn("Could not get network interface")});
    run("ip route add default via 192.168.1.9 metric 5");
    EXPECT_EQ(default_route(), "1 br-lan#192.168.1.9");

    const std::string other = "eth9\t0001A8C0\t0101A8C0\t3\t0\n", fields = "\t00000000\t0101A8C0\t3\t0\n";
    const std::string address = ip_format_s(ntohl(0x0101A8C0)), wide(128, ' '); // the kernel's number is this machine's
    const std::string tables[][2] = {
        {other + other + other + wide + "eth2" + fields, "1 eth2#" + address}, // wide is a line of its own
        {other + other + other + other + wide + "eth0" + fields, no_route},
        {"\t\teth1\t" + fields, "1 eth1#" + address}, // empty fields do not count
        {"eth0\t00000000\t00000000\t3\neth0\t00000000\tzz\n", no_route},
        {"eth0\t00000000\tzzzzzzzz\t3\n", "1 eth0#0.0.0.0"},
        {"sixteen-letters-" + fields, "1 #" + address}};
    const std::string first = "eth0" + fields; // the first line is always the header
    run("mkdir /tmp/net");
    ASSERT_EQ(mount("/tmp/net", "/proc/self/net", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(default_route(), no_route); // without a table
    for (const auto &[routes, want] : tables) {
        write_file("/tmp/net/route", first + routes);
        EXPECT_EQ(default_route(), want) << routes;
    }
    EXPECT_EQ(log(), (records{warn("parsing gateway failed: zz\n"), warn("parsing gateway failed: zzzzzzzz")}));
    for (const auto &[ifname, bearer] :
         {std::pair{"3g-wan3", 2}, {"wwan0", 2}, {"br-wan", 1}, {"br-wanx", 0}, {"br-lan2", 1}, {"eth0.1", 1}}) {
        write_file("/tmp/net/route", "header\n" + std::string{ifname} + "\t00000000\tbad\tflags\n");
        EXPECT_EQ(netinfo_get_bearer_type(), bearer) << ifname;
    }
}

TEST_F(netinfo, lans_are_listed_found_and_routed)
{
    netinfo_lan none[1], *lans = none;
    int count = -1;
    EXPECT_TRUE(netinfo_get_lans(&lans, &count) == 0 && lans == none && count == -1);
    write_file("/etc/config/network", "config interface wan\n option type bridge\n");
    EXPECT_TRUE(netinfo_get_lans(&lans, &count) == 1 && !lans && count == 0);
    const record call = info("netinfo_get_lans", "netinfo.c");
    EXPECT_EQ(log(), (records{call, error("Failed loading package network: Entry not found", "uciconfig.c"), call}));
    const int descriptors = open_descriptors();
    run(topology);
    write_file("/etc/config/network",
               "config interface lan\n option type bridge\n option ifname 'eth0.1 eth1'\n option ipaddr 10.9.9.9\n"
               "config interface wan2\n option type bridge\nconfig interface guest\n list type bridge\n"
               "config alias lan3\n option type bridge\nconfig interface lan2\n option type bridge\n"
               " option proto none\n option ipaddr 10.1.1.1\nconfig interface sixteen_letters_\n option type bridge\n"
               " option ipaddr 10.2.3.4\n option netmask bad\n option ifname wlan0\n");
    const netinfo_lan want[] = {{"lan", "br-lan", "eth0.1", "lan1", 0xC0A80101, 0xFFFFFF00},
                                {"lan2", "br-lan2", "", "", 0, 0},
                                {"sixteen_letters", "br-sixteen_lett", "wlan0", "", 0x0A020304, 0xFFFFFFFF}};
    EXPECT_EQ(netinfo_get_lans(&lans, &count), 1);
    EXPECT_EQ(log(), (records{call, warn("Failed to get IP address for br-sixteen_lett"),
                              error("Too long LAN prefix name", "netutil.c")}));
    ASSERT_EQ(count, 3);
    EXPECT_EQ(std::memcmp(lans, want, sizeof want), 0);
    EXPECT_TRUE(netinfo_find_by_portname(lans, 3, "") == lans + 1 && !netinfo_find_by_portname(lans, 0, "lan1"));
    EXPECT_TRUE(netinfo_find_by_ifname(lans, 3, "br-lan2") == lans + 1 && !netinfo_find_by_ifname(lans, 3, "eth0.1"));
    uint32_t network, netmask;
    const netmap_entry table[] = {{0xC0A80100, 0x0A0A0100, 0xFFFFFF00}, {}};
    EXPECT_TRUE(netinfo_get_route(&network, nullptr, nullptr, lans) == 1 && network == 0xC0A80100);
    EXPECT_TRUE(netinfo_get_route(&network, &netmask, table, lans) == 1 && network == 0x0A0A0100);
    lans[0].netmask = 0;
    lans[1].netmask = 0xFFFF0000;
    for (const int i : {0, 1})
        EXPECT_EQ(netinfo_get_route(&network, &netmask, nullptr, lans + i), 0);
    EXPECT_TRUE(network == 0x0A0A0100 && netmask == 0xFFFFFF00);
    EXPECT_EQ(log(), (records{warn("No IP or netmask for br-lan"), warn("No IP or netmask for br-lan2")}));
    free(lans);

    const auto bytes = __sanitizer_get_current_allocated_bytes();
    for (int i = 0; i < 2000; ++i) {
        EXPECT_EQ(netinfo_get_lans(&lans, &count) + netinfo_get_default_route(nullptr, &network), 1);
        free(lans);
        free(netmap_load());
        log(); // whose queue is short
    }
    EXPECT_TRUE(__sanitizer_get_current_allocated_bytes() == bytes && open_descriptors() == descriptors);
}

TEST_F(netinfo, own_lan_address_is_looked_for_in_five_named_interfaces)
{
    const std::pair<const char *, std::string> steps[] = {
        // what happens, what is then answered
        {topology, "192.168.1.1"},
        {"ip link delete br-lan && ip address add 10.0.0.1/8 dev eth0", "10.0.0.1"},
        {"echo \"config vandrel settings\n option lan_networks '  '\" >/etc/config/vandrel", ""},
        {"sed -i \"s/'.*'/' gone  a b eth1 a-name-of-sixteen eth0'/\" /etc/config/vandrel", ""}, // eth0 is the sixth
        {"sed -i \"s/'.*'/eth0/\" /etc/config/vandrel", ""},                                     // too late
        {"ip address add 10.0.0.200/8 dev eth1", "10.0.0.200"}};
    for (const auto &[happens, want] : steps) {
        run(happens);
        char buffer[16] = "";
        EXPECT_TRUE(netinfo_get_my_lan_ip(buffer) == !want.empty() && buffer == want) << happens;
    }
    EXPECT_EQ(netinfo_get_my_lan_ip(nullptr), 0);
    EXPECT_EQ(log(), (records{warn("Failed to get IP address for eth1"), warn("Failed to get IP address for eth1")}));
}

} // namespace
