#include "device_test.hpp"

#include "netmap.h"
#include "ucistate.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include <uci.h>

namespace {

class netmap : public device_test {};

using table = std::unique_ptr<netmap_entry, decltype(&free)>;

TEST_F(netmap, interfaces_with_a_mapping_make_the_table_and_tell_their_mapped_address)
{
    const struct {
        const char *netmap, *ipaddr, *netmask, *netmapaddr; // netmap is run-time state
        const char *own;                                    // the interface's address, or else the reason
    } interfaces[] = {
        {"1", "192.168.1.10", "255.255.255.0", "10.0.5.0", "10.0.5.10"},
        {"7x", "172.16.2.10", "255.255.0.0", "10.1.5.7", "10.1.2.10"},
        {"1", "172.16.3.10", "255.255.255.0", "10.2.3.0", "10.2.3.10"}, // in the shadow of the wider rule
        {"1", "0.2.3.4", "255.0.0.0", "10.0.0.0", "10.2.3.4"},          // makes no rule, which would end the table
        {"yes", "192.168.1.10", "255.255.255.0", "10.0.5.0", "192.168.1.10"},
        {"0", "no address, and long", "", "", "no address, and"},
        {"1", "1.2.3", "", "", "No ipaddr found for interface"},
        {"1", "1.2.3.4", "255.0", "", "No netmask found for interface"},
        {"1", "1.2.3.4", "255.0.0.0", "", "No netmapaddr found for interface"},
        {"1", "1.2.3.400", "bad mask", "bad network", "Parsing ipaddr 1.2.3.400 failed"},
        {"1", "1.2.3.4", "bad mask", "bad network", "Parsing netmaks bad mask failed"},
        {"1", "1.2.3.4", "255.0.0.0", "bad network", "Parsing netmapaddr bad network failed"},
    };
    std::string package;
    std::string state;
    for (char name = 'a'; const auto &[mapped, ipaddr, netmask, netmapaddr, own] : interfaces) {
        package += "config interface " + std::string{name} + "\n option ipaddr '" + ipaddr + "'\n option netmask '" +
                   netmask + "'\n option netmapaddr '" + netmapaddr + "'\n";
        state += "network." + std::string{name++} + ".netmap=" + mapped + "\n";
    }
    write_file("/etc/config/network", package + "config alias\n option netmap 1\n option ipaddr 1.2.3.4\n"
                                                " option netmask 255.0.0.0\n option netmapaddr 10.0.0.0\n");
    write_file("/var/state/network", state);

    const netmap_entry want[] = {{0xC0A80100, 0x0A000500, 0xFFFFFF00}, // 192.168.1.0 as 10.0.5.0
                                 {0xAC100000, 0x0A010000, 0xFFFF0000}, // 172.16.0.0 as 10.1.0.0
                                 {0xAC100300, 0x0A020300, 0xFFFFFF00},
                                 {}};
    const auto is_whole = [&](const netmap_entry *got) { return std::memcmp(got, want, sizeof want - 8) == 0; };
    const table rules{netmap_load(), free};
    ASSERT_TRUE(is_whole(rules.get()));
    EXPECT_EQ(log(), (records{info("state_load_network", "netmap.c")}));
    const uint32_t addresses[][2] = {{0xC0A8014D, 0x0A00054D}, {0xAC100305, 0x0A010305}, {0x0A000001, 0x0A000001}};
    for (const auto &[address, translated] : addresses)
        EXPECT_EQ(netmap_translate(want, address), translated);

    uci_context *ctx = nullptr;
    uci_package *network = nullptr;
    ASSERT_EQ(state_load_network(&ctx, &network), 0);
    for (char name[] = "a"; const auto &entry : interfaces) {
        char buffer[] = "################";
        const bool told = get_network_ip(buffer, ctx, uci_lookup_section(ctx, network, name)) == buffer;
        EXPECT_STREQ(buffer, told ? entry.own : "################") << name;
        EXPECT_EQ(log(), told ? records{} : records{warning(entry.own, "netmap.c")}) << name;
        ++*name;
    }
    uci_free_context(ctx);

    int refused = 0; // at least its blocks of 2 and 4 rules
    for (bool more = true; more;) {
        const allocation_refusal refuse{refused + 1};
        const table loaded{netmap_load(), free};
        EXPECT_TRUE(!loaded || is_whole(loaded.get()));
        more = refuse.happened();
        refused += more ? 1 : 0;
    }
    EXPECT_GT(refused, 2);
}

TEST_F(netmap, device_without_network_package_has_no_table)
{
    EXPECT_EQ(netmap_load(), nullptr);
    EXPECT_EQ(log(), (records{info("state_load_network", "netmap.c"),
                              error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c"),
                              warning("Loading UCI state failed", "netmap.c")}));
}

} // namespace
