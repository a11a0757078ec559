#include "device_test.hpp"

#include "uciconfig.h"
#include "ucistate.h"

#include <filesystem>

#include <uci.h>

namespace {

constexpr char file[] = "/etc/config/vandrel", saved[] = "/tmp/.uci/vandrel", state[] = "/var/state/vandrel";

std::string taken(char *found)
{
    std::string result = found ? found : "(null)";
    free(found);
    return result;
}

class ucistate : public device_test {
protected:
    ~ucistate() override
    {
        if (ctx && package != untouched)
            uci_free_context(ctx);
    }

    void load()
    {
        ASSERT_EQ(state_load_vandrel(&ctx, &package), 0);
        settings = uci_lookup_section(ctx, package, "settings");
    }

    uci_package *const untouched = reinterpret_cast<uci_package *>(this);
    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *settings = nullptr;
};

TEST_F(ucistate, values_are_saved_in_the_state_folder_alone)
{
    const std::string configured = "config a settings\n", change = "vandrel.settings.t='saved'\n";
    write_file(file, configured);
    write_file(saved, change);
    load();
    EXPECT_EQ(state_set_option(settings, "t", "%s %d", "it's 100%n", 1), UCI_OK);
    EXPECT_FALSE(std::filesystem::exists(state));
    EXPECT_EQ(uci_save(ctx, package), UCI_OK);
    EXPECT_EQ(read_file(state), "vandrel.settings.t='it'\\''s 100%n 1'\n");
    EXPECT_EQ(read_file(file), configured);
    EXPECT_EQ(read_file(saved), change);
    EXPECT_EQ(log(), records{});
}

TEST_F(ucistate, run_time_values_win_over_saved_changes_which_win_over_the_file)
{
    write_file(file, "config a settings\n option a file\n option b file\n option c file\n");
    write_file(saved, "vandrel.settings.b='saved'\nvandrel.settings.c='saved'\n");
    write_file(state, "vandrel.settings.c='state'\nvandrel.settings.d='state'\n");
    const struct {
        const char *option, *as_state, *as_configuration;
    } cases[] = {{"a", "file", "file"}, {"b", "saved", "saved"}, {"c", "state", "saved"}, {"d", "state", "(null)"}};
    load();
    for (const auto &[option, as_state, as_configuration] : cases) {
        EXPECT_EQ(taken(state_lookup("vandrel.%s.%s", "settings", option)), as_state) << option;
        EXPECT_EQ(taken(config_lookup("vandrel.%s.%s", "settings", option)), as_configuration) << option;
        EXPECT_STREQ(uci_lookup_option_string(ctx, settings, option), as_state) << option;
    }
}

TEST_F(ucistate, an_empty_value_deletes_and_a_long_one_is_cut)
{
    write_file(file, "config a settings\n option gone v\n");
    load();
    EXPECT_EQ(state_set_option(settings, "gone", "%s", ""), UCI_OK);
    EXPECT_EQ(state_set_option(settings, "never", "%s", ""), UCI_OK);
    EXPECT_EQ(state_set_option(settings, "long", "%s", std::string(2000, 'x').c_str()), UCI_OK);
    EXPECT_EQ(uci_save(ctx, package), UCI_OK);
    EXPECT_EQ(read_file(state), "-vandrel.settings.gone\nvandrel.settings.long='" + std::string(1023, 'x') + "'\n");
    EXPECT_EQ(state_lookup("vandrel.settings.gone"), nullptr);
}

TEST_F(ucistate, what_can_not_be_set_gives_libucis_code)
{
    write_file(file, "config a settings\n");
    load();
    const char *no_format = nullptr; // that the compiler can't see through
    EXPECT_EQ(state_set_option(nullptr, "up", "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(settings, nullptr, "%d", 1), UCI_ERR_INVAL);
    EXPECT_EQ(state_set_option(settings, "up", no_format, 1), UCI_ERR_INVAL);
    const allocation_refusal refuse{1, "libuci.so"};
    EXPECT_EQ(state_set_option(settings, "up", "%d", 1), UCI_ERR_MEM);
    EXPECT_EQ(log(), records{});
}

TEST_F(ucistate, a_failed_load_leaves_the_outputs_as_they_were)
{
    auto *const no_context = ctx = reinterpret_cast<uci_context *>(this);
    package = untouched;
    write_file(file, "config a settings\nnonsense\n");
    EXPECT_EQ(state_load_network(&ctx, &package), -1);
    EXPECT_EQ(log(), (records{error("Error loading state package network", "ucistate.c"),
                              error("uci_load: : Entry not found", "uciconfig.c")}));
    EXPECT_EQ(state_load_vandrel(&ctx, &package), -1); // the last one, since libuci repeats the place of the mistake
    EXPECT_EQ(log(), (records{error("Error loading state package vandrel", "ucistate.c"),
                              error("uci_load: : Parse error (invalid command) at line 2, byte 0", "uciconfig.c")}));
    EXPECT_EQ(state_load_vandrel(nullptr, &package), -1);
    EXPECT_EQ(state_load_vandrel(&ctx, nullptr), -1);
    const allocation_refusal refuse{1, "libuci.so"}; // no context
    EXPECT_EQ(state_load_vandrel(&ctx, &package), -1);
    EXPECT_TRUE(refuse.happened());
    EXPECT_EQ(ctx, no_context);
    EXPECT_EQ(package, untouched);
    EXPECT_EQ(log(), records{});
}

} // namespace
