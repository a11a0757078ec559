// vdctl's vpn and doctor, on an empty device: what they print and their exit status.
#include "vdctl_device.hpp"

namespace {

/// A device as it is to be, but for the rights of users that a test as an ordinary user has not; and a look at it.
constexpr char set_up[] = R"(umask 022
rm -rf /var/run/vandrel
mkdir -p /var/run/vandrel/vpnstate /etc/config /etc/vandrel /usr/share/vandrel
chmod 1775 /var/run/vandrel
cd /usr/share/vandrel
printf 'vandrel:x:0:\nvdipc:x:1:\n' >/etc/group
printf 'config interface lan\n option type bridge\n' >/etc/config/network
printf '#!/bin/sh\necho true\n' | tee check_zone_scheduled_access.lua >vd_features.lua
chmod 755 *.lua
rm -f /etc/vandrel/zones.json
cat >/etc/vandrel/zones.json <<END
{"zone_configuration": {"zones": {"1": {"members": {
    "token-A": {"type": "serialization", "direction": "in"}, "lan1": {"type": "port", "direction": "out"}}}}}}
END
troubles() { vdctl doctor >/tmp/found; status=$?; grep -v ^ok /tmp/found; return $status; }
)";

} // namespace

TEST_F(vdctl_device, vpn_lists_the_connections)
{
    const std::string name_of_27 = "abcdefghijklmnopqrstuvwxyz0";
    expect_outcomes(
        "mkdir -p /var/run/vandrel/vpnstate; cd /var/run/vandrel/vpnstate; rm -f *; ",
        {
            {"vdctl vpn", 1},
            {R"(echo '{"state": 1, "dev": "tun0", "remote_ip": "192.0.2.9", "remote_port": 1194, "relayed": 0,
                "tun_my_ip": "10.8.0.1"}' >vd-vpnclient-1.json; touch -d '-130 seconds' *; vdctl vpn)",
             0, "vd-vpnclient-1\tclient\t1\ttun0\t10.8.0.1\t192.0.2.9:1194\tno\t2 min ago\n"},
            {R"(echo '{"remote_ip": "192.0.2.9", "relayed": 1}' >vd-vpnserver-1.json; touch -d '+1 hour' *; vdctl vpn)",
             1, "vd-vpnserver-1\tserver\t0\t-\t-\t192.0.2.9\tyes\tin the future\n"},
            {R"(echo '{"dev": "t\u001b[31m"}' >token-A.json; touch -d '-185 minutes' *; vdctl vpn)", 0,
             "token-A\tkey\t0\tt\\x1b[31m\t-\t-\t-\t3 h ago\n"},
            {R"(echo { >token-B.json; vdctl -j vpn | grep -c '"state": null.* "peer_type": null, .*"peer_public_ip": null')",
             0, "1\n"},
            {"echo { >token-B.json; touch -d '-50 hours' *; vdctl vpn", 1,
             "token-B\tkey\t-\t-\t-\tits file cannot be read\t-\t2 d ago\n"},
            {R"(echo '{"dev": "tun0"}' >)" + name_of_27 + ".json; vdctl vpn | sed 's/\t[0-9] s ago//'", 0,
             name_of_27 + "\t-\t-\t-\t-\tits name is over 26 characters\t-\n"},
        });
}

TEST_F(vdctl_device, vpn_shows_one_peer)
{
    write_file("/var/run/vandrel/vpnstate/token-A.json",
               R"({"dev": "tun0", "proto": "udp", "relayed": 1, "peer_public_ip": "1.2.3.4"})");
    const std::string fields =
        " >all; status=$?; grep -E '(peer|role|proto|relayed|remote_ip|vpn_client_id|public_ip)\\b' all; exit $status";
    expect_outcomes("vdctl vpn ", {
                                      {"token-A" + fields, 0,
                                       "peer\ttoken-A\nrole\tkey\nvpn_client_id\t-\nproto\tudp\nremote_ip\t-"
                                       "\nrelayed\tyes\npeer_public_ip\t1.2.3.4\n"},
                                      {"-j token-A | tr , '\\n'" + fields, 0, R"({"peers": [{"peer": "token-A"
 "role": "key"
 "vpn_client_id": null
 "proto": "udp"
 "remote_ip": null
 "relayed": true
 "peer_public_ip": "1.2.3.4"}]}
)"},
                                      {"token-C", 2, "", "vdctl: no state file of \"token-C\"\n"},
                                      {"../x", 2, "", "vdctl: no state file of \"../x\"\n"},
                                  });
}

TEST_F(vdctl_device, doctor_finds_nothing_on_a_device_as_it_is_to_be)
{
    write_file("/tmp/set_up", set_up);
    expect_outcomes(". ./set_up; vdctl doctor",
                    {{"", 0, R"(ok    folder    /var/run/vandrel: root vandrel 1775
ok    group     vandrel
ok    group     vdipc
ok    zones     /etc/vandrel/zones.json loads, no findings
ok    schedule  check_zone_scheduled_access.lua
ok    features  vd_features.lua
ok    log       somebody listens on /dev/log
ok    network   1 LAN
ok    vpn       0 state files read
)"},
                     {" -j | cut -d } -f 1", 0,
                      R"({"checks": [{"level": "ok", "what": "folder", "text": "/var/run/vandrel: root vandrel 1775"
)"}});
}

TEST_F(vdctl_device, doctor_tells_what_is_wrong_and_what_to_do)
{
    write_file("/tmp/set_up", set_up);
    const struct {
        const char *happens, *want;
    } cases[] = {
        {"rm -r /var/run/vandrel", "fail  folder    /var/run/vandrel is missing: no daemon but root's can serve; let "
                                   "the start script make it, root vandrel 1775"},
        {"chmod 1777 /var/run/vandrel",
         "fail  folder    /var/run/vandrel: root vandrel 1777: anybody may serve there under any name; chmod 1775"},
        {"chmod 755 /var/run/vandrel", "warn  folder    /var/run/vandrel: root vandrel 755: chown root:vandrel and "
                                       "chmod 1775, so that daemons can serve and none removes another's socket"},
        {"echo vandrel:x:0: >/etc/group",
         "warn  group     vdipc is missing: only root and the daemon's own user can connect; add it to /etc/group"},
        {"rm /etc/vandrel/zones.json", "fail  zones     /etc/vandrel/zones.json: No such file or directory: nobody may "
                                       "reach anything; put a zone file there"},
        {"chmod 666 /etc/vandrel/zones.json", "fail  zones     /etc/vandrel/zones.json: user root, mode 666: others "
                                              "than root may change who gets in; chown root and chmod 644"},
        {"echo { >/etc/vandrel/zones.json",
         "fail  zones     /etc/vandrel/zones.json does not load whole, 1 finding: vdctl zones check"},
        {"sed -i s/out/aut/ /etc/vandrel/zones.json",
         "warn  zones     /etc/vandrel/zones.json: 2 findings: vdctl zones check"},
        {"rm check_zone_scheduled_access.lua",
         "fail  schedule  check_zone_scheduled_access.lua is missing: every zone counts as closed"},
        {"chmod 644 vd_features.lua",
         "fail  features  vd_features.lua can't be executed: every feature counts as off; chmod 755"},
        {"chmod 757 vd_features.lua", "fail  features  vd_features.lua: others than root may change it, and daemons "
                                      "run it; chown root and chmod 755"},
        {"rm /etc/config/network",
         "fail  network   the package network can't be loaded: no LAN is known; see /etc/config/network"},
        {"echo >/etc/config/network", "warn  network   the package network has no LAN: no interface with type bridge"},
        {"echo { >/var/run/vandrel/vpnstate/token-A.json",
         "warn  vpn       the state file of token-A can't be read: its peer counts as down; see its daemon"},
        {"touch /var/run/vandrel/ipc_old.sock",
         "warn  socket    ipc_old.sock: nobody listens; start its daemon, or remove the file"},
        {"mv /dev/log /tmp/log",
         "fail  log       nobody listens on /dev/log: every record is lost; start the system log before the daemons"},
    };
    for (const auto &[happens, want] : cases)
        expect_outcomes(". ./set_up; ", {{std::string{happens} + "; troubles", 1, std::string{want} + '\n'}});
}

TEST_F(vdctl_device, doctor_looks_at_each_daemon)
{
    if (is_started_by_another())
        GTEST_SKIP() << "processes have the name of what starts them";
    write_file("/tmp/set_up", set_up);
    const std::string serve =
        "sed -i s/x:1/x:0/ /etc/group; vdctl bus serve one & until vdctl bus list | grep -q serving; do :; done; ";
    const std::string look =
        "vdctl doctor | sed -nE 's/(process|capabilities) [0-9a-f]+/\\1/g; /socket|process/p'; kill $!; wait";
    const std::string process =
        "warn  process   vdctl, process: runs as root, capabilities; start it with a user of its own\n";
    expect_outcomes(
        ". ./set_up; " + serve,
        {
            {look, 0,
             "warn  socket    ipc_one.sock: group vandrel, mode 770: give the daemon the group vdipc or CAP_CHOWN\n" +
                 process},
            {"chmod 777 /var/run/vandrel/ipc_one.sock; " + look, 0,
             "fail  socket    ipc_one.sock: group vandrel, mode 777: anybody may connect; the daemon's umask should be "
             "027\n" +
                 process},
        });
}
