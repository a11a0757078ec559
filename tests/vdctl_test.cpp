// The program vdctl, run on an empty device: what it prints and its exit status.
#include "child_process.hpp"
#include "device_test.hpp"
#include "program_run.hpp"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr char zones_file[] = "/etc/vandrel/zones.json";
constexpr char schedule_script[] = "/usr/share/vandrel/check_zone_scheduled_access.lua";

/// The text between two marks of a file of the project.
std::string part_of(const std::string &path, const std::string &begin, const std::string &end)
{
    const std::string text = read_file(host_path(SOURCE_DIR) + path);
    const std::size_t from = text.find(begin) + begin.size();
    return text.substr(from, text.find(end, from) - from);
}

std::string example_file()
{
    return part_of("/docs/zones.md", "```json\n", "```");
}

class vdctl_test : public device_test {
protected:
    vdctl_test()
    {
        write_file(zones_file, example_file());
        write_script(schedule_script, "#!/bin/sh\necho true\n");
        setenv("PATH", (host_path(BINARY_DIR) + "/tools/vdctl:" + std::getenv("PATH")).c_str(), 1);
        setenv("NO_COLOR", "1", 1);
        std::filesystem::current_path("/tmp");
    }
};

/// Refuses new namespaces with an error, as a container or a kernel without them does.
template <int Error> void refuse_namespaces()
{
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_unshare, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | Error),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{std::size(code), code};
    prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

/// Leaves only a user namespace as the way to a mount.
void drop_right_to_mount()
{
    constexpr int cap_sys_admin = 21;
    prctl(PR_CAPBSET_DROP, cap_sys_admin, 0, 0, 0);
}

} // namespace

namespace {

/// Runs every command of a page's console blocks and compares what it prints there; gives how many there were.
int compare_console_blocks(const std::string &page)
{
    std::ifstream text{host_path(SOURCE_DIR) + page};
    std::string command, want;
    int commands = 0;
    const auto compare = [&] {
        if (command.empty())
            return;
        EXPECT_EQ(run_on_terminal(command), want) << command;
        ++commands;
        command.clear();
        want.clear();
    };
    bool is_console = false;
    for (std::string line; std::getline(text, line);) {
        const bool is_mark = line.starts_with("```");
        if (is_mark || (is_console && line.starts_with("$ ")))
            compare();
        if (is_mark)
            is_console = line == "```console";
        else if (is_console && line.starts_with("$ "))
            command = line.substr(2);
        else if (is_console)
            want += line + '\n';
    }
    return commands;
}

} // namespace

TEST_F(vdctl_test, prints_what_the_documents_show)
{
    write_file("/tmp/new.json", part_of("/docs/vdctl.md", "```json\n", "```"));
    child_process daemon{[] {
        const std::string vdaccess = host_path(BINARY_DIR) + "/daemons/vdaccess";
        execl(vdaccess.c_str(), "vdaccess", "-f", nullptr);
    }};
    EXPECT_EQ(run("until vdctl bus list | grep -q serving; do sleep 0.01; done").status, 0);
    EXPECT_GE(compare_console_blocks("/docs/vdctl.md"), 10);
    EXPECT_GE(compare_console_blocks("/docs/troubleshooting.md"), 3);
    EXPECT_GE(compare_console_blocks("/README.md"), 1);
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_test, completes_words)
{
    const std::string hostile = R"json("$(reboot)": {"type": "port", "direction": "out"},
        "a b": {"type": "port", "direction": "out"}, )json";
    write_file(zones_file, example_file().insert(example_file().find("\"token-A\""), hostile));
    const struct {
        const char *words, *output;
    } cases[] = {
        {"''", "bus\ndoctor\nvpn\nzones\n"},
        {"z", "zones\n"},
        {"zones w", "who\nwhy\n"},
        {"zones ''", "check\ndiff\nmatrix\nreach\nwho\nwhy\n"},
        {"-q zones w", "who\nwhy\n"},
        {"nothing ''", ""},
        {"--q", "--quiet\n"},
        {"zones why --", "--file\n--help\n--json\n--no-schedule\n--quiet\n--version\n"},
        {"zones why ''", "token-A\ntoken-B\n"},
        {"zones why -f new.json token-B ''", "lan1\ntoken-A\ntoken-B\n"},
        {"zones why --file=new.json token-B l", "lan1\n"},
        {"zones why -nf ''", ""},
        {"zones why a b ''", ""},
        {"zones check ''", ""},
        {"vpn ''", "token-A\ntoken-B\n"},
        {"bus call ''", ""},
    };
    for (const auto &[words, output] : cases) {
        const outcome found = run(std::string{"vdctl --complete "} + words);
        EXPECT_EQ(found.status, 0) << words;
        EXPECT_EQ(found.output, output) << words;
        EXPECT_EQ(found.errors, "") << words;
    }
    std::filesystem::remove(zones_file);
    EXPECT_EQ(run("vdctl --complete zones why ''").output, "");
    EXPECT_EQ(run("vdctl --complete").status, 0);
    EXPECT_EQ(run("bash -c '. " + host_path(SOURCE_DIR) +
                  "/tools/vdctl/completion.bash; COMP_WORDS=(vdctl zones w rest) COMP_CWORD=2; _vdctl vdctl; "
                  "echo ${#COMPREPLY[*]} ${COMPREPLY[*]}'")
                  .output,
              "2 who why\n");
}

TEST_F(vdctl_test, refuses_wrong_usage_with_the_nearest_word)
{
    const struct {
        const char *words, *reason, *usage;
    } cases[] = {
        {"", "a command is missing", "COMMAND [SUBCOMMAND]"},
        {"zone", "no command \"zone\"; did you mean \"zones\"?", "COMMAND [SUBCOMMAND]"},
        {"zones", "\"zones\" needs a subcommand", "COMMAND [SUBCOMMAND]"},
        {"zones wy a b", "no command \"zones wy\"; did you mean \"zones why\"?", "COMMAND [SUBCOMMAND]"},
        {"rubbish", "no command \"rubbish\"", "COMMAND [SUBCOMMAND]"},
        {"zones why token-A", "\"zones why\" needs PEER TARGET", "zones why [--file FILE]"},
        {"zones why a b c", "too many words, from \"c\" on", "zones why [--file FILE]"},
        {"zones check -n", "\"zones check\" takes no --no-schedule", "zones check [--file FILE]"},
        {"zones why --fil x a b", "no option \"--fil\"; did you mean \"--file\"?", "COMMAND [SUBCOMMAND]"},
        {"-x", "no option \"-x\"", "COMMAND [SUBCOMMAND]"},
        {"zones why a b -f", "-f needs FILE", "COMMAND [SUBCOMMAND]"},
        {"zones why a b --json=x", "--json takes no value", "COMMAND [SUBCOMMAND]"},
        {"zones why a b -- -n", "too many words, from \"-n\" on", "zones why [--file FILE]"},
        {"zones why token-A 010.0.0.1", "that is 8.0.0.1", "zones why [--file FILE]"},
        {"zones why token-A 10.0.0.256", "\"10.0.0.256\" is no address", "zones why [--file FILE]"},
        {"zones why token-A ip:10.1", "that is 10.0.0.1", "zones why [--file FILE]"},
        {"zones why token-A mac:1", "\"1\" is no MAC address", "zones why [--file FILE]"},
        {"zones check a -f b", "one file at a time", "zones check [--file FILE]"},
        {"'zo\033[31m'", "no command \"zo\\x1b[31m\"", "COMMAND [SUBCOMMAND]"},
    };
    for (const auto &[words, reason, usage] : cases) {
        const outcome found = run(std::string{"vdctl "} + words);
        EXPECT_EQ(found.status, 2) << words;
        EXPECT_EQ(found.output, "") << words;
        EXPECT_NE(found.errors.find(reason), std::string::npos) << words << '\n' << found.errors;
        EXPECT_NE(found.errors.find(usage), std::string::npos) << words << '\n' << found.errors;
        EXPECT_EQ(std::ranges::count(found.errors, '\n'), 2) << words << '\n' << found.errors;
    }
}

TEST_F(vdctl_test, answers_by_exit_status_and_first_word)
{
    write_script(schedule_script, "#!/bin/sh\n[ $2 = 3 ] || echo true\n");
    const std::string zone2 = R"("2": {"deny_between_locks": true, "disabled": false, "members": {
        "vd-vpnserver-1": {"type": "serialization", "direction": "both"},
        "vd-vpnserver-2": {"type": "serialization", "direction": "both"},
        "token-out": {"type": "serialization", "direction": "out"},
        "0.0.0.0": {"type": "port", "direction": "out"}}},
      "3": {"members": {"token-A": {"type": "serialization", "direction": "in"}, "lan3": {"type": "port", "direction": "out"},
        "vd-vpnserver-1": {"type": "serialization", "direction": "both"},
        "vd-vpnserver-3": {"type": "serialization", "direction": "both"}}},
      "4": {"deny_between_locks": true, "members": {
        "vd-vpnserver-1": {"type": "serialization", "direction": "both"},
        "vd-vpnserver-3": {"type": "serialization", "direction": "both"}}},)";
    write_file(zones_file, example_file().insert(example_file().find("\"1\""), zone2));
    const struct {
        const char *words;
        int status;
        const char *begin, *reason;
    } cases[] = {
        {"why token-A lan1", 0, "yes ", "allowed"},
        {"why token-A 10.1.200.3", 0, "yes ", "allowed"},
        {"why token-A 00:11:22:33:44:7F", 0, "yes ", "allowed"},
        {"why token-A peer:token-A", 1, "no ", "no-target"},
        {"why token-A 192.168.1.21", 1, "no ", "no-target"},
        {"why token-A token-B", 1, "no ", "denied"},
        {"why token-X lan1", 1, "no ", "no-zone"},
        {"why token-out lan1", 1, "no ", "no-subject"},
        {"why token-A lan3", 3, "closed ", "closed"},
        {"why -n token-A lan3", 0, "yes ", "allowed"},
        {"why vd-vpnserver-1 vd-vpnserver-2", 1, "no ", "denied"},
        {"why vd-vpnserver-1 vd-vpnserver-3", 1, "no ", "denied-behind-closed"},
        {"why vd-vpnserver-1 port:0.0.0.0", 0, "yes ", "allowed"},
    };
    for (const auto &[words, status, begin, reason] : cases) {
        const outcome text = run(std::string{"vdctl zones "} + words),
                      json = run(std::string{"vdctl -j zones "} + words);
        EXPECT_EQ(text.status, status) << words << text.errors;
        EXPECT_EQ(text.output.substr(0, std::strlen(begin)), begin) << words;
        EXPECT_EQ(json.status, status) << words;
        EXPECT_NE(json.output.find(std::string{"\"reason\": \""} + reason + "\""), std::string::npos) << json.output;
        EXPECT_EQ(run(std::string{"vdctl -q zones "} + words).output, "") << words;
    }
    const struct {
        const char *words;
        int status;
        const char *output;
    } lists[] = {
        {"who lan3", 0, "vd-vpnserver-1\tclosed\t3:9\ntoken-A\tclosed\t3:9\nvd-vpnserver-3\tclosed\t3:9\n"},
        {"who -n lan3", 0, "vd-vpnserver-1\tnot asked\t3:9\ntoken-A\tnot asked\t3:9\nvd-vpnserver-3\tnot asked\t3:9\n"},
        {"who lan9", 1, ""},
        {"reach token-X", 1, ""},
        {"reach token-out", 1, ""},
        {"diff /etc/vandrel/zones.json", 0, ""},
        {"check", 0, ""},
    };
    for (const auto &[words, status, output] : lists) {
        const outcome found = run(std::string{"vdctl zones "} + words);
        EXPECT_EQ(found.status, status) << words << found.errors;
        EXPECT_EQ(found.output, output) << words;
    }
}

TEST_F(vdctl_test, says_why_there_is_no_answer)
{
    const struct {
        const char *set_up, *words, *errors;
    } cases[] = {
        {"rm /etc/vandrel/zones.json", "why token-A lan1",
         "vdctl: cannot open /etc/vandrel/zones.json: No such file or directory\n"},
        {"printf '{\\n]' >/etc/vandrel/zones.json", "who lan1",
         "vdctl: /etc/vandrel/zones.json:2: no JSON: quoted object property name expected\n"},
        {"printf '' >/etc/vandrel/zones.json", "matrix",
         "vdctl: /etc/vandrel/zones.json:1: no JSON: it ends too early\n"},
        {"printf '{}' >/etc/vandrel/zones.json", "reach a",
         "vdctl: /etc/vandrel/zones.json: it has no \"zones\" in \"zone_configuration\"\n"},
        {"touch -d @0 /etc/vandrel/zones.json", "why token-A lan1",
         "vdctl: /etc/vandrel/zones.json: its time stamp is 0 or before, so no schedule ever counts; -n leaves them "
         "alone\n"},
        {"true", "check nothing.json", "vdctl: cannot open nothing.json: No such file or directory\n"},
        {"true", "diff nothing.json", "vdctl: cannot open nothing.json: No such file or directory\n"},
        {"printf '[' >bad.json", "diff bad.json", "vdctl: bad.json:1: no JSON: it ends too early\n"},
        {"true", "why -f /etc/vandrel token-A lan1", "vdctl: cannot read /etc/vandrel: Is a directory\n"},
        {"true", "matrix >/dev/full", "vdctl: cannot write: No space left on device\n"},
    };
    for (const auto &[set_up, words, errors] : cases) {
        write_file(zones_file, example_file());
        const outcome found = run(std::string{set_up} + "; vdctl zones " + words);
        EXPECT_EQ(found.status, 2) << words;
        EXPECT_EQ(found.output, "") << words;
        EXPECT_EQ(found.errors, errors) << words;
    }
    write_file(zones_file, example_file());
    EXPECT_EQ(run("touch -d @0 /etc/vandrel/zones.json; vdctl zones why -n token-A lan1").status, 0);
    write_file(zones_file, example_file());
    EXPECT_EQ(run("touch /etc/vandrel/zones.json").status, 0);
    const outcome closed_pipe = run("{ vdctl zones matrix; echo $? >&2; } | true");
    EXPECT_TRUE(closed_pipe.errors == "141\n" || closed_pipe.errors == "0\n")
        << closed_pipe.errors; // before or after the write
}

TEST_F(vdctl_test, warns_once_of_what_is_odd_about_the_device)
{
    std::filesystem::remove(schedule_script);
    const outcome missing = run("vdctl zones matrix");
    EXPECT_EQ(missing.errors,
              std::string{"vdctl: "} + schedule_script + ": No such file or directory: every zone counts as closed\n");
    EXPECT_NE(missing.output.find("closed"), std::string::npos);
    write_script(schedule_script, "#!/bin/sh\necho true\n");
    std::string text = example_file();
    write_file(zones_file, text.insert(text.find("\"1\""), "\"3\": {}, "));
    const outcome incomplete = run("vdctl zones why token-A lan1");
    EXPECT_EQ(incomplete.status, 0);
    EXPECT_EQ(incomplete.errors,
              "vdctl: zone 3, line 4, has no members: a daemon's first question after a reload gets no\n");
    EXPECT_EQ(run("vdctl -q zones why token-A lan1").errors, "");
}

// Another file in the live one's place: for whoever may mount, and for whoever needs a user namespace for that.
TEST_F(vdctl_test, asks_about_another_file)
{
    std::string other = example_file();
    other.replace(other.find("lan1"), 4, "lan7");
    write_file("/tmp/other.json", other);
    write_file("/etc/vandrel/schedules", "kept");
    write_script(schedule_script, "#!/bin/sh\ngrep -q lan7 $1 && grep -q kept /etc/vandrel/schedules && echo true\n");
    for (void (*prepare)() : {+[] {}, drop_right_to_mount}) {
        EXPECT_EQ(run("vdctl zones why -f other.json token-A lan7", prepare).status, 0);
        EXPECT_EQ(run("vdctl zones why token-A -f - lan7 </tmp/other.json", prepare).status, 0);
        EXPECT_EQ(run("cat other.json | vdctl zones why --file=/dev/stdin token-A lan1", prepare).status, 1);
        EXPECT_EQ(run("vdctl zones diff other.json", prepare).output,
                  "-\ttoken-A\tport\tlan1\n+\ttoken-A\tport\tlan7\n-\ttoken-B\tport\tlan1\n+\ttoken-B\tport\tlan7\n");
        EXPECT_EQ(run("vdctl zones diff -f other.json other.json", prepare).status, 0);
    }
    EXPECT_EQ(read_file(zones_file), example_file());
    std::filesystem::remove(zones_file);
    write_script(schedule_script, "#!/bin/sh\ngrep -q lan7 $1 && echo true\n");
    EXPECT_EQ(run("vdctl zones why -f other.json token-A lan7").status, 0);
    EXPECT_FALSE(std::filesystem::exists(zones_file));

    const std::string refused = "vdctl: cannot put other.json in the live file's place: ";
    for (void (*prepare)() : {refuse_namespaces<EPERM>, refuse_namespaces<ENOSPC>}) {
        const outcome found = run("vdctl zones why -f other.json token-A lan7", prepare);
        EXPECT_EQ(found.errors, refused + "no right to a mount namespace; run as root\n");
        EXPECT_EQ(found.status, 2);
    }
    std::filesystem::rename("/etc/vandrel", "/etc/elsewhere");
    EXPECT_EQ(run("vdctl zones why -f other.json token-A lan7").errors,
              refused + "/etc/vandrel: No such file or directory\n");
}

// A file with one mistake in a line. The last lines close what is open, and have none.
TEST_F(vdctl_test, finds_each_mistake_in_a_zone_file)
{
    const struct {
        const char *line, *findings; // "level code", several with a blank between
    } cases[] = {
        {R"({"Zone_configuration": 1, "zone_configuration": {"zones": {)", "more unknown-key"},
        {R"("1": {"disabled": "no",)", "more flag"},
        {R"("deny_between_keys": 1,)", "more flag"},
        {R"("deny_betwen_keys": true, "comment": 1,)", "more unknown-key"},
        {R"("members": {)", ""},
        {R"("token-A": {"type": "serialization", "direction": "in"},)", ""},
        {R"("token-A": {"type": "serialization", "direction": "both"},)", "more key-twice"},
        {R"("token-abcdefghijklmnopqrst": {"type": "serialization", "direction": "both"},)", ""},
        {R"("token-abcdefghijklmnopqrstu": {"type": "serialization", "direction": "both"},)", "more name-cut"},
        {R"("abcdefghijklmn": {"type": "port", "direction": "both"},)", "more name-cut"},
        {R"("t1": {"type": "Port", "direction": "both"},)", "less type"},
        {R"("t2": {"direction": "both"},)", "less type"},
        {R"("t3": {"type": "port"},)", "less direction"},
        {R"("t4": {"type": "port", "direction": "Out"},)", "less direction"},
        {R"("t5": {"type": "port", "direction": "out", "disabled": "false"},)", "more flag"},
        {R"("t6": {"type": "port", "direction": "out", "Type": 1},)", "more unknown-key"},
        {R"("t7": {"type": "port", "direction": "out", "dir\u0065ction": "in"},)", "more key-twice"},
        {R"("t8": null,)", "less members"},
        {R"("t9": "port",)", "less members"},
        {R"("a0": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.1", "address_end": "10.0.0.9"},)",
         ""},
        {R"("a1": {"type": "whitelisted_ip", "direction": "out"},)", "less start"},
        {R"("a2": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.1", "address_end": "10.0.0.256"},)",
         "more address"},
        {R"("a3": {"type": "whitelisted_ip", "direction": "out", "address_start": "rubbish"},)", "less address"},
        {R"("a4": {"type": "whitelisted_ip", "direction": "out", "address_start": "010.0.0.1"},)", "more address"},
        {R"("a5": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.1"},)", "more address"},
        {R"("a6": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.1", "address_end": "10.0.0.010"},)",
         "less address"},
        {R"("a7": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.9", "address_end": "10.0.0.1"},)",
         "less range"},
        {R"("a8": {"type": "whitelisted_ip", "direction": "out", "address_start": "0.0.0.0", "netmask": "0"},)", ""},
        {R"("a9": {"type": "whitelisted_ip", "direction": "out", "address_start": "0.0.0.0", "netmask": "/24"},)",
         "more netmask"},
        {R"("b0": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": "/24"},)",
         "less netmask"},
        {R"("b1": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": "0.0.0.255"},)",
         "more netmask"},
        {R"("b2": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": "rubbish"},)",
         "less netmask"},
        {R"("b3": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": 24},)", ""},
        {R"("b4": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": "255.255.0377.0"},)",
         "more netmask"},
        {R"("b5": {"type": "whitelisted_ip", "direction": "out", "address_start": "10.0.0.0", "netmask": "24", "address_end": "x"},)",
         "note ignored"},
        {R"("c0": {"type": "whitelisted_mac", "direction": "out", "address_start": "00:11:22:33:44:AA"},)", ""},
        {R"("c1": {"type": "whitelisted_mac", "direction": "out", "address_start": "001122334455"},)", "less mac"},
        {R"("c2": {"type": "whitelisted_mac", "direction": "out", "address_start": "00:11:22:33:44:0g"},)", "more mac"},
        {R"("c3": {"type": "whitelisted_mac", "direction": "out", "address_start": "00:11:22:33:44:00", "address_end": "00:11:22:33:44:fg"},)",
         "less mac"},
        {R"("c4": {"type": "whitelisted_mac", "direction": "out", "address_start": "00:11:22:33:44:09", "address_end": "00:11:22:33:44:00"},)",
         "less range"},
        {R"("c5": {"type": "whitelisted_mac", "direction": "out", "address_start": "00:11:22:33:44:00", "netmask": "24"}}},)",
         "note ignored"},
        {R"("2": {},)", "less members"},
        {R"("3": null,)", "less members"},
        {R"("4": {"members": []},)", "less members"},
        {R"("05": {"members": {"x": {"type": "serialization", "direction": "out"}}},)", "note no-subject"},
        {R"("06": {"members": {"x": {"type": "serialization", "direction": "in"}}},)", "note no-target"},
        {R"("6": {"members": {"x": {"type": "serialization", "direction": "both"}}},)", "note same-id"},
        {R"("7x": {"members": {}},)", "less zone-key"},
        {R"("8": {"disabled": true, "members": {"x": 1}}}}})", ""},
    };
    std::string text, want, found;
    unsigned line = 0;
    for (const auto &[content, findings] : cases) {
        text += std::string{content} + '\n';
        ++line;
        if (*findings)
            want += std::to_string(line) + " " + findings + '\n';
    }
    write_file("/tmp/mistakes.json", text);
    const outcome checked = run("vdctl zones check mistakes.json");
    EXPECT_EQ(checked.status, 1) << checked.errors;
    std::istringstream lines{checked.output};
    for (std::string one; std::getline(lines, one);) { // mistakes.json:1: more: ... [flag]
        std::istringstream words{one.substr(one.find(':') + 1)};
        std::string number, level;
        words >> number >> level;
        const std::size_t code = one.rfind('[') + 1;
        found.append(number, 0, number.size() - 1).append(" ").append(level, 0, level.size() - 1).append(" ");
        found.append(one, code, one.size() - code - 1).append("\n");
    }
    EXPECT_EQ(found, want) << checked.output;
}

TEST_F(vdctl_test, page_runs_only_its_own_script)
{
    const std::string page = run("vdctl zones matrix --html").output;
    for (const std::string part : {"style", "script"}) {
        const std::string begin = "<" + part + ">";
        const std::size_t from = page.find(begin) + begin.size();
        write_file("/tmp/part", page.substr(from, page.find("</" + part + ">", from) - from));
        const std::string hash =
            run("sha256sum part | head -c 64 | sed 's/../\\\\x&/g' | xargs -0 printf | base64").output;
        EXPECT_NE(page.find(part + "-src 'sha256-" + hash.substr(0, hash.find('\n')) + "'"), std::string::npos) << hash;
    }
}

TEST_F(vdctl_test, page_shows_its_cells_in_a_browser)
{
    if (run("chromium --version").status != 0)
        GTEST_SKIP() << "needs chromium";
    std::string text = example_file();
    text.replace(text.find("\"lan1\""), 6, R"("</script><b>\u003ci")"); // 13 characters of it count
    write_file(zones_file, text);
    EXPECT_EQ(run("vdctl zones matrix --html >page.html").status, 0);
    const outcome shown = run("chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run "
                              "--disable-background-networking --disable-component-update --disable-sync "
                              "--user-data-dir=/tmp/browser --dump-dom file:///tmp/page.html");
    EXPECT_EQ(shown.status, 0) << shown.errors;
    EXPECT_NE(shown.output.find("<td>10.1.0.0/16</td><td class=\"open\">\u25cf open</td><td>1:10</td>"),
              std::string::npos)
        << shown.output;
    EXPECT_NE(shown.output.find("<td>&lt;/script&gt;&lt;b&gt;&lt;</td>"), std::string::npos) << shown.output;
}
