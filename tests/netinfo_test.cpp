#include "device_test.hpp"

#include "ip_calculation.h"
#include "netinfo.h"

#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <sys/mount.h>

namespace {

//   br-lan 192.168.1.1/24 and 192.168.7.7/30        eth0 ---- eth1, without address
class netinfo : public device_test {
protected:
    netinfo()
    {
        run("link add br-lan up type bridge && ip address add 192.168.1.1/24 dev br-lan");
        run("address add 192.168.7.7/30 dev br-lan && ip link add eth0 type veth peer name eth1");
        netinfo_get_bearer_type(); // without default route: the first record opens the log
        log();
        descriptors_ = open_descriptors();
    }
    ~netinfo() override { EXPECT_EQ(open_descriptors(), descriptors_); }

    static void run(const std::string &command) { EXPECT_EQ(std::system(("ip " + command).c_str()), 0) << command; }

    /// Result, interface and gateway as text.
    static std::string default_route()
    {
        std::string ifname = "#################";
        uint32_t gateway = 0xFFFFFFFE;
        const int found = netinfo_get_default_route(ifname.data(), &gateway);
        return std::to_string(found) + ' ' + ifname.c_str() + ifname.back() + ip_format_s(gateway);
    }

private:
    int descriptors_;
};

record no_address(const std::string &ifname)
{
    return warning("Failed to get IP address for " + ifname, "netinfo.c");
}

const std::string no_route = "0 ##################255.255.255.254";

TEST_F(netinfo, kernel_tells_an_interface_address_while_there_is_one)
{
    netinfo_lan lan{"n", "i", "p", "q", 1, 2};
    EXPECT_EQ(netinfo_get_if_info(&lan, "br-lan"), 1);
    EXPECT_EQ(lan.ip, 0xC0A80101);
    EXPECT_EQ(lan.netmask, 0xFFFFFF00);
    run("link delete br-lan");
    for (const char *ifname : {"br-lan", "eth0", "", "more-than-fifteen"}) {
        EXPECT_EQ(netinfo_get_if_info(&lan, ifname), 0);
        EXPECT_EQ(log(), records{no_address(ifname)});
    }
}

TEST_F(netinfo, default_route_with_a_gateway_is_found_in_the_kernel)
{
    run("route add default dev br-lan"); // without gateway
    EXPECT_EQ(default_route(), no_route);
    EXPECT_EQ(netinfo_get_bearer_type(), NETINFO_BEARER_UNKNOWN);
    EXPECT_EQ(log(), records{warning("Could not get network interface", "netinfo.c")});
    run("route add default via 192.168.1.9 metric 5");
    EXPECT_EQ(default_route(), "1 br-lan#192.168.1.9");
    EXPECT_EQ(netinfo_get_default_route(nullptr, nullptr), 0);
}

TEST_F(netinfo, first_five_routes_are_read_field_by_field)
{
    const std::string other = "eth9\t0001A8C0\t0101A8C0\t3\t0\n", fields = "\t00000000\t0101A8C0\t3\t0\n";
    const std::string address = ip_format_s(ntohl(0x0101A8C0)), wide(128, ' '); // the kernel's number is this machine's
    const struct {
        std::string routes, want;
        std::string bad_gateway = "";
    } cases[] = {
        {"eth0" + fields + "eth1" + fields, "1 eth0#" + address},
        {other + other + other + other + "eth2" + fields, "1 eth2#" + address},
        {other + other + other + other + other + "eth0" + fields, no_route},
        {"\t\teth1\t" + fields, "1 eth1#" + address},          // empty fields do not count
        {"eth0\t00000000\t0101A8C0\t\n", "1 eth0#" + address}, // the newline does
        {"eth0\t00000000\t00000000\t3\neth1\t000000000\t1\t3\n", no_route},
        {"eth0\t00000000\tzz\n", no_route, "zz\n"},
        {"eth0\t00000000\tzzzzzzzz\t3\n", "1 eth0#0.0.0.0", "zzzzzzzz"},
        {"eth0\t00000000\t -0x1z\t3\n", "1 eth0#255.255.255.255"},
        {"sixteen-letters-" + fields, "1 #" + address},
        {wide + wide + wide + wide + "eth0" + fields, "1 eth0#" + address}, // each wide is a line of its own
        {wide + wide + wide + wide + wide + "eth0" + fields, no_route},
    };
    write_file("/tmp/net/route", "");
    ASSERT_EQ(mount("/tmp/net", "/proc/self/net", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(default_route(), no_route);
    for (const auto &[routes, want, bad_gateway] : cases) {
        write_file("/tmp/net/route", "eth0" + fields + routes); // the first line is always the header
        EXPECT_EQ(default_route(), want) << routes;
        EXPECT_EQ(log(), bad_gateway.empty() ? records{}
                                             : records{warning("parsing gateway failed: " + bad_gateway, "netinfo.c")});
    }
    const std::pair<std::string, int> bearers[] = {{"3g-wan3", 2}, {"3g-wan33", 0}, {"wwan0", 2},  {"br-wan", 1},
                                                   {"br-wanx", 0}, {"br-lan2", 1},  {"eth0.1", 1}, {"wlan0", 0}};
    for (const auto &[ifname, bearer] : bearers) {
        write_file("/tmp/net/route", "header\n" + ifname + "\t00000000\tbad\tflags\n");
        EXPECT_EQ(netinfo_get_bearer_type(), bearer) << ifname;
    }
    EXPECT_EQ(log(), records{});
    umount2("/proc/self/net", MNT_DETACH);
}

TEST_F(netinfo, lans_are_listed_found_and_routed)
{
    write_file("/etc/config/network", "config interface lan\n option type bridge\n option ifname 'eth0.1 eth1'\n"
                                      "config interface wan2\n option type bridge\n"
                                      "config interface guest\n list type bridge\n"
                                      "config alias lan3\n option type bridge\n"
                                      "config interface lan2\n option type bridge\n option proto none\n"
                                      " option ipaddr 10.1.1.1\n option ifname eth1\n"
                                      "config interface sixteen_letters_\n option type bridge\n"
                                      " option ipaddr 10.2.3.4\n option netmask bad\n option ifname 'wlan0'\n");
    const netinfo_lan want[] = {{"lan", "br-lan", "eth0.1", "lan1", 0xC0A80101, 0xFFFFFF00},
                                {"lan2", "br-lan2", "", "", 0, 0},
                                {"sixteen_letters", "br-sixteen_lett", "wlan0", "", 0x0A020304, 0xFFFFFFFF}};
    const records wanted{info("netinfo_get_lans", "netinfo.c"), no_address("br-sixteen_lett"),
                         error("Too long LAN prefix name", "netutil.c")};
    netinfo_lan *lans = nullptr;
    int count = -1;
    ASSERT_EQ(netinfo_get_lans(&lans, &count), 1);
    EXPECT_EQ(log(), wanted);
    ASSERT_EQ(count, 3);
    EXPECT_EQ(std::memcmp(lans, want, sizeof want), 0);
    EXPECT_EQ(netinfo_find_by_portname(lans, 3, ""), lans + 1);
    EXPECT_EQ(netinfo_find_by_portname(lans, 0, "lan1"), nullptr);
    EXPECT_EQ(netinfo_find_by_ifname(lans, 3, "br-lan2"), lans + 1);
    EXPECT_EQ(netinfo_find_by_ifname(lans, 3, "eth0.1"), nullptr);

    uint32_t network = 1, netmask = 1;
    const netmap_entry table[] = {{0xC0A80100, 0x0A0A0100, 0xFFFFFF00}, {}};
    EXPECT_EQ(netinfo_get_route(&network, &netmask, nullptr, lans + 1), 0);
    EXPECT_EQ(log(), records{warning("No IP or netmask for br-lan2", "netinfo.c")});
    EXPECT_EQ(network + netmask, 2U);
    EXPECT_EQ(netinfo_get_route(&network, nullptr, nullptr, lans), 1);
    EXPECT_EQ(network, 0xC0A80100);
    EXPECT_EQ(netinfo_get_route(&network, &netmask, table, lans), 1);
    EXPECT_EQ(network, 0x0A0A0100);
    EXPECT_EQ(netmask, 0xFFFFFF00);
    free(lans);

    for (int n = 1, result = 0; n < 20; ++n) { // refused memory costs records or the whole list
        const allocation_refusal refuse{n};
        lans = nullptr;
        result = netinfo_get_lans(&lans, &count);
        EXPECT_TRUE(result == 1 ? count == 3 && std::memcmp(lans, want, sizeof want) == 0 : !lans) << n;
        free(lans);
    }
}

TEST_F(netinfo, own_lan_address_is_looked_for_in_five_named_interfaces)
{
    const auto answer = [](int want) {
        std::string buffer = "################";
        EXPECT_EQ(netinfo_get_my_lan_ip(buffer.data()), want);
        return std::string{buffer.c_str()};
    };
    const auto set = [](const char *names) {
        write_file("/etc/config/vandrel",
                   std::string{"config vandrel settings\n option lan_networks '"} + names + "'\n");
    };
    const std::string none = "################";
    EXPECT_EQ(answer(1), "192.168.1.1");
    run("link delete br-lan && ip address add 10.0.0.1/8 dev eth0");
    EXPECT_EQ(answer(1), "10.0.0.1");
    set("  ");
    EXPECT_EQ(answer(0), none);
    set(" gone  a b eth1 a-name-of-sixteen eth0");
    EXPECT_EQ(answer(0), none);
    EXPECT_EQ(log(), records{no_address("eth1")});
    set("eth0"); // too late
    EXPECT_EQ(answer(0), none);
    run("address add 10.0.0.200/8 dev eth1");
    EXPECT_EQ(answer(1), "10.0.0.200");
}

} // namespace
