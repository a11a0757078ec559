#include "device_test.hpp"

#include "ip_calculation.h"
#include "uciconfig.h"

#include <filesystem>
#include <memory>
#include <sstream>

#include <sys/capability.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <uci.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

constexpr char settings[] = "/etc/config/vandrel", network[] = "/etc/config/network", changes[] = "/tmp/.uci/vandrel";
constexpr char odd_text[] = "100%s%n 'its' \"\\\"\n\t$(x);#\xff";

std::string taken(char *found)
{
    std::string result = found ? found : "(null)";
    free(found);
    return result;
}

records failures(const std::vector<std::string> &texts)
{
    records result;
    for (const std::string &text : texts)
        result.push_back(error(text, "uciconfig.c"));
    return result;
}

class uciconfig : public device_test {
protected:
    ~uciconfig() override { uci_free_context(ctx); }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    const char *none = nullptr; // a format that the compiler can't see through
};

TEST_F(uciconfig, lookup_gives_text_or_joined_items_is_silent_about_the_rest_and_leaves_nothing_behind)
{
    const std::string name(1022 - sizeof "vandrel.settings", 'n');
    write_file(settings,
               "config a settings\n option t 'a%s \"\\\n\t;#\x01\xff'\n option " + name + " cut\n list e ''\n" +
                   " list f ''\n list f x\n list g a\n list g ''\n list g b\nconfig b\n option o b\nconfig b");
    write_file("/etc/config/broken", "config a settings\n option t 1\nnonsense\n");
    const int descriptors = open_descriptors();
    std::string found;
    for (const std::string path : {"settings.t", "settings.e", "settings.f", "settings.g", "@b[0].o", "@b[-2].o"})
        found += "<" + taken(config_lookup("%s.%s", "vandrel", path.c_str())) + ">";
    EXPECT_EQ(found, "<a%s \"\\\n\t;#\x01\xff><><x><a  b><b><b>");
    EXPECT_EQ(taken(config_lookup("vandrel.settings.%snn", name.c_str())), "cut");
    EXPECT_EQ(taken(config_get_section_setting("vandrel", "@b[0]", "o")) + taken(state_lookup("vandrel.@b[0].o")),
              "bb");
    for (const char *path : {"vandrel.@b[1].o", "vandrel.settings.x", "vandrel.x.t", "x.settings.t", "vandrel.settings",
                             "", "vandrel.settings.t.t", "vandrel.@b[x].o", "broken.settings.t"})
        EXPECT_EQ(config_lookup("%s", path), nullptr) << path;
    EXPECT_TRUE(!config_get_section_setting(none, "settings", "f") && !config_get_setting(none) &&
                !config_lookup(none, 1));
    EXPECT_EQ(log(), records{});
    const auto bytes = __sanitizer_get_current_allocated_bytes();
    for (int i = 0; i < 5000; ++i)
        free(i % 5 == 0 ? state_lookup("vandrel.settings.t") : config_lookup("vandrel.settings.%c", "egtx"[i % 4]));
    EXPECT_TRUE(__sanitizer_get_current_allocated_bytes() == bytes && open_descriptors() == descriptors);
    for (const char *library : {"libuci.so", "libvandrel.so"}) {
        const allocation_refusal refuse{1, library};
        EXPECT_EQ(config_get_setting("g"), nullptr);
    }
    EXPECT_EQ(log(), failures({"Failed to allocate UCI context",
                               "config_lookup: Allocating memory failed: Cannot allocate memory"}));
}

TEST_F(uciconfig, typed_options)
{
    write_file(settings,
               "config a settings\n option a 12abc\n option b true\n option c -5\n option d 1\n option e ' 1'\n"
               " option f 10.0.0.1\n list g 1\n");
    EXPECT_EQ(config_load(&ctx, &package, &section), 0);
    std::ostringstream found;
    for (const char *option : {"a", "b", "c", "d", "e", "f", "g", "absent", none}) {
        found << uci_lookup_option_int(ctx, section, option) << ' ' << uci_lookup_option_bool(ctx, section, option);
        found << ' ' << ip_format_s(uci_lookup_option_ip(ctx, section, option));
        found << (config_get_setting_bool(option) ? " on; " : "; ");
    }
    EXPECT_EQ(found.str(), "12 1 255.255.255.255; 0 0 255.255.255.255; -5 0 255.255.255.255; 1 1 0.0.0.1 on; "
                           "1 1 255.255.255.255; 10 1 10.0.0.1; -1 0 0.0.0.0 on; -1 0 0.0.0.0; -1 0 0.0.0.0; ");
    EXPECT_EQ(uci_lookup_option_int(nullptr, section, "d") + uci_lookup_option_int(ctx, nullptr, "d"), -2);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, loading_a_package)
{
    auto *const untouched = reinterpret_cast<uci_section *>(this);
    for (const int refused : {0, 1}) { // allocations of libuci
        ctx = reinterpret_cast<uci_context *>(this);
        package = reinterpret_cast<uci_package *>(this);
        section = untouched;
        const allocation_refusal refuse{refused, "libuci.so"};
        EXPECT_TRUE(config_load(&ctx, &package, &section) == -1 && !ctx && !package && !section);
    }
    EXPECT_EQ(config_load_network(nullptr, &package, "lan", nullptr), -1);
    section = untouched;
    write_file(network, "config interface lan\n");
    for (const char *name : {none, "50%s", "lan"}) {
        uci_free_context(ctx);
        EXPECT_EQ(config_load_network(&ctx, &package, name, &section), 0);
        EXPECT_EQ(section == untouched, !name || *name != 'l');
    }
    ucierr(nullptr, "%s", std::string(1100, '%').c_str());
    EXPECT_EQ(log(), failures({"Failed loading package vandrel: Entry not found", "Failed initializing uci context",
                               "Loading section network.50%s: Entry not found",
                               std::string(1022, '%') + ": Invalid argument"}));
}

TEST_F(uciconfig, changes_stay_in_memory_until_a_commit_which_keeps_those_of_others)
{
    const std::string k = "\n option key 1\n", file = "config j" + k + "config i" + k + " list l x\nconfig i two" + k;
    write_file(network, file);
    ASSERT_EQ(config_load_network(&ctx, &package, "two", &section), 0);
    const auto set = [this](const char *type, const char *key, const char *key_value, bool commit) {
        return uci_set_section_option(ctx, package, type, key, key_value, "a", "new", commit);
    };
    uci_section *host = config_add_section(ctx, package, "host", nullptr);
    EXPECT_EQ((std::vector{set("i", "key", "1", false), set("i", "key", "1", false), set("i", "no", "x", false),
                           set("i", "l", "x", false), set("i", none, "x", false), set(none, "key", "1", false),
                           config_set_string(ctx, nullptr, host, "odd", odd_text, false),
                           uci_delete_option(section, "key", true), uci_delete_option(section, "key", false)}),
              (std::vector{0, 2, 1, 1, 1, 1, 0, 0, 0}));
    EXPECT_STREQ(config_add_section(ctx, package, "host", "made")->e.name, "made");
    EXPECT_EQ(log(), records{});
    EXPECT_TRUE(uci_delete_option(section, "50%s", true) == -1 && uci_delete_option(section, nullptr, true) == -1 &&
                !config_add_section(ctx, package, "a b", "made") && !config_add_section(ctx, nullptr, "host", none) &&
                config_set_string(ctx, package, nullptr, "a", "b", true) == 1);
    EXPECT_EQ(log(), failures({"50%s: Entry not found", ": Invalid argument", "Couldn't set section: Invalid argument",
                               "missing some arguments"}));
    EXPECT_TRUE(read_file(network) == file && !std::filesystem::exists("/tmp/.uci"));
    EXPECT_EQ(config_set_section_setting_string("network", "two", "other", "x"), 0); // another context
    EXPECT_EQ(set("i", "key", "1", true), 0);
    EXPECT_EQ(read_file(network), "\nconfig j\n\toption key '1'\n\nconfig i\n\toption key '1'\n\tlist l 'x'\n"
                                  "\toption a 'new'\n\nconfig i 'two'\n\toption other 'x'\n\n"
                                  "config host\n\toption odd '100%s%n '\\''its'\\'' \"\\\"\n\t$(x);#\xff'\n\n"
                                  "config host 'made'\n\n");
    EXPECT_EQ(taken(config_lookup("network.@host[0].odd")), odd_text);
}

TEST_F(uciconfig, one_call_sets_or_deletes_saves_and_commits)
{
    const std::string a = "\toption a 'b'\n", l = "\tlist l 'x'\n", foo = "\toption foo 'bar'\n";
    const std::tuple<const char *, const char *, const char *, int, std::string, std::vector<std::string>> cases[] = {
        {"settings", "foo", "bar", 0, a + l + foo, {}},
        {nullptr, "l", nullptr, 0, a + foo, {}},
        {nullptr, "l", nullptr, 2, a + foo, {}},
        {nullptr, "foo", "", 0, a, {}},
        {"no%s", "a", "b", 1, a, {"Loading section vandrel.no%s: Entry not found", "missing some arguments"}},
        {nullptr, nullptr, "b", 1, a, {"Invalid input to config_set_config_setting_string()"}}};
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

TEST_F(uciconfig, changes_that_may_not_be_read_are_passed_over_by_lookups_and_kept)
{
    const std::string change = "vandrel.settings.a='changed'\n";
    write_file(settings, "config a settings\n\toption a b\n");
    write_file(changes, change);
    ASSERT_EQ(chmod("/tmp/.uci", 0), 0);
    const std::unique_ptr<std::remove_pointer_t<cap_t>, decltype(&cap_free)> nothing{cap_init(), cap_free};
    ASSERT_EQ(cap_set_proc(nothing.get()), 0); // like a daemon that gave up root
    EXPECT_EQ(taken(config_get_setting("a")), "b");
    EXPECT_EQ(taken(state_lookup("vandrel.settings.a")), "b");
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(config_set_vandrel_setting_string("a", "c"), 1);
    EXPECT_EQ(log(), failures({"Save failed: I/O error", "failed"}));
    EXPECT_EQ(config_set_vandrel_setting_string("a", nullptr), 1);
    ASSERT_EQ(chmod("/tmp/.uci", 0700), 0);
    EXPECT_EQ(read_file(changes), change);
    EXPECT_EQ(taken(config_get_setting("a")), "changed");
}

TEST_F(uciconfig, what_can_not_be_saved_or_committed_fails)
{
    write_file(settings, "config a settings\n\toption a b\n");
    write_file("/tmp/.uci", "no folder");
    EXPECT_EQ(config_set_vandrel_setting_string("a", "new") + config_set_vandrel_setting_string("a", nullptr), 2);
    EXPECT_EQ(log(), failures({"Save failed: I/O error", "failed"}));
    std::filesystem::remove("/tmp/.uci");
    mount("/etc/config", "/etc/config", nullptr, MS_BIND, nullptr);
    mount(nullptr, "/etc/config", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
    EXPECT_EQ(config_set_vandrel_setting_string("a", nullptr) + config_set_vandrel_setting_string("a", "new"), 2);
    EXPECT_EQ(log(), failures({"Commit failed: I/O error", "failed"}));
    EXPECT_EQ(read_file(changes), "-vandrel.settings.a\nvandrel.settings.a='new'\n");
}
} // namespace
