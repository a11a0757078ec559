#include "device_test.hpp"

#include "vpnstate.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

#include <sys/stat.h>

namespace {

class vpnstate : public device_test {
protected:
    /// The texts of the warnings since the last call.
    std::string warned() const
    {
        std::string texts;
        for (const record &entry : log())
            texts += entry == warning(entry.text, "vpnstate.c") ? entry.text + ";" : "no warning of vpnstate.c;";
        return texts;
    }

    /// The fields of a loaded record in their order, addresses in hexadecimal, and the warnings after them.
    std::string load(const char *common_name) const
    {
        char text[1000] = "";
        vpn_state *s = vpnstate_load(common_name);
        if (s)
            std::snprintf(text, sizeof text,
                          "%d %d %d %d %s %s %d %d %d %s %d %d %d %d %s %d %s %s %s %d %d %d %d %x %x %x %x %x %x",
                          s->state, s->connection_id, s->vpn_client_id, s->vpn_server_id, s->proto, s->remote_ip,
                          s->local_port, s->remote_port, s->management_port, s->management_path, s->reserved_11,
                          s->openvpn_pid, s->reserved_13, s->relayed, s->relay_uuid, s->reserved_16, s->dev,
                          s->common_name, s->connection_common_name, s->offline_connection, s->firewall,
                          s->connection_type, s->peer_type, s->tun_server_ip, s->tun_client_ip, s->tun_my_ip,
                          s->tun_peer_ip, s->peer_virtual_ip, s->peer_public_ip);
        vpn_free(s);
        return text + warned();
    }
};

const std::string directory = "/var/run/vandrel/vpnstate/";
constexpr char keys[] =
    "connection_type peer_type state connection_id vpn_client_id vpn_server_id proto remote_ip local_port remote_port "
    "management_port management_path openvpn_pid relayed relay_uuid dev common_name connection_common_name "
    "offline_connection firewall tun_server_ip tun_client_ip tun_my_ip tun_peer_ip peer_virtual_ip peer_public_ip";

/// Writes a state file in which every key has this value or, without one, a number of its own that is good for it.
void write_all(const std::string &value)
{
    std::istringstream names{keys};
    std::string content, key;
    for (int i = 1; names >> key; ++i)
        content += (i == 1 ? "{\"" : ", \"") + key + "\": " + (value.empty() ? std::to_string(i) : value);
    write_file(directory + "peer.json", content + "}");
}

TEST_F(vpnstate, every_key_fills_its_field)
{
    const std::string bad = "0 -1 -1 -1 T T -1 -1 -1 T -1 0 0 0 T 0 T T T 0 0 0 0 A A A A A A"; // T: text, A: address
    const std::string type = "Unknown connection type T in state;", peer = "Unknown peer type T in state;";
    const std::string state = "Unknown state T in state;";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "3 4 5 6 7 8 9 10 11 12 -1 13 0 14 15 0 16 17 18 19 20 1 2 15 16 17 18 19 1a", ""},
        {"null", "Failed to load VPN state;", ""},
        {"3", "3 T T T T T T T T T -1 T 0 T T 0 T T T T T 0 -1 A A A A A A" + type + peer, "3"},
        {"4", "3 T T T T T T T T T -1 T 0 T T 0 T T T T T 0 -1 A A A A A A" + type + peer + state, "4"},
        {"2147483648", bad, "80000000"},
        {"-1", "3 T T T T T T -1 T T -1 T 0 T T 0 T T T T T 0 -1 A A A A A A" + type + state, "ffffffff"}};
    for (const auto &[value, pattern, ip] : cases) {
        std::string want;
        for (const char c : pattern)
            want += c == 'T' ? value : c == 'A' ? ip : std::string{c};
        write_all(value);
        EXPECT_EQ(load("peer"), want);
    }
    write_all("1");
    for (int n = 1; n < 9; ++n) { // without memory for the record or one of its texts
        const allocation_refusal refuse{n};
        EXPECT_EQ(load("peer"), n == 1 ? "no warning of vpnstate.c;" : "Failed to load VPN state;");
    }
    write_file(directory + "peer.json", R"({"Dev": "x"})");
    EXPECT_EQ(load("peer"),
              "0 -1 -1 -1 (null) (null) 0 0 0 (null) -1 -1 0 -1 (null) 0 (null) (null) (null) 0 -1 0 0 0 0 0 0 0 0"
              "VPN: unknown key;");
}

TEST_F(vpnstate, what_cannot_be_loaded_is_told_and_never_waited_for)
{
    for (const auto &[name, content] : {std::pair{"half", "{\"dev\": 1"}, {"array", "[]"}, {"../x", "{}"}})
        write_file(directory + name + ".json", content);
    write_file(directory + "012345678901234567890123456.jso", "{}"); // a path is cut after 57 characters
    EXPECT_EQ(load("012345678901234567890123456").substr(0, 4) + load("array"), "0 -1VPN state is corrupted;");
    mkdir((directory + "directory.json").c_str(), 0755);
    mkfifo((directory + "fifo.json").c_str(), 0644);
    std::filesystem::create_symlink("/tmp/none", directory + "dangling.json");
    std::filesystem::create_symlink("/dev/zero", directory + "device.json");
    const int descriptors = open_descriptors();
    for (const char *name : {"half", "directory", "fifo", "device"})
        EXPECT_EQ(load(name), "Parsing VPN state JSON file failed;") << name;
    for (const char *name : {"none", "dangling", "../x", "/", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(load(name), "Opening VPN state JSON file failed;") << name;
    EXPECT_EQ(open_descriptors(), descriptors);
}

std::vector<std::string> visited;

TEST_F(vpnstate, walk_takes_regular_json_files)
{
    const auto visit = [](const char *name) -> int { return visited.emplace_back(name) == "last"; };
    EXPECT_TRUE(vpnstate_foreach_cn(visit) == -1 && vpnstate_is_any_active() == 0);
    for (const char *name : {".json", "a.JSON", "c.jsonx", "json", "x.json/file", "abc.json", "b.json.json"})
        write_file(directory + name, "{}");
    std::filesystem::create_symlink("abc.json", directory + "link.json");
    EXPECT_EQ(vpnstate_foreach_cn(visit) + vpnstate_is_any_active(), 0);
    std::ranges::sort(visited);
    EXPECT_EQ(visited, (std::vector<std::string>{"abc", "b.json"}));
    EXPECT_EQ(vpnstate_foreach_cn([](const char *name) { return visited.emplace_back(name) == "" ? 0 : -1; }), 0);
    EXPECT_TRUE(visited.size() == 3 && vpnstate_foreach_cn(nullptr) == -1 && log().empty());
}

TEST_F(vpnstate, many_files_are_searched_for_activity_and_for_an_interface)
{
    char cn[28] = "left";
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun0"), -1); // no directory yet
    for (int i = 0; i < 10000; ++i)
        write_file(directory + std::to_string(i) + ".json", R"({"common_name": "c"})");
    write_file(directory + "a", R"({"dev": "tun0", "common_name": "0123456789012345678901234567"})");
    write_file(directory + "b", R"({"dev": "tap1", "common_name": null})");
    for (const auto &[dev, want] : {std::pair{"eth0", 1}, {"tap1", -1}, {"tun0", 0}})
        EXPECT_EQ(vpnstate_get_common_name(cn, dev), want) << dev;
    EXPECT_TRUE(cn == std::string{"01234567890123456789012345"} && vpnstate_get_common_name(cn, nullptr) == 1);
    EXPECT_TRUE(vpnstate_is_any_active() == 0 && warned().empty());
    write_file(directory + std::string(32, 'n'), "{}"); // a name is cut after 31 characters
    EXPECT_EQ(vpnstate_get_common_name(cn, "tun3"), 1);
    EXPECT_EQ(warned(), "Opening VPN state JSON file failed;Loading vpn state failed;");
    const int descriptors = open_descriptors();
    write_file(directory + "up.json", R"({"dev": ""})");
    EXPECT_TRUE(vpnstate_is_any_active() == 1 && open_descriptors() == descriptors);
}

} // namespace
