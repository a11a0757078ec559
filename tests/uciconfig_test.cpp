#include "device_test.hpp"

#include "ip_calculation.h"
#include "uciconfig.h"

#include <filesystem>
#include <memory>

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
    ~uciconfig() override { free_context(); }

    void free_context()
    {
        if (ctx) // libuci crashes without one
            uci_free_context(ctx);
        ctx = nullptr;
    }

    /// Loads the network package from this file, and its section of that name if there is one.
    void load(const std::string &file, const char *name = nullptr)
    {
        free_context();
        write_file(network, file);
        section = nullptr;
        ASSERT_EQ(config_load_network(&ctx, &package, name, &section), 0);
    }

    std::string text(const char *option)
    {
        const char *found = uci_lookup_option_string(ctx, section, option);
        return found ? found : "(null)";
    }

    uci_context *ctx = nullptr;
    uci_package *package = nullptr;
    uci_section *section = nullptr;
    const char *none = nullptr; // a format that the compiler can't see through
};

constexpr char lookup_file[] =
    "config a settings\n option t 'a%s \"\\\n\t;#\x01\xff'\n list e ''\n list f ''\n list f x\n"
    " list g a\n list g ''\n list g b\nconfig b\n option o first\nconfig b\n option o last\n";

TEST_F(uciconfig, lookup_gives_a_text_or_joined_items)
{
    write_file(settings, lookup_file);
    const std::pair<const char *, const char *> cases[] = {{"settings.t", "a%s \"\\\n\t;#\x01\xff"},
                                                           {"settings.e", ""},
                                                           {"settings.f", "x"}, // empty items in front
                                                           {"settings.g", "a  b"},
                                                           {"@b[0].o", "first"},
                                                           {"@b[-1].o", "last"},
                                                           {"@[1].o", "first"}};
    for (const auto &[path, want] : cases) {
        EXPECT_EQ(taken(config_lookup("%s.%s", "vandrel", path)), want) << path;
        EXPECT_EQ(taken(state_lookup("%s.%s", "vandrel", path)), want) << path;
    }
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, lookup_of_what_is_not_there_is_null_and_silent)
{
    write_file(settings, lookup_file);
    write_file("/etc/config/broken", "config a settings\n option t 1\nnonsense\n");
    for (const char *path : {"vandrel.@b[2].o", "vandrel.settings.x", "vandrel.x.t", "x.settings.t", "vandrel.settings",
                             "vandrel", "", "vandrel.settings.t.t", "vandrel.@b[x].o", "broken.settings.t"}) {
        EXPECT_EQ(config_lookup("%s", path), nullptr) << path;
        EXPECT_EQ(state_lookup("%s", path), nullptr) << path;
    }
    EXPECT_EQ(config_lookup(none, 1), nullptr);
    EXPECT_EQ(state_lookup(none, 1), nullptr);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, lookup_path_is_cut_after_1022_characters)
{
    const std::string name(1022 - sizeof "vandrel.settings", 'n');
    write_file(settings, "config a settings\n option " + name + " found\n");
    EXPECT_EQ(taken(config_lookup("vandrel.settings.%s", name.c_str())), "found");
    EXPECT_EQ(taken(config_lookup("vandrel.settings.%snn", name.c_str())), "found");
    EXPECT_EQ(config_lookup("vandrel.settings.%s", name.substr(1).c_str()), nullptr);
}

TEST_F(uciconfig, section_settings)
{
    write_file(settings, lookup_file);
    const struct {
        const char *package, *section, *option, *want;
    } cases[] = {{"vandrel", "settings", "f", "x"},   {"vandrel", nullptr, "f", "x"},
                 {"vandrel", "@b[0]", "o", "first"},  {"vandrel", "none", "f", nullptr},
                 {nullptr, "settings", "f", nullptr}, {"vandrel", "settings", nullptr, nullptr}};
    for (const auto &[name, section_name, option, want] : cases)
        EXPECT_EQ(taken(config_get_section_setting(name, section_name, option)), want ? want : "(null)") << want;
    EXPECT_EQ(taken(config_get_setting("g")), "a  b");
    EXPECT_EQ(config_get_setting(nullptr), nullptr);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, a_setting_is_true_for_exactly_1)
{
    write_file(settings, "config a settings\n option a 1\n option b true\n option c ' 1'\n option d 01\n list e 1\n");
    const std::pair<const char *, int> cases[] = {{"a", 1}, {"b", 0},      {"c", 0},    {"d", 0},
                                                  {"e", 1}, {"absent", 0}, {nullptr, 0}};
    for (const auto &[option, want] : cases)
        EXPECT_EQ(config_get_setting_bool(option), want) << (option ? option : "null");
}

TEST_F(uciconfig, a_lookup_leaves_nothing_behind)
{
    write_file(settings, lookup_file);
    free(config_lookup("vandrel.settings.g"));
    const auto bytes = __sanitizer_get_current_allocated_bytes();
    free(config_lookup("vandrel.settings.g"));
    free(state_lookup("vandrel.settings.t"));
    EXPECT_EQ(__sanitizer_get_current_allocated_bytes(), bytes);
}

TEST_F(uciconfig, lookup_without_memory_is_null)
{
    write_file(settings, lookup_file);
    const std::string no_copy = "config_lookup: Allocating memory failed: Cannot allocate memory";
    const struct {
        const char *library, *option;
        std::string message;
    } cases[] = {{"libuci.so", "t", "Failed to allocate UCI context"}, // its first allocation
                 {"libvandrel.so", "t", no_copy},
                 {"libvandrel.so", "g", no_copy}};
    for (const auto &[library, option, message] : cases) {
        const allocation_refusal refuse{1, library};
        EXPECT_EQ(config_get_setting(option), nullptr) << message;
        EXPECT_EQ(log(), failures({message}));
    }
    const allocation_refusal refuse{1, "libuci.so"};
    EXPECT_EQ(state_lookup("vandrel.settings.t"), nullptr);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, options_as_numbers_flags_and_addresses)
{
    load("config a s\n option a 12abc\n option b true\n option c -5\n option d 2\n option e ' 1'\n option f 10.0.0.1\n"
         " option g 0x10\n list h 1\n option i 0\n",
         "s");
    const struct {
        const char *option;
        int number, flag;
        uint32_t ip;
    } cases[] = {{"a", 12, 1, 0xFFFFFFFF},
                 {"b", 0, 0, 0xFFFFFFFF},
                 {"c", -5, 0, 0xFFFFFFFF},
                 {"d", 2, 1, ip_parse("2")},
                 {"e", 1, 1, ip_parse(" 1")},
                 {"f", 10, 1, 0x0A000001},
                 {"g", 0, 0, ip_parse("0x10")},
                 {"h", -1, 0, 0},
                 {"i", 0, 0, 0},
                 {"absent", -1, 0, 0},
                 {nullptr, -1, 0, 0}};
    for (const auto &[option, number, flag, ip] : cases) {
        EXPECT_EQ(uci_lookup_option_int(ctx, section, option), number) << (option ? option : "null");
        EXPECT_EQ(uci_lookup_option_bool(ctx, section, option), flag) << (option ? option : "null");
        EXPECT_EQ(uci_lookup_option_ip(ctx, section, option), ip) << (option ? option : "null");
    }
    EXPECT_EQ(uci_lookup_option_int(nullptr, section, "d"), -1);
    EXPECT_EQ(uci_lookup_option_int(ctx, nullptr, "d"), -1);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, a_package_that_can_not_be_loaded_leaves_all_outputs_null)
{
    for (const int refused : {0, 1}) { // allocations of libuci
        ctx = reinterpret_cast<uci_context *>(this);
        package = reinterpret_cast<uci_package *>(this);
        section = reinterpret_cast<uci_section *>(this);
        const allocation_refusal refuse{refused, "libuci.so"};
        EXPECT_EQ(config_load(&ctx, &package, &section), -1);
        EXPECT_EQ(ctx, nullptr);
        EXPECT_EQ(package, nullptr);
        EXPECT_EQ(section, nullptr);
        EXPECT_EQ(log(), failures({refused ? "Failed initializing uci context"
                                           : "Failed loading package vandrel: Entry not found"}));
    }
}

TEST_F(uciconfig, a_loader_without_room_for_its_result_fails_silently)
{
    write_file(settings, "config a settings\n");
    package = reinterpret_cast<uci_package *>(this);
    section = reinterpret_cast<uci_section *>(this);
    EXPECT_EQ(config_load(nullptr, &package, &section), -1);
    EXPECT_EQ(package, nullptr);
    EXPECT_EQ(section, nullptr);
    ctx = reinterpret_cast<uci_context *>(this);
    EXPECT_EQ(config_load(&ctx, nullptr, nullptr), -1);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, a_loaded_package_comes_with_the_section_if_it_has_it)
{
    auto *const untouched = reinterpret_cast<uci_section *>(this);
    write_file(network, "config interface lan\n");
    write_file(settings, "config interface settings\n");
    const struct {
        const char *name;
        bool found;
        std::vector<std::string> messages;
    } cases[] = {
        {nullptr, false, {}}, {"50%s", false, {"Loading section network.50%s: Entry not found"}}, {"lan", true, {}}};
    for (const auto &[name, found, messages] : cases) {
        free_context();
        section = untouched;
        EXPECT_EQ(config_load_network(&ctx, &package, name, &section), 0);
        EXPECT_STREQ(package->e.name, "network");
        EXPECT_EQ(section != untouched, found) << name;
        EXPECT_EQ(log(), failures(messages));
    }
    EXPECT_STREQ(section->e.name, "lan");
    free_context();
    EXPECT_EQ(config_load_network(&ctx, &package, "absent", nullptr), 0); // not looked for
    free_context();
    EXPECT_EQ(config_load(&ctx, &package, &section), 0);
    EXPECT_STREQ(package->e.name, "vandrel");
    EXPECT_STREQ(section->e.name, "settings");
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, ucierr_logs_libucis_words_behind_the_given_ones)
{
    ucierr(nullptr, "%s", std::string(1100, '%').c_str());
    ucierr(nullptr, "%d%%", 7);
    ucierr(nullptr, none, 7);
    EXPECT_EQ(log(),
              failures({std::string(1022, '%') + ": Invalid argument", "7%: Invalid argument", "Invalid argument"}));
    const allocation_refusal refuse{1, "libuci.so"};
    ucierr(nullptr, "%d%%", 7);
    EXPECT_EQ(log(), failures({"7%"}));
}

TEST_F(uciconfig, sections_are_added_in_memory)
{
    load("config host old\n");
    const struct {
        const char *type, *name, *found_as;
        bool anonymous;
    } cases[] = {{"host", nullptr, "cfg02fe63", true}, {"host", "made", "made", false}, {"other", "old", "old", false}};
    for (const auto &[type, name, found_as, anonymous] : cases) {
        const uci_section *added = config_add_section(ctx, package, type, name);
        ASSERT_NE(added, nullptr) << type;
        EXPECT_STREQ(added->type, type);
        EXPECT_EQ(added->anonymous, anonymous);
        EXPECT_EQ(uci_lookup_section(ctx, package, found_as), added);
    }
    EXPECT_EQ(config_add_section(ctx, package, "", "made"), nullptr); // deletes it
    EXPECT_EQ(uci_lookup_section(ctx, package, "made"), nullptr);
    EXPECT_EQ(log(), records{});
    EXPECT_FALSE(std::filesystem::exists("/tmp/.uci"));
}

TEST_F(uciconfig, a_section_that_can_not_be_added_is_null)
{
    load("");
    const struct {
        uci_context *ctx;
        uci_package *package;
        const char *type, *name;
    } cases[] = {{ctx, package, "a b", "made"},       {ctx, package, nullptr, "made"},
                 {ctx, package, "host", ""},          {ctx, nullptr, "host", "made"},
                 {nullptr, package, "host", "made"},  {ctx, nullptr, "host", nullptr},
                 {nullptr, package, "host", nullptr}, {ctx, package, nullptr, nullptr}};
    for (const auto &[c, p, type, name] : cases) {
        EXPECT_EQ(config_add_section(c, p, type, name), nullptr) << type << name;
        EXPECT_EQ(log(), name ? failures({"Couldn't set section: Invalid argument"}) : records{}) << type << name;
    }
    EXPECT_TRUE(uci_list_empty(&package->sections));
}

TEST_F(uciconfig, without_commit_a_string_is_set_in_memory_unless_it_is_there)
{
    load("config a s\n option o old\n list l old\n", "s");
    const struct {
        const char *option, *value;
        int want;
    } cases[] = {{"o", "old", 2}, {"o", "new", 0}, {"o", "new", 2},
                 {"l", "old", 0}, {"l", "old", 2}, {"fresh", odd_text, 0}};
    for (const auto &[option, value, want] : cases) {
        EXPECT_EQ(config_set_string(ctx, nullptr, section, option, value, false), want) << option << ' ' << value;
        EXPECT_EQ(text(option), value);
    }
    EXPECT_EQ(taken(config_lookup("network.s.o")), "old");
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, a_string_without_context_section_option_or_value_is_not_set)
{
    load("config a s\n", "s");
    const struct {
        uci_context *ctx;
        uci_section *section;
        const char *option, *value;
    } cases[] = {{nullptr, section, "o", "v"},
                 {ctx, nullptr, "o", "v"},
                 {ctx, section, nullptr, "v"},
                 {ctx, section, "o", nullptr}};
    for (const auto &[c, s, option, value] : cases) {
        EXPECT_EQ(config_set_string(c, package, s, option, value, true), 1);
        EXPECT_EQ(log(), failures({"missing some arguments"}));
    }
}

TEST_F(uciconfig, a_string_that_libuci_does_not_set_is_reported)
{
    load("config a s\n", "s");
    const allocation_refusal refuse{1, "libuci.so"};
    EXPECT_EQ(config_set_string(ctx, package, section, "o%s", "v", false), 1);
    EXPECT_EQ(log(), failures({"Failed setting o%s", "failed"}));
    EXPECT_EQ(text("o%s"), "(null)");
}

TEST_F(uciconfig, with_commit_a_string_is_written_even_if_it_is_there)
{
    load("config a s # mine\n option o old\n", "s");
    EXPECT_EQ(config_set_string(ctx, package, section, "o", "old", true), 0);
    EXPECT_EQ(read_file(network), "config a s # mine\n option o old\n"); // there was nothing to merge
    load("config a s # mine\n option o old\n", "s");
    EXPECT_EQ(config_set_string(ctx, package, section, "o", "new", true), 0);
    EXPECT_EQ(read_file(network), "\nconfig a 's'\n\toption o 'new'\n\n");
    EXPECT_EQ(log(), records{});
}

TEST_F(uciconfig, an_option_is_set_in_the_first_section_whose_key_is_equal)
{
    const struct {
        const char *type, *key, *value, *option, *text;
        int want;
    } cases[] = {
        {"i", "key", "1", "a", "new", 0},   {"i", "key", "1", "a", "new", 2},  {"i", "absent", "x", "a", "b", 1},
        {"i", "l", "x", "a", "b", 1},       {"none", "key", "1", "a", "b", 1}, {"i", "key", "2", "a", "b", 1},
        {nullptr, "key", "1", "a", "b", 1}, {"i", nullptr, "1", "a", "b", 1},  {"i", "key", nullptr, "a", "b", 1},
        {"i", "key", "1", nullptr, "b", 1}, {"i", "key", "1", "a", nullptr, 1}};
    load("config j\n option key 1\nconfig i one\n option key 1\n list l x\nconfig i two\n option key 1\n", "one");
    for (const auto &[type, key, value, option, new_text, want] : cases)
        EXPECT_EQ(uci_set_section_option(ctx, package, type, key, value, option, new_text, false), want)
            << (type ? type : "null") << (key ? key : "null") << (value ? value : "null");
    EXPECT_EQ(uci_set_section_option(ctx, nullptr, "i", "key", "1", "a", "b", false), 1);
    EXPECT_EQ(text("a"), "new");
    section = uci_lookup_section(ctx, package, "two");
    EXPECT_EQ(text("a"), "(null)");
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(uci_set_section_option(ctx, package, "i", "key", "1", "a", "new", true), 0);
    EXPECT_EQ(taken(config_lookup("network.one.a")), "new");
}

TEST_F(uciconfig, options_are_deleted_in_memory)
{
    load("config a s\n option o v\n list l x\n option p v\n", "s");
    const struct {
        const char *option;
        bool report;
        int want;
        std::vector<std::string> messages;
    } cases[] = {{"o", true, 0, {}},     {"l", true, 0, {}},
                 {"p", false, 0, {}},    {"50%s", true, -1, {"50%s: Entry not found"}},
                 {"50%s", false, 0, {}}, {nullptr, true, -1, {": Invalid argument"}},
                 {nullptr, false, 0, {}}};
    for (const auto &[option, report, want, messages] : cases) {
        EXPECT_EQ(uci_delete_option(section, option, report), want) << (option ? option : "null");
        EXPECT_EQ(log(), failures(messages));
    }
    EXPECT_EQ(uci_delete_option(nullptr, "o", true), -1);
    EXPECT_EQ(log(), failures({"o: Invalid argument"}));
    EXPECT_TRUE(uci_list_empty(&section->options));
    EXPECT_EQ(uci_lookup_section(ctx, package, "s"), section);
    EXPECT_FALSE(std::filesystem::exists("/tmp/.uci"));
}

TEST_F(uciconfig, one_call_sets_or_deletes_saves_and_commits)
{
    const std::string a = "\toption a 'b'\n", l = "\tlist l 'x'\n", foo = "\toption foo 'bar'\n";
    const struct {
        const char *section, *option, *value;
        int want;
        std::string options;
        std::vector<std::string> messages;
    } cases[] = {{"settings", "foo", "bar", 0, a + l + foo, {}},
                 {nullptr, "l", nullptr, 0, a + foo, {}},
                 {nullptr, "l", nullptr, 2, a + foo, {}},
                 {"none", "a", nullptr, 2, a + foo, {"Loading section vandrel.none: Entry not found"}},
                 {nullptr, "foo", "", 0, a, {}},
                 {"no%s", "a", "b", 1, a, {"Loading section vandrel.no%s: Entry not found", "missing some arguments"}},
                 {nullptr, nullptr, "b", 1, a, {"Invalid input to config_set_config_setting_string()"}}};
    write_file(settings, "config a settings # mine\n option a b\n list l x\n");
    for (const auto &[name, option, value, want, options, messages] : cases) {
        EXPECT_EQ(config_set_section_setting_string("vandrel", name, option, value), want) << options;
        EXPECT_EQ(read_file(settings), "\nconfig a 'settings'\n" + options + "\n");
        EXPECT_EQ(read_file(changes), "");
        EXPECT_EQ(log(), failures(messages));
    }
    EXPECT_TRUE(std::filesystem::is_empty("/var/state"));
    EXPECT_EQ(config_set_section_setting_string(nullptr, nullptr, "a", "b"), 1);
    EXPECT_EQ(log(), failures({"Invalid input to config_set_config_setting_string()"}));
    EXPECT_EQ(config_set_section_setting_string("no%s", nullptr, "a", "b"), 1);
    EXPECT_EQ(log(), failures({"Failed loading package no%s: Entry not found", "loading no%s.settings failed"}));
}

TEST_F(uciconfig, one_call_for_the_own_settings)
{
    write_file(settings, "config a settings\n");
    EXPECT_EQ(config_set_vandrel_setting_string("foo", "bar"), 0);
    EXPECT_EQ(taken(config_get_setting("foo")), "bar");
    EXPECT_EQ(config_set_vandrel_setting_string("foo", nullptr), 0);
    EXPECT_EQ(config_get_setting("foo"), nullptr);
    EXPECT_EQ(config_set_vandrel_setting_string("foo", nullptr), 2);
}

TEST_F(uciconfig, a_deletion_that_libuci_does_not_make_is_reported)
{
    write_file(settings, "config a settings\n option a b\n");
    int failed = 0;
    for (int n = 1; failed == 0 && n < 1000; ++n) { // up to the first refusal that hits the deletion
        const allocation_refusal refuse{n, "libuci.so"};
        const int result = config_set_vandrel_setting_string("a", nullptr);
        if (log() == failures({"a: Out of memory"})) {
            failed = n;
            EXPECT_EQ(result, 1);
        }
    }
    EXPECT_GT(failed, 0);
    EXPECT_EQ(taken(config_get_setting("a")), "b");
}

/// Every setter that writes: its result, and what it logs when the file can't be written.
class unwritable : public uciconfig {
protected:
    void expect_failures(const std::string &message)
    {
        const records told = failures({message, "failed"});
        ASSERT_EQ(config_load(&ctx, &package, &section), 0);
        EXPECT_EQ(config_set_string(ctx, package, section, "a", "1", true), 1);
        EXPECT_EQ(log(), told);
        free_context();
        ASSERT_EQ(config_load(&ctx, &package, &section), 0);
        EXPECT_EQ(uci_set_section_option(ctx, package, "a", "key", "k", "a", "2", true), 1);
        EXPECT_EQ(log(), told);
        EXPECT_EQ(config_set_section_setting_string("vandrel", "settings", "a", "3"), 1);
        EXPECT_EQ(log(), told);
        EXPECT_EQ(config_set_vandrel_setting_string("a", "4"), 1);
        EXPECT_EQ(log(), told);
        EXPECT_EQ(config_set_vandrel_setting_string("a", nullptr), 1);
        EXPECT_EQ(log(), records{});
        EXPECT_EQ(read_file(settings), file);
    }

    const std::string file = "config a settings\n\toption a b\n\toption key k\n";
};

TEST_F(unwritable, a_save_that_fails_is_reported_as_failed)
{
    write_file(settings, file);
    write_file("/tmp/.uci", "no folder");
    expect_failures("Save failed: I/O error");
}

TEST_F(unwritable, a_commit_that_fails_is_reported_as_failed_and_what_was_saved_stays)
{
    write_file(settings, file);
    ASSERT_EQ(mount("/etc/config", "/etc/config", "", MS_BIND, nullptr), 0);
    ASSERT_EQ(mount("", "/etc/config", "", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    expect_failures("Commit failed: I/O error");
    EXPECT_EQ(read_file(changes), "vandrel.settings.a='1'\nvandrel.settings.a='2'\nvandrel.settings.a='3'\n"
                                  "vandrel.settings.a='4'\n-vandrel.settings.a\n");
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

} // namespace
