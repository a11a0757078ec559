#include "device_test.hpp"

#include "ip_calculation.h"
#include "netmap.h"
#include "ucistate.h"

#include <cstdlib>
#include <memory>

#include <uci.h>

namespace {

/// An interface of the package "network", and what others see of its address or why they can't.
struct interface {
    const char *netmap, *ipaddr, *netmask, *netmapaddr;
    const char *address, *message;
};
const interface interfaces[] = {
    {"1", "0.2.3.4", "255.0.0.0", "10.0.0.0", "10.2.3.4", ""},           // network 0 would end the table
    {"0", "192.168.1.10", "255.255.255.0", "10.0.5.0", "10.0.5.10", ""}, // until the run-time state switches it on
    {"7x", "172.16.2.10", "255.255.0.0", "10.1.5.7", "10.1.2.10", ""},
    {"1", "172.16.3.10", "255.255.255.0", "10.2.3.0", "10.2.3.10", ""},
    {"0", "192.168.7.7", "255.255.255.0", "10.0.0.0", "192.168.7.7", ""},
    {"yes", "no address, and long", "255.0.0.0", "10.0.0.0", "no address, and", ""},
    {"1", "1.2.33", "255.0.0.0", "10.0.0.0", nullptr, "No ipaddr found for interface"},
    {"1", "1.2.3.4", "", "bad network", nullptr, "No netmask found for interface"},
    {"1", "1.2.3.4", "255.0.0.0", "", nullptr, "No netmapaddr found for interface"},
    {"1", "1.2.3.400", "bad mask", "bad network", nullptr, "Parsing ipaddr 1.2.3.400 failed"},
    {"1", "1.2.3.4", "bad mask", "bad network", nullptr, "Parsing netmaks bad mask failed"},
    {"1", "1.2.3.4", "255.0.0.0", "bad network", nullptr, "Parsing netmapaddr bad network failed"}};

const netmap_entry rules[] = {
    {0xC0A80100, 0x0A000500, 0xFFFFFF00}, {0xAC100000, 0x0A010000, 0xFFFF0000}, {0xAC100300, 0x0A020300, 0xFFFFFF00}};

using table_handle = std::unique_ptr<netmap_entry, decltype(&free)>;

class netmap : public device_test {
protected:
    static std::string name(std::size_t number) { return "i" + std::to_string(number); }

    static void write_network()
    {
        std::string package = "config alias\n option netmap 1\n option ipaddr 1.2.3.4\n option netmask 255.0.0.0\n"
                              " option netmapaddr 10.0.0.0\n";
        std::size_t number = 0;
        for (const interface &each : interfaces)
            package += "config interface " + name(number++) + "\n option netmap " + each.netmap + "\n option ipaddr '" +
                       each.ipaddr + "'\n option netmask '" + each.netmask + "'\n option netmapaddr '" +
                       each.netmapaddr + "'\n";
        write_file("/etc/config/network", package);
        write_file("/var/state/network", "network.i1.netmap=1\n");
    }

    static void expect_rules(const netmap_entry *table)
    {
        for (const netmap_entry &rule : rules) {
            EXPECT_EQ(table->network, rule.network);
            EXPECT_EQ(table->mapped_network, rule.mapped_network);
            EXPECT_EQ(table->netmask, rule.netmask);
            ++table;
        }
        EXPECT_EQ(table->network, 0U);
    }
};

TEST_F(netmap, mapped_interfaces_make_the_table_in_their_order)
{
    write_network();
    const table_handle table{netmap_load(), free};
    ASSERT_NE(table, nullptr);
    expect_rules(table.get());
    EXPECT_EQ(log(), records{info("state_load_network", "netmap.c")});
}

TEST_F(netmap, without_mapped_interfaces_the_table_is_empty)
{
    write_file("/etc/config/network", "");
    const table_handle table{netmap_load(), free};
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->network, 0U);
}

TEST_F(netmap, without_a_network_package_there_is_no_table)
{
    EXPECT_EQ(netmap_load(), nullptr);
    EXPECT_EQ(log(), (records{info("state_load_network", "netmap.c"),
                              error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c"),
                              warning("Loading UCI state failed", "netmap.c")}));
}

TEST_F(netmap, with_memory_refused_a_table_is_whole_or_not_there)
{
    write_network();
    int refused = 0;
    for (bool happened = true; happened;) {
        const allocation_refusal refuse{++refused};
        const table_handle table{netmap_load(), free};
        happened = refuse.happened();
        if (table)
            expect_rules(table.get());
        else
            EXPECT_TRUE(happened);
    }
    EXPECT_GT(refused, 2); // the table was made and grew
}

TEST_F(netmap, an_address_is_translated_by_the_first_rule_that_holds_it)
{
    const netmap_entry table[] = {rules[0], rules[1], rules[2], {}};
    const struct {
        const netmap_entry *table;
        const char *ip, *want;
    } cases[] = {{table, "192.168.1.77", "10.0.5.77"},
                 {table, "192.168.2.5", "192.168.2.5"},
                 {table, "172.16.3.5", "10.1.3.5"}, // the wider rule is earlier
                 {table + 3, "192.168.1.77", "192.168.1.77"},
                 {nullptr, "192.168.1.77", "192.168.1.77"}};
    for (const auto &[rules_used, ip, want] : cases)
        EXPECT_EQ(netmap_translate(rules_used, ip_parse(ip)), ip_parse(want)) << ip;
}

TEST_F(netmap, an_interface_tells_its_own_address_as_others_see_it)
{
    write_network();
    uci_context *ctx = nullptr;
    uci_package *network = nullptr;
    ASSERT_EQ(state_load_network(&ctx, &network), 0);
    std::size_t number = 0;
    for (const interface &each : interfaces) {
        uci_section *section = uci_lookup_section(ctx, network, name(number++).c_str());
        char buffer[] = "################";
        char *const want = each.address ? buffer : nullptr;
        EXPECT_EQ(get_network_ip(buffer, ctx, section), want) << each.message;
        EXPECT_STREQ(buffer, each.address ? each.address : "################") << each.message;
        EXPECT_EQ(log(), want ? records{} : records{warning(each.message, "netmap.c")});
    }
    char buffer[] = "################";
    uci_section *mapped = uci_lookup_section(ctx, network, "i2");
    EXPECT_EQ(get_network_ip(nullptr, ctx, mapped), nullptr);
    EXPECT_EQ(get_network_ip(buffer, nullptr, mapped), nullptr);
    EXPECT_EQ(get_network_ip(buffer, ctx, nullptr), nullptr);
    EXPECT_EQ(log(), records{});
    uci_free_context(ctx);
}

} // namespace
