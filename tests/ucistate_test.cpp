#include "device_test.hpp"

#include "uciconfig.h"
#include "ucistate.h"

#include <filesystem>

#include <uci.h>

namespace {

constexpr char network[] = "/etc/config/network", saved[] = "/tmp/.uci/network", state[] = "/var/state/network";

std::string taken(char *found)
{
    std::string result = found ? found : "(null)";
    free(found);
    return result;
}

class ucistate : public device_test {
protected:
    ~ucistate() override { uci_free_context(ctx); }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
};

TEST_F(ucistate, values_are_saved_in_the_state_folder_and_seen_by_state_lookups_alone)
{
    const std::string file = "config i lan\n option proto static\n", change = "network.lan.proto='saved'\n";
    write_file(network, file);
    write_file(saved, change);
    ASSERT_EQ(state_load_network(&ctx, &package), 0);
    uci_section *lan = uci_lookup_section(ctx, package, "lan");
    EXPECT_EQ(state_set_option(lan, "up", "%d", 1), 0);
    EXPECT_EQ(state_set_option(lan, "proto", "%s", "it's 100%n"), 0);
    EXPECT_EQ(state_set_option(lan, "cut", "%s", std::string(2000, 'x').c_str()), 0);
    EXPECT_FALSE(std::filesystem::exists(state));
    ASSERT_EQ(uci_save(ctx, package), UCI_OK);
    EXPECT_EQ(read_file(state), "network.lan.up='1'\nnetwork.lan.proto='it'\\''s 100%n'\nnetwork.lan.cut='" +
                                    std::string(1023, 'x') + "'\n");
    EXPECT_EQ(read_file(network) + read_file(saved), file + change);
    EXPECT_EQ(taken(state_lookup("network.%s.up", "lan")), "1");
    EXPECT_EQ(taken(config_lookup("network.%s.up", "lan")), "(null)");
    EXPECT_EQ(taken(state_lookup("network.lan.proto")), "it's 100%n");
    EXPECT_EQ(taken(config_lookup("network.lan.proto")), "saved");

    const char *none = nullptr;
    EXPECT_EQ(state_set_option(nullptr, "up", "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(lan, nullptr, "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(lan, "up", none, 1), UCI_ERR_INVAL);
    EXPECT_EQ(log(), records{});
}

TEST_F(ucistate, a_failed_load_leaves_the_outputs_as_they_were)
{
    auto *const old_package = package = reinterpret_cast<uci_package *>(this);
    EXPECT_EQ(state_load_network(&ctx, &package), -1);
    EXPECT_EQ(log(), (records{error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c")}));
    write_file("/etc/config/vandrel", "config a settings\nnonsense\n");
    EXPECT_EQ(state_load_vandrel(&ctx, &package), -1);
    EXPECT_EQ(log(), (records{error("Error loading state package vandrel", "ucistate.c"),
                              error("uci_load: : Parse error (invalid command) at line 2, byte 0", "uciconfig.c")}));
    EXPECT_EQ(state_load_vandrel(nullptr, &package), -1);
    EXPECT_TRUE(!ctx && package == old_package);
    EXPECT_EQ(log(), records{});
}
} // namespace
