#include "child_process.hpp"
#include "device_test.hpp"

#include "vpnstate.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string directory = "/var/run/vandrel/vpnstate/";

struct state_release {
    void operator()(vpn_state *state) const { vpn_free(state); }
};
using state_handle = std::unique_ptr<vpn_state, state_release>;

class vpnstate : public device_test {
protected:
    /// What is loaded of a state file with this content.
    static state_handle load(const std::string &content)
    {
        write_file(directory + "peer.json", content);
        return state_handle{vpnstate_load("peer")};
    }

    /// What is loaded of a state file with one key.
    static state_handle load(const std::string &key, const std::string &value)
    {
        return load("{\"" + key + "\": " + value + "}");
    }

    void expect_log(const std::vector<std::string> &warnings, const std::string &what = "") const
    {
        records want;
        for (const std::string &text : warnings)
            want.push_back(warning(text, "vpnstate.c"));
        EXPECT_EQ(log(), want) << what;
    }
};

const struct {
    const char *key;
    int32_t vpn_state::*field;
    int32_t bad, absent;
    int32_t lowest = INT32_MIN, highest = INT32_MAX;
} numbers[] = {{"connection_id", &vpn_state::connection_id, -1, -1},
               {"vpn_client_id", &vpn_state::vpn_client_id, -1, -1},
               {"vpn_server_id", &vpn_state::vpn_server_id, -1, -1},
               {"management_port", &vpn_state::management_port, -1, 0},
               {"local_port", &vpn_state::local_port, -1, 0},
               {"remote_port", &vpn_state::remote_port, -1, 0, 0},
               {"relayed", &vpn_state::relayed, 0, -1},
               {"offline_connection", &vpn_state::offline_connection, 0, 0},
               {"openvpn_pid", &vpn_state::openvpn_pid, 0, -1},
               {"firewall", &vpn_state::firewall, 0, -1},
               {"peer_type", &vpn_state::peer_type, 0, 0, -1, 2},
               {"connection_type", &vpn_state::connection_type, 0, 0, 0, 1},
               {"state", &vpn_state::state, 0, 0, 0, 3}};

const struct {
    const char *key;
    char *vpn_state::*field;
} texts[] = {{"management_path", &vpn_state::management_path},
             {"common_name", &vpn_state::common_name},
             {"connection_common_name", &vpn_state::connection_common_name},
             {"remote_ip", &vpn_state::remote_ip},
             {"proto", &vpn_state::proto},
             {"dev", &vpn_state::dev},
             {"relay_uuid", &vpn_state::relay_uuid}};

const struct {
    const char *key;
    uint32_t vpn_state::*field;
} addresses[] = {{"peer_public_ip", &vpn_state::peer_public_ip}, {"peer_virtual_ip", &vpn_state::peer_virtual_ip},
                 {"tun_server_ip", &vpn_state::tun_server_ip},   {"tun_client_ip", &vpn_state::tun_client_ip},
                 {"tun_my_ip", &vpn_state::tun_my_ip},           {"tun_peer_ip", &vpn_state::tun_peer_ip}};

/// That no field but the key's own differs from what it is without keys.
void expect_defaults_beside(const std::string &own, const vpn_state &state)
{
    for (const auto &[key, field, bad, absent, lowest, highest] : numbers)
        EXPECT_EQ(own == key ? absent : state.*field, absent) << own << ' ' << key;
    for (const auto &[key, field] : texts)
        EXPECT_EQ(own == key ? nullptr : state.*field, nullptr) << own << ' ' << key;
    for (const auto &[key, field] : addresses)
        EXPECT_EQ(own == key ? 0 : state.*field, 0U) << own << ' ' << key;
    EXPECT_EQ(state.reserved_11, -1) << own;
    EXPECT_EQ(state.reserved_13, 0) << own;
    EXPECT_EQ(state.reserved_16, 0) << own;
}

TEST_F(vpnstate, missing_key_leaves_its_default)
{
    const state_handle state = load("{}");
    ASSERT_TRUE(state);
    expect_defaults_beside("", *state);
    vpn_free(nullptr);
    expect_log({});
}

TEST_F(vpnstate, number_fills_its_field)
{
    for (const auto &[key, field, bad, absent, lowest, highest] : numbers) {
        const std::pair<std::string, int32_t> values[] = {{"1", 1},
                                                          {"\"1\"", 1},
                                                          {"\" +01\"", 1},
                                                          {std::to_string(lowest), lowest},
                                                          {std::to_string(highest), highest},
                                                          {"2147483648", bad},
                                                          {"-2147483649", bad},
                                                          {"true", bad},
                                                          {"\"12x\"", bad},
                                                          {"\"\"", bad},
                                                          {"[]", bad},
                                                          {"1.0", bad}};
        for (const auto &[value, want] : values) {
            const state_handle state = load(key, value);
            ASSERT_TRUE(state) << key << value;
            EXPECT_EQ(state.get()->*field, want) << key << value;
            expect_defaults_beside(key, *state);
        }
    }
    expect_log({});
}

TEST_F(vpnstate, number_out_of_range_is_replaced)
{
    const struct {
        const char *key;
        int32_t vpn_state::*field;
        const char *value;
        int32_t want;
        std::vector<std::string> warnings;
    } cases[] = {{"remote_port", &vpn_state::remote_port, "-2", -1, {}},
                 {"peer_type", &vpn_state::peer_type, "-2", -1, {"Unknown peer type -2 in state"}},
                 {"peer_type", &vpn_state::peer_type, "3", -1, {"Unknown peer type 3 in state"}},
                 {"connection_type", &vpn_state::connection_type, "-1", 0, {"Unknown connection type -1 in state"}},
                 {"connection_type", &vpn_state::connection_type, "2", 0, {"Unknown connection type 2 in state"}},
                 {"state", &vpn_state::state, "-1", 3, {"Unknown state -1 in state"}},
                 {"state", &vpn_state::state, "4", 3, {"Unknown state 4 in state"}}};
    for (const auto &[key, field, value, want, warnings] : cases) {
        const state_handle state = load(key, value);
        ASSERT_TRUE(state) << key << value;
        EXPECT_EQ(state.get()->*field, want) << key << value;
        expect_log(warnings, key);
    }
}

TEST_F(vpnstate, text_and_address_fill_their_field)
{
    for (const auto &[key, field] : texts) {
        const state_handle text = load(key, "\"10.8.0.1\""), number = load(key, "5");
        ASSERT_TRUE(text) << key;
        EXPECT_STREQ(text.get()->*field, "10.8.0.1") << key;
        expect_defaults_beside(key, *text);
        ASSERT_TRUE(number) << key;
        EXPECT_STREQ(number.get()->*field, "5") << key;
    }
    for (const auto &[key, field] : addresses) {
        const state_handle good = load(key, "\"10.8.0.1\""), bad = load(key, "\"x\"");
        ASSERT_TRUE(good) << key;
        EXPECT_EQ(good.get()->*field, 0x0A080001U) << key;
        expect_defaults_beside(key, *good);
        ASSERT_TRUE(bad) << key;
        EXPECT_EQ(bad.get()->*field, 0xFFFFFFFF) << key;
    }
    expect_log({});
}

TEST_F(vpnstate, null_fails_the_load_and_an_unknown_key_does_not)
{
    EXPECT_FALSE(load(R"({"proto": "udp", "dev": null, "Dev": 1})"));
    expect_log({"Failed to load VPN state"});
    EXPECT_FALSE(load("unknown", "null"));
    expect_log({"Failed to load VPN state"});
    const state_handle state = load(R"({"Dev": "x", "dev": "tun0"})");
    ASSERT_TRUE(state);
    EXPECT_STREQ(state->dev, "tun0");
    expect_log({"VPN: unknown key"});
    EXPECT_FALSE(load("[]"));
    expect_log({"VPN state is corrupted"});
}

TEST_F(vpnstate, state_without_memory_is_not_loaded)
{
    write_file(directory + "peer.json", R"({"proto": "udp", "dev": "tun0"})");
    for (int n = 1; n <= 3; ++n) { // the record and two texts
        const allocation_refusal refuse{n};
        EXPECT_FALSE(state_handle{vpnstate_load("peer")}) << n;
        EXPECT_TRUE(refuse.happened()) << n;
        EXPECT_EQ(log(), records{n == 1 ? error("Couldn't allocate memory for VPN struct", "vpnstate.c")
                                        : warning("Failed to load VPN state", "vpnstate.c")})
            << n;
    }
}

TEST_F(vpnstate, no_record_lacks_what_json_c_loses)
{
    enum { not_refused, whole_or_none, in_part };
    for (const char *content : {R"({"proto": "udp", "dev": "tun0", "state": 2})",
                                R"({"proto": "udp", "dev": "tun0", "state": 1, "state": 2})"}) {
        write_file(directory + "peer.json", content);
        int n = 1, found = in_part;
        for (; n < 200 && found != not_refused; ++n) {
            found = result_in_child([=] {
                const allocation_refusal refuse{n, "libjson-c.so"};
                const state_handle state{vpnstate_load("peer")};
                if (state && (!state->proto || !state->dev || state->state != 2))
                    return +in_part;
                return +(refuse.happened() ? whole_or_none : not_refused);
            });
            EXPECT_NE(found, in_part) << content << ", allocation " << n;
        }
        EXPECT_EQ(found, not_refused) << content;
        EXPECT_GT(n, 10) << content;
    }
    log();
}

TEST_F(vpnstate, what_cannot_be_loaded_is_told_and_never_waited_for)
{
    write_file(directory + "half.json", "{\"dev\": 1");
    write_file(directory + "../x.json", "{}");
    std::filesystem::create_directory(directory + "directory.json");
    mkfifo((directory + "fifo.json").c_str(), 0644);
    std::filesystem::create_symlink("/tmp/none", directory + "dangling.json");
    std::filesystem::create_symlink("/dev/zero", directory + "device.json");
    for (const char *name : {"none", "dangling", "../x", "/", "", static_cast<const char *>(nullptr)}) {
        EXPECT_FALSE(state_handle{vpnstate_load(name)}) << name;
        expect_log({"Opening VPN state JSON file failed"}, name ? name : "");
    }
    const int descriptors = open_descriptors();
    for (const char *name : {"half", "directory", "fifo", "device"}) {
        EXPECT_FALSE(state_handle{vpnstate_load(name)}) << name;
        expect_log({"Parsing VPN state JSON file failed"}, name);
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(vpnstate, path_is_cut_after_57_characters)
{
    write_file(directory + "012345678901234567890123456.jso", "{}");
    EXPECT_TRUE(state_handle{vpnstate_load("012345678901234567890123456")});
}

std::vector<std::string> visited; // the callback of a walk gets no argument of the test's own

TEST_F(vpnstate, walk_takes_regular_json_files)
{
    for (const char *name : {".json", "a.JSON", "abc.json", "c.jsonx", "b.json.json", "json", "x.json/file"})
        write_file(directory + name, "{}");
    std::filesystem::create_symlink("abc.json", directory + "link.json");
    EXPECT_EQ(vpnstate_foreach_cn([](const char *name) -> int { return visited.emplace_back(name) == "none"; }), 0);
    std::ranges::sort(visited);
    EXPECT_EQ(visited, (std::vector<std::string>{"abc", "b.json"}));
    visited.clear();
    EXPECT_EQ(vpnstate_foreach_cn([](const char *name) -> int { return visited.emplace_back(name).empty() ? 0 : -1; }),
              0);
    EXPECT_EQ(visited.size(), 1U); // a callback ends it
    expect_log({});
}

TEST_F(vpnstate, walk_needs_a_directory_and_a_callback)
{
    EXPECT_EQ(vpnstate_foreach_cn([](const char *) { return 0; }), -1);
    EXPECT_EQ(vpnstate_is_any_active(), 0);
    char cn[28] = "left";
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun0"), -1);
    EXPECT_STREQ(cn, "left");
    std::filesystem::create_directories(directory);
    EXPECT_EQ(vpnstate_foreach_cn([](const char *) { return 0; }), 0);
    EXPECT_EQ(vpnstate_foreach_cn(nullptr), -1);
    EXPECT_EQ(vpnstate_is_any_active(), 0);
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun0"), 1);
    expect_log({});
}

TEST_F(vpnstate, any_peer_with_an_interface_is_active)
{
    for (int i = 0; i < 1'000; ++i)
        write_file(directory + std::to_string(i) + ".json", R"({"common_name": "c"})");
    EXPECT_EQ(vpnstate_is_any_active(), 0);
    expect_log({});
    write_file(directory + "broken.json", "{");
    EXPECT_EQ(vpnstate_is_any_active(), 0);
    expect_log({"Parsing VPN state JSON file failed"});
    std::filesystem::remove(directory + "broken.json");
    write_file(directory + "up.json", R"({"dev": ""})");
    const int descriptors = open_descriptors();
    EXPECT_EQ(vpnstate_is_any_active(), 1);
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(vpnstate, peer_is_found_by_its_interface)
{
    write_file(directory + "a", R"({"dev": "tun0", "common_name": "0123456789012345678901234567"})");
    write_file(directory + "b.json", R"({"dev": "tap1", "common_name": null})");
    write_file(directory + "d.json", R"(["tun2"])");
    write_file(directory + "e.json", R"({"dev": "tax0", "common_name": "e"})");
    write_file(directory + "f.json", R"({"dev": "tux0", "common_name": "f"})");
    const struct {
        const char *dev;
        int want;
        const char *cn;
    } cases[] = {{"tun0", 0, "01234567890123456789012345"}, // whatever the file's name ends in
                 {"tap1", -1, "left"},
                 {"tun2", 1, "left"},
                 {"tax0", 1, "left"},
                 {"tux0", 1, "left"},
                 {nullptr, 1, "left"}};
    for (const auto &[dev, want, name] : cases) {
        char cn[28] = "left";
        EXPECT_EQ(vpnstate_get_common_name(cn, dev), want) << dev;
        EXPECT_STREQ(cn, name) << dev;
    }
    EXPECT_EQ(vpnstate_get_common_name(nullptr, "tun0"), -1);
    expect_log({});
}

TEST_F(vpnstate, search_passes_over_files_that_it_cannot_read)
{
    char cn[28] = "left";
    write_file(directory + std::string(32, 'n'), "{}"); // a name is cut after 31 characters
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun0"), 1);
    expect_log({"Opening VPN state JSON file failed", "Loading vpn state failed"});
    std::filesystem::remove(directory + std::string(32, 'n'));
    write_file(directory + std::string(31, 'n'), "{");
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun0"), 1);
    expect_log({"Parsing VPN state JSON file failed", "Loading vpn state failed"});
    EXPECT_STREQ(cn, "left");
}

} // namespace
