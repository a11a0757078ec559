#include "device_test.hpp"

#include "uciconfig.h"

#include <filesystem>
#include <optional>

#include <sys/mount.h>
#include <uci.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using text = std::optional<std::string>;

constexpr char odd_text[] = "100%s%n 'its' \"\\\"\n\t$(x);#\xff";
constexpr char settings[] = "/etc/config/vandrel", network[] = "/etc/config/network", changes[] = "/tmp/.uci/vandrel";

text taken(char *found)
{
    text result = found ? text{found} : std::nullopt;
    free(found);
    return result;
}

records failures(const std::vector<std::string> &texts)
{
    records result;
    for (const std::string &what : texts)
        result.push_back(error(what, "uciconfig.c"));
    return result;
}

class uciconfig : public device_test {
protected:
    ~uciconfig() override { uci_free_context(ctx); }

    void load_network(const char *section_name)
    {
        uci_free_context(ctx);
        ASSERT_EQ(config_load_network(&ctx, &package, section_name, &section), 0);
    }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *const untouched = reinterpret_cast<uci_section *>(this);
    uci_section *section = untouched;
    const char *none = nullptr; // a format that the compiler can't see through
};

TEST_F(uciconfig, lookup_gives_text_or_joined_items_and_is_silent_about_the_rest)
{
    const std::string name(1022 - sizeof "vandrel.settings", 'n');
    write_file(settings,
               "config a settings\n option t 'a%s \"\\\n\t;#\x01\xff'\n option " + name + " cut\n list e ''\n" +
                   " list f ''\n list f x\n list g a\n list g ''\n list g b\nconfig b\n option o b\nconfig b");
    write_file("/etc/config/broken", "config a settings\n option t 1\nnonsense\n");
    const std::pair<std::string, const char *> cases[] = {{"vandrel.settings.t", "a%s \"\\\n\t;#\x01\xff"},
                                                          {"vandrel.settings.e", ""},
                                                          {"vandrel.settings.f", "x"},
                                                          {"vandrel.settings.g", "a  b"},
                                                          {"vandrel.@b[0].o", "b"},
                                                          {"vandrel.@b[-2].o", "b"},
                                                          {"vandrel.settings." + name + "nn", "cut"}};
    for (const auto &[path, want] : cases)
        EXPECT_EQ(taken(config_lookup("%s", path.c_str())), want) << path;
    for (const char *path :
         {"vandrel.@b[1].o", "vandrel.settings.x", "vandrel.x.t", "x.settings.t", "vandrel.settings", "vandrel", "",
          "vandrel.settings.t.t", "vandrel.@b[x].o", "vandrel..t", "broken.settings.t"})
        EXPECT_EQ(taken(config_lookup("%s", path)), text{}) << path;
    EXPECT_EQ(taken(config_lookup(none, 1)), text{});
    EXPECT_EQ(taken(config_get_section_setting("vandrel", nullptr, "f")), "x");
    EXPECT_EQ(taken(config_get_section_setting("vandrel", "@b[0]", "o")), "b");
    EXPECT_EQ(taken(config_get_section_setting(nullptr, "settings", "f")), text{});
    EXPECT_EQ(taken(config_get_section_setting("vandrel", "settings", nullptr)), text{});
    EXPECT_EQ(log(), records{});
    const auto bytes = __sanitizer_get_current_allocated_bytes();
    const int descriptors = open_descriptors();
    for (int i = 0; i < 1000; ++i) {
        for (const char *path : {"vandrel.settings.t", "vandrel.settings.g", "vandrel.settings.x", "broken.x.y"})
            free(config_lookup("%s", path));
        free(state_lookup("vandrel.settings.t"));
    }
    EXPECT_EQ(__sanitizer_get_current_allocated_bytes(), bytes);
    EXPECT_EQ(open_descriptors(), descriptors);
    for (const char *option : {"t", "g"}) {
        const allocation_refusal refuse{1};
        EXPECT_EQ(taken(config_get_setting(option)), text{});
        EXPECT_EQ(log(), failures({"config_lookup: Allocating memory failed: Cannot allocate memory"}));
    }
}

TEST_F(uciconfig, typed_options)
{
    using answers = std::tuple<int, int, uint32_t, int>;
    const std::pair<const char *, answers> cases[] = {{"option o 12abc", {12, 1, 0xFFFFFFFF, 0}},
                                                      {"option o true", {0, 0, 0xFFFFFFFF, 0}},
                                                      {"option o -5", {-5, 0, 0xFFFFFFFF, 0}},
                                                      {"option o 1", {1, 1, 1, 1}},
                                                      {"option o ' 1'", {1, 1, 0xFFFFFFFF, 0}},
                                                      {"option o 10.0.0.1", {10, 1, 0x0A000001, 0}},
                                                      {"list o 1", {-1, 0, 0, 1}},
                                                      {"option other 1", {-1, 0, 0, 0}}};
    for (const auto &[line, want] : cases) {
        write_file(network, std::string{"config interface lan\n "} + line);
        write_file(settings, std::string{"config a settings\n "} + line);
        load_network("lan");
        EXPECT_EQ(answers(uci_lookup_option_int(ctx, section, "o"), uci_lookup_option_bool(ctx, section, "o"),
                          uci_lookup_option_ip(ctx, section, "o"), config_get_setting_bool("o")),
                  want)
            << line;
    }
    EXPECT_EQ(answers(uci_lookup_option_int(nullptr, section, "o"), uci_lookup_option_bool(ctx, nullptr, "o"),
                      uci_lookup_option_ip(ctx, section, nullptr), config_get_setting_bool(nullptr)),
              answers(-1, 0, 0, 0));
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, loading_a_package)
{
    EXPECT_EQ(config_load(&ctx, &package, &section), -1);
    EXPECT_TRUE(!ctx && !package && !section);
    section = untouched;
    write_file(network, "config interface lan\n");
    load_network(nullptr);
    EXPECT_EQ(log(), failures({"Failed loading package vandrel: Entry not found"}));
    load_network("50%s");
    EXPECT_EQ(section, untouched);
    EXPECT_EQ(config_load_network(nullptr, &package, "lan", &section), -1);
    EXPECT_TRUE(!package && !section);
    load_network("lan");
    EXPECT_STREQ(section->e.name, "lan");
    ucierr(nullptr, "%s", std::string(1100, '%').c_str());
    ucierr(ctx, none, 1);
    EXPECT_EQ(log(), failures({"Loading section network.50%s: Entry not found",
                               std::string(1022, '%') + ": Invalid argument", "Success"}));
}

TEST_F(uciconfig, changes_stay_in_memory_until_a_commit)
{
    const std::string file = "# mine\nconfig i\n option key 1\n option a old\n list l x\nconfig i two\n option key 1\n";
    write_file(network, file);
    load_network("two");
    const auto set = [this](const char *type, const char *key, const char *key_value, bool commit) {
        return uci_set_section_option(ctx, package, type, key, key_value, "a", "new", commit);
    };
    EXPECT_EQ((std::vector{set("i", "key", "1", false), set("i", "key", "1", false), set("i", "no", "x", false),
                           set("i", "l", "x", false), set("i", none, "x", false), set(none, "key", "1", false)}),
              (std::vector{0, 2, 1, 1, 1, 1}));
    EXPECT_EQ(uci_delete_option(section, "key", true), 0);
    EXPECT_EQ(uci_delete_option(section, "key", false), 0);
    uci_section *host = config_add_section(ctx, package, "host", nullptr);
    EXPECT_EQ(config_set_string(ctx, nullptr, host, "odd", odd_text, false), 0);
    EXPECT_STREQ(config_add_section(ctx, package, "host", "made")->e.name, "made");
    EXPECT_EQ(config_add_section(ctx, nullptr, "host", nullptr), nullptr);
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(uci_delete_option(section, "50%s", true), -1);
    EXPECT_EQ(uci_delete_option(section, nullptr, true), -1);
    EXPECT_EQ(config_add_section(ctx, package, "a b", "made"), nullptr);
    EXPECT_EQ(config_set_string(ctx, package, nullptr, "a", "b", true), 1);
    EXPECT_EQ(log(), failures({"50%s: Entry not found", ": Invalid argument", "Couldn't set section: Invalid argument",
                               "missing some arguments"}));
    EXPECT_EQ(read_file(network), file);
    EXPECT_FALSE(std::filesystem::exists("/tmp/.uci"));
    EXPECT_EQ(set("i", "key", "1", true), 0);
    EXPECT_EQ(read_file(network), "\nconfig i\n\toption key '1'\n\toption a 'new'\n\tlist l 'x'\n\nconfig i 'two'\n\n"
                                  "config host\n\toption odd '100%s%n '\\''its'\\'' \"\\\"\n\t$(x);#\xff'\n\n"
                                  "config host 'made'\n\n");
    EXPECT_EQ(taken(config_lookup("network.@host[0].odd")), odd_text);
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/.uci/network"));
}

TEST_F(uciconfig, one_call_sets_or_deletes_saves_and_commits)
{
    const std::string a = "\toption a 'b'\n", l = "\tlist l 'x'\n", foo = "\toption foo 'bar'\n";
    const std::string no_section = "Loading section vandrel.no%s: Entry not found";
    const std::tuple<const char *, const char *, const char *, int, std::string, std::vector<std::string>> cases[] = {
        {"settings", "foo", "bar", 0, a + l + foo, {}},
        {nullptr, "foo", "bar", 0, a + l + foo, {}},
        {nullptr, "l", nullptr, 0, a + foo, {}},
        {nullptr, "l", nullptr, 2, a + foo, {}},
        {nullptr, "foo", "", 0, a, {}},
        {"no%s", "a", "b", 1, a, {no_section, "missing some arguments"}},
        {"no%s", "a", nullptr, 2, a, {no_section}},
        {nullptr, nullptr, "b", 1, a, {"Invalid input to config_set_config_setting_string()"}},
        {nullptr, "a", nullptr, 0, "", {}}};
    write_file(settings, "config a settings # mine\n option a b\n list l x\n");
    for (const auto &[name, option, value, result, options, messages] : cases) {
        EXPECT_EQ(config_set_section_setting_string("vandrel", name, option, value), result) << options;
        EXPECT_EQ(read_file(settings), "\nconfig a 'settings'\n" + options + "\n");
        EXPECT_TRUE(std::filesystem::is_empty(changes) && std::filesystem::is_empty("/var/state"));
        EXPECT_EQ(log(), failures(messages));
    }
    EXPECT_EQ(config_set_section_setting_string("no%s", nullptr, "a", "b"), 1);
    EXPECT_EQ(log(), failures({"Failed loading package no%s: Entry not found", "loading no%s.settings failed"}));
}

TEST_F(uciconfig, what_can_not_be_saved_or_committed_fails)
{
    const std::string file = "config a settings\n\toption a b\n";
    write_file(settings, file);
    write_file("/tmp/.uci", "no folder");
    EXPECT_EQ(config_set_vandrel_setting_string("a", "new"), 1);
    EXPECT_EQ(config_set_vandrel_setting_string("a", nullptr), 1);
    EXPECT_EQ(log(), failures({"Save failed: I/O error", "failed"}));
    std::filesystem::remove("/tmp/.uci");
    mount("/etc/config", "/etc/config", nullptr, MS_BIND, nullptr);
    mount(nullptr, "/etc/config", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
    EXPECT_EQ(config_set_vandrel_setting_string("a", nullptr), 1);
    EXPECT_EQ(config_set_vandrel_setting_string("a", "new"), 1);
    EXPECT_EQ(log(), failures({"Commit failed: I/O error", "failed"}));
    EXPECT_EQ(read_file(settings), file);
}
} // namespace
