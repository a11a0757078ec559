// The bus commands of vdctl: real daemons on an empty device, what is printed and the exit status.
#include "child_process.hpp"
#include "ipc.h"
#include "vdctl_device.hpp"

#include <csignal>
#include <cstring>

#include <event2/event.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char socket_path[] = "/var/run/vandrel/ipc_daemon.sock";

/// The daemon of these tests. It sends each message of the list that "raw" has, and sums up the lengths of "big".
void answer(int fd, const char *type, json_object *data)
{
    static int sum = 0;
    const std::string_view asked = type;
    if (asked == "big")
        sum += json_object_get_string_len(data);
    if (asked == "sum") {
        json_object *message = json_tokener_parse((R"({"type": "sum", "data": )" + std::to_string(sum) + "}").c_str());
        ipc_write(fd, message);
        json_object_put(message);
    }
    for (std::size_t i = 0; asked == "raw" && i < json_object_array_length(data); ++i)
        ipc_write(fd, json_object_array_get_idx(data, i));
    if (asked == "sleep")
        sleep(1);
    if (asked == "end")
        ipc_close(fd);
}

void serve()
{
    event_base *base = event_base_new();
    EXPECT_NE(ipc_server_new("daemon", base, answer), -1);
    event_base_dispatch(base);
}

/// Serves as "daemon" while it lives.
class daemon_process : public child_process {
public:
    daemon_process() : child_process{serve}
    {
        EXPECT_EQ(run("until vdctl bus list | grep -q '^daemon.serving'; do :; done").status, 0);
    }
    ~daemon_process() { end_with(SIGKILL); }
};

class vdctl_bus_test : public vdctl_device {};

} // namespace

TEST_F(vdctl_bus_test, asks_a_daemon_and_prints_its_answer)
{
    const daemon_process daemon;
    expect_outcomes(
        "vdctl bus call ",
        {
            {R"(daemon raw '[{"type": "reply", "data": {"a": [1, 2.50, "a/b"]}}]')", 0,
             "reply {\"a\": [1, 2.50, \"a/b\"]}\n"},
            {R"(daemon raw '[{"type": "a/b"}]' -r a/b)", 0, "a/b\n"},
            {R"(daemon raw '[null, {"type": "first"}, {"type": "second", "data": false}]')", 0, "first\n"},
            {R"(daemon raw '[{"type": "first"}, {"type": "second", "data": false}]' -r second)", 0, "second false\n"},
            {"daemon raw - -q <<END\n [{\"type\": \"x\"}]\nEND\n", 0},
            {"daemon raw '[{\"type\": \"error\"}]'", 0, "error\n"},
            {R"(daemon raw '[{"type": "a\u001b[31m\u202e\\", "data": {"\u001bk": "\u009b1m\u0000\n"}}]')", 0,
             R"(a\x1b[31m\u202e\\ {"\u001bk": "\u009b1m\u0000\n"}
)"},
            {R"(-j daemon raw '[{"type": "a\u001b\u202e\\", "data": "\u009b"}]' | cut -c 38-)", 0,
             R"("type": "a\u001b\u202e\\", "data": "\u009b"}
)"},
            {"-t 1 daemon x", 4, "", "vdctl: time is up: no answer from \"daemon\"\n"},
            {"-t 1 daemon sum 5 -r y", 4, "", "vdctl: time is up: no \"y\" from \"daemon\"\n"},
            {"nobody\033 x", 2, "", "vdctl: no daemon \"nobody\\x1b\"; there are: daemon\n"},
            {"daemon end", 1, "", "vdctl: \"daemon\" ended the connection\n"},
        });
}

TEST_F(vdctl_bus_test, sends_nothing_that_is_wrong)
{
    const daemon_process daemon;
    const std::string usage =
        "\nusage: vdctl [-j] [-q] bus send [--timeout SECONDS] [--count COUNT] NAME TYPE [DATA]\n";
    const std::string no_json = "vdctl: DATA is no JSON: ", long_name(81, 'n');
    const std::string no_name = " is no daemon's name: up to 80 characters, without /";
    const std::string deep = "$(printf '[%.0s' $(seq 31))$(printf ']%.0s' $(seq 31))";
    EXPECT_EQ(run(R"(printf '5\0 6' >nul; head -c 999966 /dev/zero | tr '\0' x | sed 's/.*/"&"/' >long)").status, 0);
    expect_outcomes("vdctl bus send ",
                    {
                        {"daemon", 2, "", "vdctl: \"bus send\" needs NAME TYPE [DATA]" + usage},
                        {"daemon big " + deep, 0},
                        {"daemon big nul", 2, "", no_json + "unexpected end of data" + usage},
                        {"daemon big \"'x'\"", 2, "", no_json + "unexpected character" + usage},
                        {"daemon big \"$(printf '\"\\377\"')\"", 2, "", no_json + "invalid utf-8 string" + usage},
                        {"daemon big [" + deep + "]", 2, "", no_json + "nesting too deep" + usage},
                        {"daemon big - <<END\n5 [\nEND\n", 2, "", no_json + "unexpected character" + usage},
                        {"daemon big - <nul", 2, "", no_json + "there is a NUL in it" + usage},
                        {"daemon xx - <long", 0},
                        {"daemon big - <long", 2, "",
                         "vdctl: the message is too long: 999995 characters, and 999994 is the most\n"},
                        {"-t -1 daemon big 5", 2, "", "vdctl: \"-1\" is no number that -t takes" + usage},
                        {"-c 0 daemon big 5", 2, "", "vdctl: \"0\" is no number that -c takes" + usage},
                        {"../ipc_daemon big 5", 2, "", "vdctl: \"../ipc_daemon\"" + no_name + usage},
                        {long_name + " big 5", 2, "", "vdctl: \"" + long_name + "\"" + no_name + usage},
                    });
    EXPECT_EQ(run("vdctl bus call daemon sum").output, "sum 0\n");
}

TEST_F(vdctl_bus_test, lists_who_serves)
{
    if (is_started_by_another())
        GTEST_SKIP() << "processes have the name of what starts them";
    expect_outcomes("vdctl bus list", {{"", 1}});
    {
        const daemon_process daemon;
        const std::string pid = std::to_string(daemon.pid());
        const std::string followed = "vdctl bus listen daemon x & until vdctl bus list | grep -q '1$'; do :; done; ";
        expect_outcomes(
            std::string{"chmod 0751 "} + socket_path + "; ",
            {
                {"vdctl bus list", 0, "daemon\tserving\t" + pid + "\tvdctl_bus_test\troot\troot\t0751\t0\n"},
                {followed + "vdctl -j bus list; kill $!", 0,
                 "{\"daemons\": [{\"name\": \"daemon\", \"state\": \"serving\", \"pid\": " + pid +
                     ", \"command\": \"vdctl_bus_test\", \"user\": \"root\", \"group\": \"root\", \"mode\": \"0751\", "
                     "\"peers\": 1}]}\n"},
                {"vdctl --complete bus call ''", 0, "daemon\n"},
                {"vdctl --complete zones check ''", 0},
            });
        child_process second{serve};
        EXPECT_EQ(run("until vdctl bus list | grep -q 'daemon.twice.-'; do :; done").status, 0);
        second.end_with(SIGKILL);
    }
    expect_outcomes("vdctl ",
                    {
                        {"bus list | cut -f 1-4,8", 0, "daemon\tno listener\t-\t-\t0\n"},
                        {"-j bus list | cut -d , -f 3,4", 0, " \"pid\": null, \"command\": null\n"},
                        {"--complete bus call ''", 0},
                        {"bus call nobody x", 2, "", "vdctl: no daemon \"nobody\"; none serves\n"},
                        {"bus call daemon x", 2, "", "vdctl: \"daemon\" does not run: nobody listens at its socket\n"},
                    });
}

TEST_F(vdctl_bus_test, says_who_may_connect)
{
    const daemon_process daemon;
    const std::string call =
        std::string{" "} + socket_path + "; setpriv --bounding-set=-dac_override vdctl bus call daemon sum null";
    expect_outcomes("chmod ", {
                                  {"0070" + call, 2, "", "vdctl: no right to its socket: join the group root\n"},
                                  {"0000" + call, 2, "", "vdctl: no right to its socket, only root has\n"},
                                  {"0700" + call, 0, "sum 0\n"},
                              });
}

TEST_F(vdctl_bus_test, sends_all_of_it_and_waits_until_it_is_read)
{
    const daemon_process daemon;
    const std::string big = "head -c 990000 /dev/zero | tr '\\0' x | sed 's/.*/\"&\"/' | vdctl bus send daemon big - ";
    expect_outcomes("", {
                            {"vdctl bus send daemon sleep", 0},
                            {big + "-c 31 -t 60", 0},
                            {"vdctl bus call daemon sum", 0, "sum 30690000\n"},
                        });
    kill(daemon.pid(), SIGSTOP);
    expect_outcomes(
        "", {
                {"vdctl bus send -t 1 daemon x", 4, "", "vdctl: time is up: the message has left, but is not read\n"},
                {big + "-t 1", 4, "", "vdctl: time is up: the message has not left, since earlier ones are not read\n"},
            });
}

TEST_F(vdctl_bus_test, does_not_wait_for_ever_to_be_accepted)
{
    const daemon_process daemon;
    kill(daemon.pid(), SIGSTOP);
    sockaddr_un address{AF_UNIX, {}};
    std::strcpy(address.sun_path, socket_path);
    const auto connects = [&] { // and stays so until the end of the test
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    };
    while (connects()) {}
    expect_outcomes("vdctl ", {{"bus call -t 1 daemon x", 4, "", "vdctl: time is up: \"daemon\" accepts nobody\n"}});
}

TEST_F(vdctl_bus_test, follows_a_daemon)
{
    const daemon_process daemon;
    const std::string two = " daemon raw '[{\"type\": \"first\"}, {\"type\": \"second\", \"data\": 5}]'";
    const std::string without_time = "; echo $?; } | sed -E 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} //'";
    expect_outcomes("{ vdctl bus listen ",
                    {
                        {"-c 1" + two + without_time, 0, "first\n0\n"},
                        {"-t 1" + two + without_time, 0, "first\nsecond 5\n0\n"},
                        {"-t 1 -c 3" + two + without_time, 0, "first\nsecond 5\n4\n"},
                        {"-t 1 daemon" + without_time, 0, "0\n"},
                        {"daemon end" + without_time, 0, "1\n", "vdctl: \"daemon\" ended the connection\n"},
                    });
    const std::string until_it_prints = " >out & until grep -q second out; do :; done; kill -";
    for (const std::string signal : {"INT", "TERM", "HUP"})
        EXPECT_EQ(run(": >out; vdctl bus listen" + two + until_it_prints + signal + " $!; wait $!").status, 0)
            << signal;
}

TEST_F(vdctl_bus_test, stands_in_for_a_daemon)
{
    write_file("/tmp/replies", R"({
        "echo": {"type": "$type", "data": ["$data", {"in": "$data", "not": "$data "}]},
        "two": [{"type": "first"}, {"type": "second", "data": 2}],
        "a/b": {"type": "$type"},
        "once": {"type": "$type", "data": "$data"},
        "twice": {"type": "$type", "data": ["$data", "$data"]}})");
    child_process stand_in{
        [] { EXPECT_EQ(std::system("vdctl bus serve -c 7 double - <replies >arrived 2>serve_errors"), 0); }};
    EXPECT_EQ(run("until vdctl bus list | grep -q serving; do :; done").status, 0);
    expect_outcomes(
        "vdctl bus call double ",
        {
            {R"(echo '"$type"')", 0, "echo [\"$type\", {\"in\": \"$type\", \"not\": \"$data \"}]\n"},
            {"two -r second", 0, "second 2\n"},
            {"a/b", 0, "a/b\n"},
            {"\"$(printf 'a\\033')\" -t 1 -q", 4, "", "vdctl: time is up: no answer from \"double\"\n"},
            {"echo; head -c 600000 /dev/zero | tr '\\0' x | sed 's/.*/\"&\"/' >large", 0,
             "echo [null, {\"in\": null, \"not\": \"$data \"}]\n"},
            {"twice -t 1 - <large", 4, "", "vdctl: time is up: no answer from \"double\"\n"}, // it would be too long
            {"once - <large | wc -c", 0, "600008\n"},
        });
    stand_in.join();
    expect_outcomes(
        "cut -d ' ' -f 2- arrived | head -n 5; cat serve_errors",
        {{"", 0, "echo \"$type\"\ntwo\na/b\na\\x1b\necho\nvdctl: an answer to \"twice\" could not be sent\n"}});
}

TEST_F(vdctl_bus_test, stops_standing_in)
{
    const std::string until_it_serves = " & served=$!; until vdctl bus list | grep -q serving; do :; done; ";
    const std::string left = "; echo $?; ls /var/run/vandrel";
    expect_outcomes(
        "vdctl bus serve double ",
        {
            {"-t 1" + left, 0, "0\n"},
            {"-t 1 -c 1" + left, 0, "4\n"},
            {until_it_serves + "kill -TERM $served; wait $served" + left, 0, "0\n"},
            {"-c 1 -j >arrived" + until_it_serves +
                 "vdctl bus send double x 2>/dev/null & sent=$!; wait $served; code=$?; " // which may see it end
                 "cut -d , -f 2- arrived | sed \"s/$sent/PID/\"; (exit $code)" +
                 left,
             0, " \"pid\": PID, \"type\": \"x\", \"data\": null}\n0\n"},
        });
}

TEST_F(vdctl_bus_test, stands_in_for_nobody_who_is_there)
{
    const daemon_process daemon;
    const std::string served = "vdctl: \"daemon\" is served already, by process " + std::to_string(daemon.pid()) + '\n';
    const std::string no_message = "vdctl: REPLIES: what answers \"a\" is no message, it has no \"type\"\n";
    const std::string usage = "usage: vdctl [-j] [-q] bus serve [--timeout SECONDS] [--count COUNT] NAME [REPLIES]\n";
    expect_outcomes("mkdir -p /var/run/vandrel/ipc_folder.sock; vdctl bus serve -t 1 ",
                    {
                        {"daemon", 2, "", served},
                        {"folder", 2, "", "vdctl: cannot serve as \"folder\": Address already in use\n"},
                        {"x '[]'", 2, "", "vdctl: REPLIES is no object\n" + usage},
                        {"x '{\"a\": 5}'", 2, "", no_message + usage},
                        {"x '{\"a\": [{\"type\": \"b\"}, {\"type\": 5}]}'", 2, "", no_message + usage},
                    });
    expect_outcomes("vdctl bus ", {{"call daemon sum", 0, "sum 0\n"}});
    expect_outcomes("rm -r /var/run/vandrel; vdctl bus ",
                    {{"serve -t 1 x", 2, "", "vdctl: cannot serve in /var/run/vandrel: No such file or directory\n"}});
    EXPECT_FALSE(std::filesystem::exists("/var/run/vandrel"));
}
