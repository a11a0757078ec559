#include "device_test.hpp"

#include "uciconfig.h"
#include "ucistate.h"

#include <filesystem>

#include <uci.h>

namespace {

class ucistate : public device_test {
protected:
    ~ucistate() override { uci_free_context(ctx); }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
};

TEST_F(ucistate, values_are_saved_in_the_state_folder_and_seen_by_state_lookups_alone)
{
    const std::string file = "config a settings\n", change = "vandrel.settings.t='saved'\n";
    write_file("/etc/config/vandrel", file);
    write_file("/tmp/.uci/vandrel", change);
    ASSERT_EQ(state_load_vandrel(&ctx, &package), 0);
    uci_section *settings = uci_lookup_section(ctx, package, "settings");
    const char *no_format = nullptr; // that the compiler can't see through
    EXPECT_EQ((std::vector{state_set_option(settings, "t", "%s %d", "it's 100%n", 1),
                           state_set_option(settings, "cut", "%s", std::string(2000, 'x').c_str()),
                           state_set_option(nullptr, "up", "%d", 1), state_set_option(settings, nullptr, "%d", 1),
                           state_set_option(settings, "up", no_format, 1)}),
              (std::vector<int>{0, 0, UCI_ERR_INVAL, UCI_ERR_INVAL, UCI_ERR_INVAL}));
    EXPECT_FALSE(std::filesystem::exists("/var/state/vandrel"));
    ASSERT_EQ(uci_save(ctx, package), UCI_OK);
    const std::string cut = "vandrel.settings.cut='" + std::string(1023, 'x') + "'\n";
    EXPECT_EQ(read_file("/var/state/vandrel"), "vandrel.settings.t='it'\\''s 100%n 1'\n" + cut);
    EXPECT_EQ(read_file("/etc/config/vandrel") + read_file("/tmp/.uci/vandrel"), file + change);
    char *const texts[] = {state_lookup("vandrel.%s.t", "settings"), config_lookup("vandrel.%s.t", "settings")};
    EXPECT_STREQ(texts[0], "it's 100%n 1");
    EXPECT_STREQ(texts[1], "saved");
    free(texts[0]);
    free(texts[1]);
    EXPECT_EQ(log(), records{});
}

TEST_F(ucistate, a_failed_load_leaves_the_outputs_as_they_were)
{
    auto *const untouched = package = reinterpret_cast<uci_package *>(this);
    write_file("/etc/config/vandrel", "config a settings\nnonsense\n");
    EXPECT_EQ(state_load_network(&ctx, &package) + state_load_vandrel(&ctx, &package), -2);
    EXPECT_EQ(state_load_vandrel(nullptr, &package) + state_load_vandrel(&ctx, nullptr), -2);
    for (const bool looking_up : {false, true}) {
        const allocation_refusal refuse{1, "libuci.so"}; // no context
        EXPECT_TRUE(looking_up ? !state_lookup("vandrel.a.b") : state_load_vandrel(&ctx, &package) == -1);
        EXPECT_TRUE(refuse.happened());
    }
    EXPECT_TRUE(!ctx && package == untouched);
    EXPECT_EQ(log(), (records{error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c"),
                              error("Error loading state package vandrel", "ucistate.c"),
                              error("uci_load: : Parse error (invalid command) at line 2, byte 0", "uciconfig.c")}));
}

} // namespace
