// The program vdctl, run on an empty device: what it prints and its exit status.
#include "child_process.hpp"
#include "vdctl_device.hpp"

#include <csignal>
#include <fstream>
#include <vector>

#include <unistd.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json";
constexpr char schedule_script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";

/// The first block of that kind on a page of the project.
std::string block_of(const std::string &page, const std::string &begin)
{
    const std::string text = read_file(host_path(SOURCE_DIR) + page);
    const std::size_t from = text.find(begin) + begin.size();
    return text.substr(from, text.find("```", from) - from);
}

std::string example_file()
{
    return block_of("/docs/zones.md", "```json\n");
}

class vdctl_test : public vdctl_device {
protected:
    vdctl_test()
    {
        write_file(zones_file, example_file());
        write_file("/tmp/example.json", example_file());
        write_script(schedule_script, "#!/bin/sh\n[ $2 = 3 ] || echo true\n");
    }
};

/// Runs every command of a page's console blocks and compares what it prints there; gives how many there were.
std::size_t compare_console_blocks(const std::string &page)
{
    std::ifstream text{host_path(SOURCE_DIR) + page};
    std::vector<std::pair<std::string, std::string>> commands; // and what they print
    bool is_console = false;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("```"))
            is_console = line == "```console";
        else if (is_console && line.starts_with("$ "))
            commands.emplace_back(line.substr(2), "");
        else if (is_console)
            commands.back().second += line + '\n';
    }
    for (const auto &[command, want] : commands)
        EXPECT_EQ(run_on_terminal(command), want) << command;
    return commands.size();
}

} // namespace

TEST_F(vdctl_test, prints_what_the_documents_show)
{
    write_file("/tmp/new.json", block_of("/docs/vdctl.md", "```json\n"));
    child_process daemon{[] {
        const std::string vdaccess = "exec " + built_program("daemons/vdaccess") + " -f";
        execl("/bin/sh", "sh", "-c", vdaccess.c_str(), nullptr);
    }};
    EXPECT_EQ(run("until vdctl bus list | grep -q serving; do sleep 0.01; done").status, 0);
    EXPECT_GE(compare_console_blocks("/docs/vdctl.md"), 10U);
    EXPECT_GE(compare_console_blocks("/docs/troubleshooting.md"), 3U);
    EXPECT_GE(compare_console_blocks("/README.md"), 1U);
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_test, completes_words)
{
    const std::string hostile = R"json("$(reboot)": {"type": "port"}, "a b": {"type": "port"}, )json";
    write_file(zones_file, example_file().insert(example_file().find("\"token-A\""), hostile));
    expect_outcomes("vdctl --complete ",
                    {
                        {"", 0, "bus\ndoctor\nvpn\nzones\n"},
                        {"zones ''", 0, "check\ndiff\nmatrix\nreach\nwho\nwhy\n"},
                        {"--q", 0, "--quiet\n"},
                        {"zones why --", 0, "--file\n--help\n--json\n--no-schedule\n--quiet\n--version\n"},
                        {"zones why ''", 0, "token-A\ntoken-B\n"},
                        {"zones why -f new.json token-B ''", 0, "lan1\ntoken-A\ntoken-B\n"},
                        {"zones why --file=new.json token-B l", 0, "lan1\n"},
                        {"zones why -nf ''", 0, ""},
                        {"zones why a b ''", 0, ""},
                        {"vpn ''", 0, "token-A\ntoken-B\n"},
                        {"vpn ''; rm /etc/vandrel/zones.json; vdctl --complete vpn ''", 0, "token-A\ntoken-B\n"},
                    });
    EXPECT_EQ(run("bash -c '. " + host_path(SOURCE_DIR) +
                  "/tools/vdctl/completion.bash; COMP_WORDS=(vdctl zones w rest) COMP_CWORD=2; _vdctl vdctl; "
                  "echo ${#COMPREPLY[*]} ${COMPREPLY[*]}'")
                  .output,
              "2 who why\n");
}

TEST_F(vdctl_test, refuses_wrong_usage_with_the_nearest_word)
{
    const std::string general =
        "usage: vdctl [-j] [-q] COMMAND [SUBCOMMAND] [OPTION...] [ARGUMENT...]; vdctl -h lists them";
    const std::string why = "usage: vdctl [-j] [-q] zones why [--file FILE] [--no-schedule] PEER TARGET";
    const std::string check = "usage: vdctl [-j] [-q] zones check [--file FILE] [FILE]";
    const struct {
        const char *words, *reason;
        std::string usage;
    } cases[] = {
        {"", "a command is missing", general},
        {"zone", R"(no command "zone"; did you mean "zones"?)", general},
        {"zones", R"("zones" needs a subcommand)", general},
        {"zones wy a b", R"(no command "zones wy"; did you mean "zones why"?)", general},
        {"rubbish", R"(no command "rubbish")", general},
        {"zones why token-A", R"("zones why" needs PEER TARGET)", why},
        {"zones check -n", R"("zones check" takes no --no-schedule)", check},
        {"zones why --fil x a b", R"(no option "--fil"; did you mean "--file"?)", why},
        {"-x", R"(no option "-x")", general},
        {"zones why a b -f", "-f needs FILE", why},
        {"zones why a b --json=x", "--json takes no value", why},
        {"zones why a b -- -n", R"(too many words, from "-n" on)", why},
        {"zones why token-A 10.0.0.256", R"("10.0.0.256" is no address)", why},
        {"zones why token-A mac:1", R"("1" is no MAC address)", why},
        {"zones check a -f b", "one file at a time: FILE or --file", check},
    };
    for (const auto &[words, reason, usage] : cases)
        expect_outcomes("vdctl ", {{words, 2, "", std::string{"vdctl: "} + reason + '\n' + usage + '\n'}});
}

TEST_F(vdctl_test, answers)
{
    const std::string more = R"("2": {"members": {"vd-vpnserver-1": {"type": "serialization", "direction": "in"},
        "token-out": {"type": "serialization", "direction": "out"},
        "0.0.0.0": {"type": "port", "direction": "out"}}},
      "3": {"members": {"token-A": {"type": "serialization", "direction": "in"},
        "lan1": {"type": "port", "direction": "out"},
        "lan3": {"type": "port", "direction": "out"},
        "vd-vpnserver-1": {"type": "serialization", "direction": "in"},
        "vd-vpnserver-3": {"type": "serialization", "direction": "both"}}},
      "4": {"deny_between_locks": true, "members": {
        "vd-vpnserver-1": {"type": "serialization", "direction": "both"},
        "vd-vpnserver-3": {"type": "serialization", "direction": "both"}}},)";
    write_file(zones_file, example_file().insert(example_file().find("\"1\""), more));
    expect_outcomes(
        "vdctl zones ",
        {
            {"why token-A lan1", 0, R"(yes     token-A may reach port lan1
        one of zones 3, 1 is open
        zone 3: "lan1", line 8
        zone 1: "lan1", line 19
)"},
            {"why -n token-A port:lan3", 0, R"(yes     token-A may reach port lan3
        zone 3: "lan3", line 9
        schedule not asked
)"},
            {"why token-A lan3", 3, R"(closed  token-A may reach port lan3, but not now
        zone 3: "lan3", line 9; its schedule is closed
)"},
            {"why token-out 00:11:22:33:44:FF", 1, R"(no      token-out may not reach mac 00:11:22:33:44:ff
        it is neither "in" nor "both" in its zones (zone 2, line 4)
near    line 14: zone 1 lets its peers reach it, but token-out is not in it
)"},
            {"why vd-vpnserver-1 vd-vpnserver-3", 1, R"(no      vd-vpnserver-1 may not reach peer vd-vpnserver-3
        zone 3: "vd-vpnserver-3", line 11; its schedule is closed
        zone 4, line 12: deny_between_locks keeps Locks of one role apart
)"},
            {"why token-A 00:11:22:33:45:00", 1, R"(no      token-A may not reach mac 00:11:22:33:45:00
        nothing that can be reached in its zones holds it (zone 3, line 7; zone 1, line 14)
hint    the nearest that it reaches is "cameras" 00:11:22:33:44:00-00:11:22:33:44:ff (zone 1, line 23)
)"},
            {"why -q vd-vpnserver-1 port:0.0.0.0", 0},
            {"why -j token-A ip:192.168.1.21", 1,
             R"({"verdict": "no", "reason": "no-target", "peer": "token-A", "target": {"type": "ip", "value": "192.168.1.21"}, "file": null, "schedule": "asked", "zones": [{"zone": "3", "line": 7, "member": null, "member_line": null, "denies": false}, {"zone": "1", "line": 14, "member": null, "member_line": null, "denies": false}], "hints": [], "near": [{"zone": "1", "member": "printers", "line": 21, "key": "address_end", "value": "192.168.1.21", "text": "1 above \"printers\" 192.168.1.10-192.168.1.20 of zone 1"}]}
)"},
            {"who lan3", 0, "vd-vpnserver-1\tclosed\t3:9\ntoken-A\tclosed\t3:9\nvd-vpnserver-3\tclosed\t3:9\n"},
            {"who -n peer:token-out", 0, "vd-vpnserver-1\tnot asked\t2:5\n"},
            {"who lan9", 1},
            {"reach token-X", 1},
            {"reach -j token-B | cut -d } -f -2", 0,
             R"({"rows": [{"peers": ["token-B"], "exact": true, "reach": [{"type": "ip", "start": "10.1.0.0", "end": "10.1.255.255", "open": true, "members": [{"zone": "1", "member": "office", "line": 20}]
)"},
            {"diff /etc/vandrel/zones.json", 0},
            {"check", 0},
        });
}

TEST_F(vdctl_test, says_why_there_is_no_answer)
{
    const std::string file = std::string{"vdctl: "} + zones_file;
    expect_outcomes(
        std::string{"cp example.json "} + zones_file + "; cd /etc/vandrel; ",
        {
            {"rm zones.json; vdctl zones why token-A lan1", 2, "",
             "vdctl: cannot open /etc/vandrel/zones.json: No such file or directory\n"},
            {"printf '{\\n]' >zones.json; vdctl zones who lan1", 2, "",
             file + ":2: no JSON: quoted object property name expected\n"},
            {": >zones.json; vdctl zones matrix", 2, "", file + ":1: no JSON: it ends too early\n"},
            {"echo {} >zones.json; vdctl zones reach a", 2, "",
             file + ": it has no \"zones\" in \"zone_configuration\"\n"},
            {"touch -d @0 zones.json; vdctl zones why token-A lan1", 2, "",
             file + ": its time stamp is 0 or before, so no schedule ever counts; -n leaves them alone\n"},
            {"touch -d @0 zones.json; vdctl zones why -nq token-A lan1", 0},
            {"vdctl zones check nothing.json", 2, "", "vdctl: cannot open nothing.json: No such file or directory\n"},
            {"echo [ >bad.json; vdctl zones diff bad.json", 2, "", "vdctl: bad.json:2: no JSON: it ends too early\n"},
            {"touch -d @0 zones.json; vdctl zones check", 1,
             "/etc/vandrel/zones.json:1: more: the file's time stamp is 0 or before, so it is read anew for each "
             "question and no schedule counts [time]\n"},
            {"vdctl zones check -j /dev/null", 1,
             R"({"file": "/dev/null", "findings": [{"line": 1, "level": "less", "code": "file", "zone": null, "member": null, "text": "no JSON, so nothing is allowed: it ends too early"}]}
)"},
            {"vdctl zones check .", 2, "", "vdctl: cannot read .: Is a directory\n"},
            {"vdctl zones matrix >/dev/full", 2, "", "vdctl: cannot write: No space left on device\n"},
            {"mkfifo pipe; exec 3<>pipe 4>pipe 3>&-; vdctl zones matrix >&4; echo $? >&2", 0, "", "141\n"},
            {"sed -i '3a \"3\": {},' zones.json; vdctl zones who token-B", 1, "",
             "vdctl: zone 3, line 4, has no members: a daemon's first question after a reload gets no\n"},
            {std::string{"rm "} + schedule_script + "; vdctl zones who lan1", 0,
             "token-A\tclosed\t1:9\ntoken-B\tclosed\t1:9\n",
             std::string{"vdctl: "} + schedule_script + ": No such file or directory: every zone counts as closed\n"},
            {"vdctl -q zones who lan1", 0},
        });
}

// Another file in the live one's place: for whoever may mount, for whoever needs a user namespace for that, and for
// whoever has none in a changed root.
TEST_F(vdctl_test, asks_about_another_file)
{
    if (is_emulated())
        GTEST_SKIP() << "qemu-user's processes have threads, and may not have a user namespace of their own";
    const std::string powerless = "setpriv --bounding-set=-sys_admin ";
    const std::string refused = "vdctl: cannot put other.json in the live file's place: ";
    write_file("/etc/vandrel/schedules", "kept");
    write_script(schedule_script, "#!/bin/sh\ngrep -q lan7 $1 && grep -q kept /etc/vandrel/schedules && echo true\n");
    // What is lost shares its ends with what remains, its numbers with MAC addresses, and a port's name with a peer.
    write_file("/tmp/edits", R"(s/"token-A"/"token-N": {"type": "serialization", "direction": "in"}, "token-A"/
s/"lan1"/"lan7": {"type": "port", "direction": "out"}, "lan1"/
s/"lan1": {"type": "port"/"lan1": {"type": "serialization"/
s/"10.1.0.0", "netmask": "16"/"10.0.0.0", "address_end": "10.1.0.0"/
s/192.168.1.10/10.1.255.255/
s/192.168.1.20/10.2.0.0/
s/00:11:22:33:44:00/00:00:0a:01:00:00/
)");
    EXPECT_EQ(run("sed -f edits example.json >other.json").status, 0);
    expect_outcomes(powerless + "vdctl zones ",
                    {{"why -qf other.json token-A lan7", 0}, {"diff -f other.json other.json", 0}});
    expect_outcomes("vdctl zones ",
                    {
                        {"why token-A -qf - lan7 <other.json", 0},
                        {"who --file=/dev/stdin lan1 <<END\n$(cat other.json)\nEND\n", 1},
                        {"diff other.json | grep -E 'A|N.*lan7'", 0, R"(-	token-A	ip	10.1.0.1-10.1.255.254
-	token-A	ip	192.168.1.10-192.168.1.20
-	token-A	port	lan1
+	token-A	ip	10.0.0.0-10.0.255.255
+	token-A	ip	10.2.0.0
+	token-A	mac	00:00:0a:01:00:00-00:11:22:33:43:ff
+	token-A	port	lan7
+	token-A	peer	lan1
+	token-N	port	lan7
)"},
                    });
    EXPECT_EQ(read_file(zones_file), example_file());
    write_script(schedule_script, "#!/bin/sh\ngrep -q lan7 $1 && echo true\n");
    expect_outcomes("", {
                            {"mkdir root; mount --rbind / root; /usr/sbin/chroot root " + powerless +
                                 "sh -c 'cd /tmp; vdctl zones who -f other.json lan7'",
                             2, "", refused + "no right to a mount namespace; run as root\n"},
                            {"rm /etc/vandrel/zones.json; vdctl zones why -qf other.json token-A lan7", 0},
                            {"ls /etc/vandrel; mv /etc/vandrel /etc/elsewhere; vdctl zones who -f other.json lan7", 2,
                             "schedules\n", refused + "/etc/vandrel: No such file or directory\n"},
                        });
}

// A file with one mistake in a line, which is told behind it. (IP and MAC are written out first.)
TEST_F(vdctl_test, finds_each_mistake_in_a_zone_file)
{
    write_file("/tmp/short.json", R"({"Zone_configuration": 1, "zone_configuration": {"zones": { // more unknown-key
"1": {"disabled": "no", // more flag
"deny_betwen_keys": true, "comment": 1, // more unknown-key
"members": {
"token-A": {"type": "serialization", "direction": "in"},
"token-A": {"type": "serialization", "direction": "both"}, // more key-twice
"token-abcdefghijklmnopqrst": {"type": "serialization", "direction": "both"},
"token-abcdefghijklmnopqrstu": {"type": "serialization", "direction": "both"}, // more name-cut
"abcdefghijklmn": {"type": "port", "direction": "both"}, // more name-cut
"t1": {"type": "Port", "direction": "both"}, // less type
"t2": {"direction": "both"}, // less type
"t4": {"type": "port", "direction": "Out"}, // less direction
"t5": {"type": "port", "direction": "out", "disabled": "false"}, // more flag
"t6": {"type": "port", "direction": "out", "Type": 1}, // more unknown-key
"t7": {"type": "port", "direction": "out", "dir\u0065ction": "in"}, // more key-twice
"t8": null, // less members
"t9": "port", // less members
"a1": {"type": "whitelisted_ip", "direction": "out"}, // less start
"a2": {IP "10.0.0.1", "address_end": "10.0.0.256"}, // more address
"a3": {IP "rubbish"}, // less address
"a5": {IP "10.1"}, // more address
"a6": {IP "10.0.0.1", "address_end": "10.0.0.010"}, // less address
"a7": {IP "10.0.0.9", "address_end": "10.0.0.1"}, // less range
"a8": {IP "0.0.0.0", "netmask": "0"},
"a9": {IP "0.0.0.0", "netmask": "/24"}, // more netmask
"b0": {IP "10.0.0.0", "netmask": "/24"}, // less netmask
"b1": {IP "10.0.0.0", "netmask": "0.0.0.255"}, // more netmask
"b2": {IP "10.0.0.0", "netmask": "rubbish"}, // less netmask
"b4": {IP "10.0.0.0", "netmask": "255.255.0377.0"}, // more netmask
"b5": {IP "10.0.0.0", "netmask": "24", "address_end": "x"}, // note ignored
"c1": {MAC "001122334455"}, // less mac
"c2": {MAC "00:11:22:33:44:0g"}, // more mac
"c3": {MAC "00:11:22:33:44:00", "address_end": "00:11:22:33:44:fg"}, // less mac
"c4": {MAC "00:11:22:33:44:09", "address_end": "00:11:22:33:44:00"}, // less range
"c5": {MAC "00:11:22:33:44:00", "netmask": "24"}}}, // note ignored
"2": {}, // less members
"3": null, // less members
"4": {"members": []}, // less members
"05": {"members": {"x": {"type": "serialization", "direction": "out"}}}, // note no-subject
"06": {"members": {"x": {"type": "serialization", "direction": "in"}}}, // note no-target
"6": {"members": {"x": {"type": "serialization", "direction": "both"}}}, // note same-id
"7x": {"members": {}}, // less zone-key
"8": {"disabled": true, "members": {"x": 1}}}}}
)");
    run(R"(sed -E 's/(IP|MAC) /"type": "whitelisted_\L\1", "direction": "out", "address_start": /' short.json >long.json)");
    const outcome found =
        run(R"(vdctl zones check long.json | sed -E 's/^[^:]*:([0-9]+): ([a-z]+): .* \[(.*)\]$/\1: \2 \3/')");
    EXPECT_EQ(found.output, run("grep -n // short.json | sed 's|:.*//|:|'").output);
}

TEST_F(vdctl_test, page_runs_only_its_own_script)
{
    const std::string hash = "sha256sum | head -c 64 | sed 's/../\\\\x&/g' | xargs -0 printf | base64";
    expect_outcomes("vdctl zones matrix --html >page.html; for part in style script; do "
                    "hash=$(sed -n \"/^<$part>/,/^<.$part>/p\" page.html | sed '1s/.*//; $d' | " +
                        hash + "); grep -c \"$part-src 'sha256-$hash'\" page.html; done",
                    {{"", 0, "1\n1\n"}});
}

TEST_F(vdctl_test, page_shows_its_cells_in_a_browser)
{
    if (run("chromium --version").status != 0)
        GTEST_SKIP() << "needs chromium";
    std::string text = example_file();
    text.replace(text.find("\"lan1\""), 6, R"("</script><b>\u003ci")"); // 13 characters of it count
    text.insert(text.find("\"1\""),
                R"("2": {"members": {"token-C": {"type": "serialization", "direction": "both"}}},)");
    write_file(zones_file, text);
    const outcome shown = run("vdctl zones matrix --html >page.html; "
                              "chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                              "--disable-background-networking --disable-component-update --disable-sync "
                              "--user-data-dir=/tmp/browser --dump-dom file:///tmp/page.html");
    for (const char *part :
         {"<td>10.1.0.0/16</td><td class=\"open\">\u25cf open</td><td>1:10</td>",
          "<td>&lt;/script&gt;&lt;b&gt;&lt;</td>", "<span>4 targets</span>", "<span>1 target</span>"})
        EXPECT_NE(shown.output.find(part), std::string::npos) << part << shown.output;
}
