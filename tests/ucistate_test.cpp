#include "device_test.hpp"

#include "uciconfig.h"
#include "ucistate.h"

#include <filesystem>

#include <uci.h>

namespace {

class ucistate : public device_test {
protected:
    ~ucistate() override { uci_free_context(ctx); }

    static std::string taken(char *found)
    {
        std::string result = found ? found : "(null)";
        free(found);
        return result;
    }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
};

TEST_F(ucistate, values_are_saved_in_the_state_folder_and_seen_by_state_lookups_alone)
{
    const std::string file = "config i lan\n", change = "network.lan.proto='saved'\n", state = "/var/state/network";
    write_file("/etc/config/network", file);
    write_file("/tmp/.uci/network", change);
    ASSERT_EQ(state_load_network(&ctx, &package), 0);
    uci_section *lan = uci_lookup_section(ctx, package, "lan");
    const char *none = nullptr;
    EXPECT_EQ(state_set_option(lan, "proto", "%s %d", "it's 100%n", 1), 0);
    EXPECT_EQ(state_set_option(lan, "cut", "%s", std::string(2000, 'x').c_str()), 0);
    EXPECT_EQ(state_set_option(nullptr, "up", "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(lan, nullptr, "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(lan, "up", none, 1), UCI_ERR_INVAL);
    EXPECT_FALSE(std::filesystem::exists(state));
    ASSERT_EQ(uci_save(ctx, package), UCI_OK);
    const std::string cut = "network.lan.cut='" + std::string(1023, 'x') + "'\n";
    EXPECT_EQ(read_file(state), "network.lan.proto='it'\\''s 100%n 1'\n" + cut);
    EXPECT_EQ(read_file("/etc/config/network") + read_file("/tmp/.uci/network"), file + change);
    EXPECT_EQ(taken(state_lookup("network.%s.proto", "lan")), "it's 100%n 1");
    EXPECT_EQ(taken(config_lookup("network.%s.proto", "lan")), "saved");
    EXPECT_EQ(log(), records{});
}

TEST_F(ucistate, a_failed_load_leaves_the_outputs_as_they_were)
{
    auto *const untouched = package = reinterpret_cast<uci_package *>(this);
    write_file("/etc/config/vandrel", "config a settings\nnonsense\n");
    EXPECT_EQ(state_load_network(&ctx, &package), -1);
    EXPECT_EQ(state_load_vandrel(&ctx, &package), -1);
    EXPECT_EQ(state_load_vandrel(nullptr, &package) + state_load_vandrel(&ctx, nullptr), -2);
    EXPECT_TRUE(!ctx && package == untouched);
    EXPECT_EQ(log(), (records{error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c"),
                              error("Error loading state package vandrel", "ucistate.c"),
                              error("uci_load: : Parse error (invalid command) at line 2, byte 0", "uciconfig.c")}));
}
} // namespace
