#include "device_test.hpp"

#include "netmap.h"
#include "ucistate.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include <uci.h>

namespace {

class netmap : public device_test {};

TEST_F(netmap, interfaces_with_a_mapping_make_the_table_and_tell_their_mapped_address)
{
    // netmap, ipaddr, netmask, netmapaddr, and then the interface's address as others see it or why there is none
    const char *const interfaces[][5] = {
        {"1", "0.2.3.4", "255.0.0.0", "10.0.0.0", "10.2.3.4"},           // network 0 would end the table
        {"0", "192.168.1.10", "255.255.255.0", "10.0.5.0", "10.0.5.10"}, // until the run-time state switches it on
        {"7x", "172.16.2.10", "255.255.0.0", "10.1.5.7", "10.1.2.10"},
        {"1", "172.16.3.10", "255.255.255.0", "10.2.3.0", "10.2.3.10"},
        {"yes", "no address, and long", "255.0.0.0", "10.0.0.0", "no address, and"},
        {"1", "1.2.3", "255.0.0.0", "10.0.0.0", "No ipaddr found for interface"},
        {"1", "1.2.3.4", "255.0", "10.0.0.0", "No netmask found for interface"},
        {"1", "1.2.3.4", "255.0.0.0", "", "No netmapaddr found for interface"},
        {"1", "1.2.3.400", "bad mask", "bad network", "Parsing ipaddr 1.2.3.400 failed"},
        {"1", "1.2.3.4", "bad mask", "bad network", "Parsing netmaks bad mask failed"},
        {"1", "1.2.3.4", "255.0.0.0", "bad network", "Parsing netmapaddr bad network failed"}};
    std::string package = "config alias\n option netmap 1\n option ipaddr 1.2.3.4\n option netmask 255.0.0.0\n"
                          " option netmapaddr 10.0.0.0\n";
    char name[] = "a";
    for (const auto &[mapped, ipaddr, netmask, netmapaddr, own] : interfaces) {
        package += std::string{"config interface "} + name + "\n option netmap " + mapped + "\n option ipaddr '" +
                   ipaddr + "'\n option netmask '" + netmask + "'\n option netmapaddr '" + netmapaddr + "'\n";
        ++*name;
    }
    EXPECT_EQ(netmap_load(), nullptr);
    const records failure = log(); // the two between are those of the state
    EXPECT_TRUE(failure.size() == 4 && failure[0] == info("state_load_network", "netmap.c"));
    EXPECT_EQ(failure.back(), warning("Loading UCI state failed", "netmap.c"));
    write_file("/etc/config/network", package);
    write_file("/var/state/network", "network.b.netmap=1\n");

    uci_context *ctx = nullptr;
    uci_package *network = nullptr;
    ASSERT_EQ(state_load_network(&ctx, &network), 0);
    *name = 'a';
    for (const auto &entry : interfaces) {
        char buffer[] = "################";
        const bool told = get_network_ip(buffer, ctx, uci_lookup_section(ctx, network, name)) == buffer;
        EXPECT_STREQ(buffer, told ? entry[4] : "################") << name;
        EXPECT_EQ(log(), told ? records{} : records{warning(entry[4], "netmap.c")}) << name;
        ++*name;
    }
    uci_free_context(ctx);

    const uint32_t rules[10] = {0xC0A80100, 0x0A000500, 0xFFFFFF00, 0xAC100000, 0x0A010000,
                                0xFFFF0000, 0xAC100300, 0x0A020300, 0xFFFFFF00, 0};
    bool more = true; // with each allocation refused in turn, a table is whole or not there
    for (int n = 1; more; ++n) {
        const allocation_refusal refuse{n};
        const std::unique_ptr<netmap_entry, decltype(&free)> table{netmap_load(), free};
        more = refuse.happened();
        EXPECT_TRUE(table ? std::memcmp(table.get(), rules, sizeof rules) == 0 : more) << n;
        EXPECT_EQ(netmap_translate(table.get(), 0xC0A8014D), table ? 0x0A00054D : 0xC0A8014D);
        EXPECT_EQ(netmap_translate(table.get(), 0xAC100305), table ? 0x0A010305 : 0xAC100305); // by the wider rule
    }
}

} // namespace
