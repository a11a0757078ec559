// vdctl's vpn and doctor, on an empty device: what they print and their exit status.
#include "device_test.hpp"
#include "ipc.h"
#include "program_run.hpp"

#include <cstdlib>
#include <filesystem>

#include <event2/event.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const std::string run_folder = "/var/run/vandrel", state_folder = run_folder + "/vpnstate/";

class vdctl_device : public device_test {
protected:
    vdctl_device()
    {
        setenv("PATH", (host_path(BINARY_DIR) + "/tools/vdctl:" + std::getenv("PATH")).c_str(), 1);
        setenv("NO_COLOR", "1", 1);
    }
};

/// The line that begins with level and check, or nothing.
std::string line_of(const std::string &output, const std::string &check)
{
    for (std::size_t at = 0; at < output.size();) {
        const std::size_t end = output.find('\n', at);
        const std::string line = output.substr(at, end - at);
        if (line.find(' ' + check + ' ') != line.npos)
            return line;
        at = end + 1;
    }
    return "";
}

/// A device as it is to be, but for the rights of users that a test as an ordinary user has not.
void set_up()
{
    fs::create_directories(state_folder);
    chmod(run_folder.c_str(), 01775);
    write_file("/etc/group", "root:x:0:\nvdipc:x:0:\nvandrel:x:0:\n");
    write_file("/etc/vandrel/zones.json",
               R"({"zone_configuration": {"zones": {"1": {"members": {
               "token-A": {"type": "serialization", "direction": "in"}, "lan1": {"type": "port", "direction": "out"}}}}}})");
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", "#!/bin/sh\necho true\n");
    write_script("/usr/share/vandrel/vd_features.lua", "#!/bin/sh\necho true\n");
    write_file("/etc/config/network", "config interface lan\n option type bridge\n");
}

} // namespace

TEST_F(vdctl_device, vpn_lists_the_connections)
{
    const std::string name_of_27 = "abcdefghijklmnopqrstuvwxyz0";
    fs::create_directories(state_folder);
    const struct {
        std::string file, content, want; // the row without its age
        int status;
    } cases[] = {
        {"vd-vpnclient-1", R"({"state": 1, "dev": "tun0", "remote_ip": "192.0.2.9", "remote_port": 1194, "relayed": 0,
          "tun_my_ip": "10.8.0.1"})",
         "vd-vpnclient-1\tclient\t1\ttun0\t10.8.0.1\t192.0.2.9:1194\tno\t", 0},
        {"vd-vpnserver-1", R"({"remote_ip": "192.0.2.9", "relayed": 1})",
         "vd-vpnserver-1\tserver\t0\t-\t-\t192.0.2.9\tyes\t", 1},
        {"token-A", R"({"dev": "t\u001b[31m"})", "token-A\tkey\t0\tt\\x1b[31m\t-\t-\t-\t", 0},
        {"token-B", "{", "token-B\tkey\t-\t-\t-\tits file cannot be read\t-\t", 1},
        {name_of_27, R"({"dev": "tun0"})", name_of_27 + "\t-\t-\t-\t-\tits name is over 26 characters\t-\t", 1},
    };
    EXPECT_EQ(run("vdctl vpn").status, 1);
    for (const auto &[file, content, want, status] : cases) {
        write_file(state_folder + file + ".json", content);
        const outcome got = run("vdctl vpn");
        EXPECT_EQ(got.output.substr(0, want.size()), want) << file;
        EXPECT_EQ(got.status, status) << file;
        fs::remove(state_folder + file + ".json");
    }
}

TEST_F(vdctl_device, vpn_tells_when_a_file_was_written)
{
    write_file(state_folder + "token-A.json", "{}");
    const std::pair<const char *, const char *> ages[] = {{"now", " s ago\n"},
                                                          {"-130 seconds", "\t2 min ago\n"},
                                                          {"-3 hours -5 minutes", "\t3 h ago\n"},
                                                          {"-50 hours", "\t2 d ago\n"},
                                                          {"+1 hour", "\tin the future\n"}};
    for (const auto &[age, want] : ages) {
        run(std::string{"touch -d '"} + age + "' " + state_folder + "token-A.json");
        const std::string output = run("vdctl vpn").output;
        EXPECT_TRUE(output.ends_with(want)) << output << want;
    }
}

TEST_F(vdctl_device, vpn_shows_one_peer)
{
    write_file(state_folder + "token-A.json",
               R"({"dev": "tun0", "proto": "udp", "relayed": 1, "peer_public_ip": "1.2.3.4"})");
    const outcome shown = run("vdctl vpn token-A");
    EXPECT_EQ(shown.status, 0);
    for (const char *line : {"peer\ttoken-A\n", "\nproto\tudp\n", "\nrelayed\tyes\n", "\nremote_ip\t-\n",
                             "\nvpn_client_id\t-\n", "\npeer_public_ip\t1.2.3.4\n"})
        EXPECT_NE(shown.output.find(line), std::string::npos) << line;

    const std::string json = run("vdctl -j vpn token-A").output;
    for (const char *part : {R"({"peers": [{"peer": "token-A", "role": "key", "written": )", R"("proto": "udp")",
                             R"("relayed": true)", R"("remote_ip": null)", R"("peer_public_ip": "1.2.3.4")"})
        EXPECT_NE(json.find(part), std::string::npos) << part << json;

    const std::pair<const char *, const char *> refused[] = {{"token-C", "vdctl: no state file of \"token-C\"\n"},
                                                             {"../x", "vdctl: no state file of \"../x\"\n"}};
    for (const auto &[peer, want] : refused) {
        const outcome got = run(std::string{"vdctl vpn "} + peer);
        EXPECT_EQ(got.status, 2) << peer;
        EXPECT_EQ(got.output, "") << peer;
        EXPECT_EQ(got.errors, want) << peer;
    }
}

TEST_F(vdctl_device, doctor_finds_nothing_on_a_device_as_it_is_to_be)
{
    set_up();
    write_file("/etc/group", "vandrel:x:0:\nvdipc:x:1:\n");
    const outcome got = run("vdctl doctor");
    EXPECT_EQ(got.status, 0) << got.output;
    EXPECT_EQ(got.output, "ok    folder    /var/run/vandrel: root vandrel 1775\n"
                          "ok    group     vandrel\n"
                          "ok    group     vdipc\n"
                          "ok    zones     /etc/vandrel/zones.json loads, no findings\n"
                          "ok    schedule  check_zone_scheduled_access.lua\n"
                          "ok    features  vd_features.lua\n"
                          "ok    log       somebody listens on /dev/log\n"
                          "ok    network   1 LAN\n"
                          "ok    vpn       0 state files read\n");
}

TEST_F(vdctl_device, doctor_tells_what_is_wrong_and_what_to_do)
{
    const struct {
        const char *happens, *check, *want;
    } cases[] = {
        {"rm -r /var/run/vandrel", "folder",
         "fail  folder    /var/run/vandrel is missing: no daemon but root's can serve; let the start script make it, "
         "root "
         "vandrel 1775"},
        {"chmod 1777 /var/run/vandrel", "folder",
         "fail  folder    /var/run/vandrel: root vandrel 1777: anybody may serve there under any name; chmod 1775"},
        {"chmod 755 /var/run/vandrel", "folder",
         "warn  folder    /var/run/vandrel: root vandrel 755: chown root:vandrel and chmod 1775, so that daemons can "
         "serve "
         "and none removes another's socket"},
        {"echo vandrel:x:0: >/etc/group", "group     vdipc",
         "warn  group     vdipc is missing: only root and the daemon's own user can connect"},
        {"rm /etc/vandrel/zones.json", "zones",
         "fail  zones     /etc/vandrel/zones.json: No such file or directory: nobody may reach anything"},
        {"chmod 666 /etc/vandrel/zones.json", "zones",
         "fail  zones     /etc/vandrel/zones.json: user root, mode 666: others than root may change who gets in"},
        {"echo '{' >/etc/vandrel/zones.json", "zones",
         "fail  zones     /etc/vandrel/zones.json does not load whole, 1 finding: vdctl zones check"},
        {"sed -i s/out/aut/ /etc/vandrel/zones.json", "zones",
         "warn  zones     /etc/vandrel/zones.json: 2 findings: vdctl zones check"},
        {"rm /usr/share/vandrel/check_zone_scheduled_access.lua", "schedule",
         "fail  schedule  check_zone_scheduled_access.lua is missing: every zone counts as closed"},
        {"chmod 644 /usr/share/vandrel/vd_features.lua", "features",
         "fail  features  vd_features.lua can't be executed: every feature counts as off; chmod 755"},
        {"chmod 757 /usr/share/vandrel/vd_features.lua", "features",
         "fail  features  vd_features.lua: others than root may change it, and daemons run it; chown root and chmod "
         "755"},
        {"rm /dev/log", "log",
         "fail  log       nobody listens on /dev/log: every record is lost; start the system log before the daemons"},
        {"rm /etc/config/network", "network",
         "fail  network   the package network can't be loaded: no LAN is known; see /etc/config/network"},
        {"echo >/etc/config/network", "network",
         "warn  network   the package network has no LAN: no interface with type bridge"},
        {"echo '{' >/var/run/vandrel/vpnstate/token-A.json", "vpn",
         "warn  vpn       the state file of token-A can't be read: its peer counts as down; see its daemon"},
        {"touch /var/run/vandrel/ipc_old.sock", "socket",
         "warn  socket    ipc_old.sock: nobody listens; start its daemon, or remove the file"},
    };
    for (const auto &[happens, check, want] : cases) {
        set_up();
        write_file("/etc/group", "vandrel:x:0:\nvdipc:x:1:\n");
        if (std::string_view{happens} == "rm /dev/log")
            fs::rename("/dev/log", "/dev/log.away");
        else
            run(happens);
        const outcome got = run("vdctl doctor");
        EXPECT_EQ(got.status, 1) << happens;
        EXPECT_EQ(line_of(got.output, check), want) << happens;
        if (fs::exists("/dev/log.away"))
            fs::rename("/dev/log.away", "/dev/log");
        for (const char *path : {"/var/run/vandrel", "/etc/vandrel/zones.json", "/usr/share/vandrel/vd_features.lua"})
            fs::remove_all(path);
    }
}

TEST_F(vdctl_device, doctor_looks_at_each_daemon)
{
    set_up();
    write_file("/etc/group", "vandrel:x:0:\nvdipc:x:0:\n");
    event_base *base = event_base_new();
    const int server = ipc_server_new("one", base, nullptr);
    const std::string first = run("vdctl doctor").output;
    EXPECT_NE(line_of(first, "socket").find("ipc_one.sock: group vandrel, mode 770"), std::string::npos) << first;
    EXPECT_NE(line_of(first, "process").find(": runs as root, capabilities "), std::string::npos) << first;
    EXPECT_NE(run("vdctl -j doctor")
                  .output.find(R"({"level": "ok", "what": "folder", "text": "/var/run/vandrel: root vandrel 1775"})"),
              std::string::npos);
    chmod("/var/run/vandrel/ipc_one.sock", 0777);
    EXPECT_EQ(
        line_of(run("vdctl doctor").output, "socket"),
        "fail  socket    ipc_one.sock: group vandrel, mode 777: anybody may connect; the daemon's umask should be 027");
    ipc_close(server);
    event_base_free(base);
}
