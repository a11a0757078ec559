#include "device_test.hpp"

#include "ip_calculation.h"
#include "netinfo.h"

#include <cstdarg>
#include <cstdlib>
#include <filesystem>

#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/syscall.h>

static unsigned long failing_request; // of ioctl; the library's own calls go through this one
#pragma GCC visibility push(default)
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return request == failing_request ? -1 : static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
#pragma GCC visibility pop

namespace {

constexpr char network_file[] = "/etc/config/network";
const record called = info("netinfo_get_lans", "netinfo.c");

class netinfo : public device_test {
protected:
    static void run(const char *command) { EXPECT_EQ(std::system(command), 0) << command; }
    static record warn(const std::string &text) { return warning(text, "netinfo.c"); }
};

//   br-lan 192.168.1.1/24 and 192.168.7.7/30        eth0 ---- eth1, without address
const char topology[] = "ip link add br-lan up type bridge && ip address add 192.168.1.1/24 dev br-lan &&"
                        "ip address add 192.168.7.7/30 dev br-lan && ip link add eth0 type veth peer name eth1";

TEST_F(netinfo, an_interface_has_its_first_address)
{
    run(topology);
    run("ip link add fifteen-letters type bridge && ip address add 10.0.0.1/8 dev fifteen-letters");
    const struct {
        const char *ifname;
        int want;
        uint32_t ip, netmask;
        records messages;
    } cases[] = {{"br-lan", 1, 0xC0A80101, 0xFFFFFF00, {}},
                 {"fifteen-letters, and more", 1, 0x0A000001, 0xFF000000, {}},
                 {"eth1", 0, 7, 8, {warn("Failed to get IP address for eth1")}},
                 {"gone, and long%s", 0, 7, 8, {warn("Failed to get IP address for gone, and long%s")}},
                 {nullptr, 0, 7, 8, {}}};
    for (const auto &[ifname, want, ip, netmask, messages] : cases) {
        netinfo_lan lan{"name", "ifname", "phys", "port", 7, 8};
        EXPECT_EQ(netinfo_get_if_info(&lan, ifname), want) << want;
        EXPECT_EQ(lan.ip, ip) << ifname;
        EXPECT_EQ(lan.netmask, netmask) << ifname;
        EXPECT_STREQ(lan.ifname, "ifname");
        EXPECT_EQ(log(), messages);
    }
    EXPECT_EQ(netinfo_get_if_info(nullptr, "br-lan"), 0);
    EXPECT_EQ(log(), records{});
    const int descriptors = open_descriptors();
    failing_request = SIOCGIFNETMASK; // as where the interface goes between the two questions
    netinfo_lan lan{};
    EXPECT_EQ(netinfo_get_if_info(&lan, "br-lan"), 0);
    EXPECT_EQ(log(), records{warn("Failed to get netmask for br-lan")});
    EXPECT_EQ(open_descriptors(), descriptors);
}

class route : public netinfo {
protected:
    /// Result, interface and gateway as text.
    static std::string find()
    {
        char ifname[] = "#################";
        uint32_t gateway = 0xFFFFFFFE;
        const int found = netinfo_get_default_route(ifname, &gateway);
        return std::to_string(found) + ' ' + ifname + ifname[16] + ip_format_s(gateway);
    }

    static constexpr char none[] = "0 ##################255.255.255.254";
};

/// The table is what write_table writes; before that there is none.
class replaced_route : public route {
protected:
    void SetUp() override
    {
        if (is_emulated())
            GTEST_SKIP() << "qemu-user answers reads of /proc/net/route itself";
        std::filesystem::create_directory("/tmp/net");
        ASSERT_EQ(mount("/tmp/net", "/proc/self/net", "", MS_BIND, nullptr), 0);
    }
    static void write_table(const std::string &text) { write_file("/tmp/net/route", text); }
};

TEST_F(route, the_kernels_default_route_needs_a_gateway)
{
    run(topology);
    run("ip route add default dev br-lan");
    EXPECT_EQ(find(), none);
    run("ip route add default via 192.168.1.9 metric 5");
    EXPECT_EQ(find(), "1 br-lan#192.168.1.9");
    EXPECT_EQ(log(), records{});
}

TEST_F(replaced_route, the_gateway_alone_or_nothing)
{
    write_table("header\neth0\t00000000\t0101A8C0\t3\t0\n");
    uint32_t gateway = 0;
    EXPECT_EQ(netinfo_get_default_route(nullptr, &gateway), 1);
    EXPECT_EQ(gateway, ntohl(0x0101A8C0));
    EXPECT_EQ(netinfo_get_default_route(nullptr, nullptr), 0);
}

TEST_F(replaced_route, the_default_route_is_among_the_first_five)
{
    const std::string other = "eth9\t0001A8C0\t0101A8C0\t3\t0\n", fields = "\t00000000\t0101A8C0\t3\t0\n";
    const std::string address = ip_format_s(ntohl(0x0101A8C0)); // the kernel's number is this machine's
    const std::string wide(128, ' ');                           // a line of its own
    const std::string tables[][2] = {{"eth0" + fields, "1 eth0#" + address},
                                     {other + other + other + other + "eth2" + fields, "1 eth2#" + address},
                                     {other + other + other + other + other + "eth2" + fields, none},
                                     {other + other + other + wide + "eth2" + fields, "1 eth2#" + address},
                                     {"eth1\t00000000\t0101A8C0\t3\t0\neth2" + fields, "1 eth1#" + address},
                                     {"\t\teth1\t" + fields, "1 eth1#" + address}, // empty fields do not count
                                     {"eth0\t00000000\neth1" + fields, "1 eth1#" + address},
                                     {"eth0\t00000000\t0101A8C0\t3\t0\t0\t0\t00000080\n", // half of all addresses
                                      "1 eth0#" + address},
                                     {"eth0\t00000001\t0101A8C0\t3\n", none},
                                     {"eth0\t0000000\t0101A8C0\t3\n", none},
                                     {"eth0\t00000000\t00000000\t3\n", none},
                                     {"eth0\t00000000\tzz\n", none}, // no flags
                                     {"eth0\t00000000\tzzzzzzzz\t3\n", "1 eth0#0.0.0.0"},
                                     {"fifteen-letters" + fields, "1 fifteen-letters#" + address},
                                     {"sixteen-letters-" + fields, "1 #" + address},
                                     {"", none}};
    EXPECT_EQ(find(), none); // without a table
    for (const auto &[routes, want] : tables) {
        write_table("eth0" + fields + routes); // the first line is always the header
        EXPECT_EQ(find(), want) << routes;
    }
    EXPECT_EQ(log(), (records{warn("parsing gateway failed: zz\n"), warn("parsing gateway failed: zzzzzzzz")}));
}

TEST_F(replaced_route, the_bearer_is_told_by_the_interface)
{
    const std::pair<const char *, int> cases[] = {
        {"3g-wan3", NETINFO_BEARER_MOBILE},   {"3g-wan30", NETINFO_BEARER_UNKNOWN}, {"wwan0", NETINFO_BEARER_MOBILE},
        {"wwa", NETINFO_BEARER_UNKNOWN},      {"br-wan", NETINFO_BEARER_ETHERNET},  {"br-wanx", NETINFO_BEARER_UNKNOWN},
        {"br-lan2", NETINFO_BEARER_ETHERNET}, {"eth0.1", NETINFO_BEARER_ETHERNET},  {"wlan0", NETINFO_BEARER_UNKNOWN}};
    EXPECT_EQ(netinfo_get_bearer_type(), NETINFO_BEARER_UNKNOWN);
    EXPECT_EQ(log(), records{warn("Could not get network interface")});
    for (const auto &[ifname, want] : cases) {
        write_table("header\n" + std::string{ifname} + "\t00000000\tzz\tflags\n");
        EXPECT_EQ(netinfo_get_bearer_type(), want) << ifname;
    }
    EXPECT_EQ(log(), records{}); // nobody asked for the gateway
}

class lans : public netinfo {
protected:
    ~lans() override { free(list); }

    netinfo_lan *list = nullptr;
    int count = -1;
};

TEST_F(lans, without_the_package_nothing_is_written)
{
    netinfo_lan some{};
    netinfo_lan *untouched = &some;
    EXPECT_EQ(netinfo_get_lans(&untouched, &count), 0);
    EXPECT_EQ(untouched, &some);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(log(), (records{called, error("Failed loading package network: Entry not found", "uciconfig.c")}));
    write_file(network_file, "config interface lan\n option type bridge\n option proto none\n");
    EXPECT_EQ(netinfo_get_lans(nullptr, &count), 0);
    EXPECT_EQ(netinfo_get_lans(&untouched, nullptr), 0);
    EXPECT_EQ(untouched, &some);
    EXPECT_EQ(count, -1);
    EXPECT_EQ(log(), (records{called, called}));
}

TEST_F(lans, no_lan_is_an_empty_list)
{
    write_file(network_file, "config interface wan\n option type bridge\nconfig interface wan2\n option type bridge\n"
                             "config interface guest\n list type bridge\nconfig interface lan4\n option type bridge2\n"
                             "config interface lan5\nconfig alias lan3\n option type bridge\n");
    list = reinterpret_cast<netinfo_lan *>(this);
    EXPECT_EQ(netinfo_get_lans(&list, &count), 1);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(log(), records{called});
}

TEST_F(lans, bridges_are_listed_with_address_device_and_port)
{
    run(topology);
    write_file(network_file,
               "config interface lan\n option type bridge\n option ifname 'eth0.1 eth1'\n option ipaddr 10.9.9.9\n"
               " option netmask 255.0.0.0\n"
               "config interface lan2\n option type bridge\n option proto none\n option ipaddr 10.1.1.1\n"
               " option ifname eth0.2\n"
               "config interface wax\n option type bridge\n option proto static\n option netmask 255.0.0.0\n"
               "config interface sixteen_letters_\n option type bridge\n option ipaddr 10.2.3.4\n"
               " option netmask bad\n option ifname wlan0\n");
    const netinfo_lan want[] = {{"lan", "br-lan", "eth0.1", "lan1", 0xC0A80101, 0xFFFFFF00},
                                {"lan2", "br-lan2", "", "", 0, 0},
                                {"wax", "br-wax", "", "", 0, 0xFF000000}, // no "wan"
                                {"sixteen_letters", "br-sixteen_lett", "wlan0", "", 0x0A020304, 0xFFFFFFFF}};
    EXPECT_EQ(netinfo_get_lans(&list, &count), 1);
    EXPECT_EQ(log(), (records{called, warn("Failed to get IP address for br-wax"),
                              warn("Failed to get IP address for br-sixteen_lett"),
                              error("Too long LAN prefix name", "netutil.c")}));
    ASSERT_EQ(count, 4);
    for (int i = 0; i < count; ++i) {
        EXPECT_STREQ(list[i].name, want[i].name);
        EXPECT_STREQ(list[i].ifname, want[i].ifname);
        EXPECT_STREQ(list[i].phys_ifname, want[i].phys_ifname);
        EXPECT_STREQ(list[i].portname, want[i].portname);
        EXPECT_EQ(list[i].ip, want[i].ip) << want[i].name;
        EXPECT_EQ(list[i].netmask, want[i].netmask) << want[i].name;
    }
}

TEST_F(lans, without_memory_there_is_no_list)
{
    std::string file;
    for (const char *name : {"a", "b", "c"})
        file += std::string{"config interface "} + name + "\n option type bridge\n option proto none\n";
    write_file(network_file, file);
    int failed = 0;
    bool happened = true;
    for (int n = 1; happened; ++n) {
        count = -1;
        list = nullptr;
        const allocation_refusal refuse{n};
        const int result = netinfo_get_lans(&list, &count);
        happened = refuse.happened();
        failed += result == 0;
        if (!happened) { // an allocation of the log's own may be refused too
            EXPECT_EQ(result, 1) << n;
        }
        EXPECT_EQ(count, result == 1 ? 3 : -1) << n;
        EXPECT_EQ(list != nullptr, result == 1) << n;
        free(list);
        log();
    }
    EXPECT_EQ(failed, 3); // room for one, two and four
    list = nullptr;
}

TEST_F(lans, are_found_by_port_and_by_bridge)
{
    netinfo_lan all[] = {{"lan", "br-lan", "eth0.1", "lan1", 0, 0},
                         {"lan2", "br-lan2", "eth0.2", "lan2", 0, 0},
                         {"again", "br-lan", "eth0.1", "lan1", 0, 0}};
    EXPECT_EQ(netinfo_find_by_portname(all, 3, "lan1"), all);
    EXPECT_EQ(netinfo_find_by_portname(all, 3, "lan2"), all + 1);
    EXPECT_EQ(netinfo_find_by_portname(all, 1, "lan2"), nullptr);
    EXPECT_EQ(netinfo_find_by_portname(all, -1, "lan1"), nullptr);
    EXPECT_EQ(netinfo_find_by_portname(all, 3, nullptr), nullptr);
    EXPECT_EQ(netinfo_find_by_portname(nullptr, 3, "lan1"), nullptr);
    EXPECT_EQ(netinfo_find_by_ifname(all, 3, "br-lan"), all);
}

TEST_F(lans, have_a_network_that_may_be_mapped)
{
    const netmap_entry table[] = {{0xC0A80100, 0x0A0A0100, 0xFFFFFF00}, {}};
    const netinfo_lan lan{"lan", "br-lan", "", "", 0xC0A80101, 0xFFFFFF00};
    uint32_t network = 0, netmask = 0;
    EXPECT_EQ(netinfo_get_route(&network, &netmask, table, &lan), 1);
    EXPECT_EQ(network, 0x0A0A0100U);
    EXPECT_EQ(netmask, 0xFFFFFF00);
    EXPECT_EQ(netinfo_get_route(&network, nullptr, nullptr, &lan), 1);
    EXPECT_EQ(network, 0xC0A80100);
    EXPECT_EQ(log(), records{});
}

TEST_F(lans, without_address_or_netmask_have_no_network)
{
    const netinfo_lan no_ip{"lan", "br-lan", "", "", 0, 0xFFFFFF00};
    const netinfo_lan no_netmask{"lan2", "br-lan2", "", "", 0xC0A80101, 0};
    uint32_t network = 7, netmask = 8;
    EXPECT_EQ(netinfo_get_route(&network, &netmask, nullptr, &no_ip), 0);
    EXPECT_EQ(log(), records{warn("No IP or netmask for br-lan")});
    EXPECT_EQ(netinfo_get_route(&network, &netmask, nullptr, &no_netmask), 0);
    EXPECT_EQ(log(), records{warn("No IP or netmask for br-lan2")});
    EXPECT_EQ(netinfo_get_route(&network, &netmask, nullptr, nullptr), 0);
    EXPECT_EQ(network, 7U);
    EXPECT_EQ(netmask, 8U);
    const netinfo_lan lan{"lan", "br-lan", "", "", 0xC0A80101, 0xFFFFFF00};
    EXPECT_EQ(netinfo_get_route(nullptr, &netmask, nullptr, &lan), 0);
    EXPECT_EQ(netmask, 8U);
    EXPECT_EQ(log(), records{});
}

TEST_F(netinfo, own_lan_address_is_looked_for_in_five_named_interfaces)
{
    const record no_address = warn("Failed to get IP address for eth1");
    const struct {
        const char *happens;
        std::string want; // empty: there is none
        records messages;
    } steps[] = {{topology, "192.168.1.1", {}},
                 {"ip link delete br-lan && ip address add 10.0.0.1/8 dev eth0", "10.0.0.1", {}},
                 {"echo \"config vandrel settings\n option lan_networks '  '\" >/etc/config/vandrel", "", {}},
                 {"sed -i \"s/'.*'/' gone  a b eth1 a-name-of-sixteen eth0'/\" /etc/config/vandrel",
                  "",
                  {no_address}},                                                    // the sixth
                 {"sed -i \"s/'.*'/eth0/\" /etc/config/vandrel", "", {no_address}}, // too late
                 {"ip address add 10.0.0.200/8 dev eth1", "10.0.0.200", {}}};
    for (const auto &[happens, want, messages] : steps) {
        run(happens);
        char buffer[16] = "";
        EXPECT_EQ(netinfo_get_my_lan_ip(buffer), want.empty() ? 0 : 1) << happens;
        EXPECT_EQ(buffer, want) << happens;
        EXPECT_EQ(log(), messages) << happens;
    }
    EXPECT_EQ(netinfo_get_my_lan_ip(nullptr), 0);
}

TEST_F(netinfo, the_fifth_named_interface_counts)
{
    run(topology);
    write_file("/etc/config/vandrel",
               "config vandrel settings\n list lan_networks 'a b'\n list lan_networks 'c d br-lan'\n");
    char buffer[16] = "";
    EXPECT_EQ(netinfo_get_my_lan_ip(buffer), 1);
    EXPECT_STREQ(buffer, "192.168.1.1");
}

} // namespace
