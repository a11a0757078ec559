// The bus commands of vdctl: real daemons on an empty device, what is printed and the exit status.
#include "child_process.hpp"
#include "device_test.hpp"
#include "ipc.h"
#include "program_run.hpp"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include <event2/event.h>
#include <json-c/json.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char socket_path[] = "/var/run/vandrel/ipc_daemon.sock";

event_base *daemon_base = nullptr;
int messages = 0;
std::size_t characters = 0;

/// Sends a message, and takes its data.
void reply(int fd, const char *type, json_object *data)
{
    json_object *message = json_object_new_object();
    json_object_object_add(message, "type", json_object_new_string(type));
    json_object_object_add(message, "data", data);
    ipc_write(fd, message);
    json_object_put(message);
}

/// The daemon of these tests. "raw" sends its data as a whole message, "silent" gets no answer, "late" some others
/// before.
void answer(int fd, const char *type, json_object *data)
{
    const std::string_view asked = type;
    if (asked == "error" || asked == "silent")
        return;
    if (asked == "big") {
        ++messages;
        characters += static_cast<std::size_t>(json_object_get_string_len(data));
    } else if (asked == "received") {
        const std::string sum = std::to_string(messages) + " of " + std::to_string(characters);
        reply(fd, "sum", json_object_new_string(sum.c_str()));
    } else if (asked == "raw") {
        ipc_write(fd, data);
    } else if (asked == "sleep") {
        sleep(1);
    } else if (asked == "end") {
        event_base_loopbreak(daemon_base);
    } else {
        if (asked == "late") {
            ipc_write(fd, nullptr); // no message: nobody is to take it for one
            reply(fd, "first", nullptr);
        }
        reply(fd, asked == "late" ? "second" : "reply", json_object_get(data));
    }
}

/// Serves as "daemon" until it is ended. It listens when this is made.
class daemon_process {
public:
    daemon_process()
    {
        EXPECT_EQ(pipe(ready_), 0);
        process_.emplace([this] { serve(); });
        char byte;
        EXPECT_EQ(read(ready_[0], &byte, 1), 1);
    }
    ~daemon_process()
    {
        close(ready_[0]);
        close(ready_[1]);
    }
    void end_with(int signal) { process_->end_with(signal); }
    void join() { process_->join(); }
    pid_t pid() const { return process_->pid(); }

private:
    void serve() const
    {
        daemon_base = event_base_new();
        EXPECT_NE(ipc_server_new("daemon", daemon_base, answer), -1);
        EXPECT_EQ(write(ready_[1], "", 1), 1);
        event_base_dispatch(daemon_base);
        event_base_free(daemon_base);
    }

    int ready_[2];
    std::optional<child_process> process_;
};

/// "vdctl bus serve double", in the background until it ends; these are the words behind.
class stand_in {
public:
    explicit stand_in(const std::string &words)
        : process_{[=] { EXPECT_EQ(std::system(("vdctl bus serve double " + words).c_str()), 0); }}
    {
        EXPECT_EQ(std::system("until vdctl bus list | grep -q '^double.serving'; do sleep 0.01; done"), 0);
    }

private:
    child_process process_;
};

class vdctl_bus_test : public device_test {
protected:
    vdctl_bus_test()
    {
        setenv("PATH", (host_path(BINARY_DIR) + "/tools/vdctl:" + std::getenv("PATH")).c_str(), 1);
        std::filesystem::current_path("/tmp");
    }
};

std::string number(long value)
{
    return std::to_string(value);
}

} // namespace

TEST_F(vdctl_bus_test, asks_a_daemon_and_prints_its_answer)
{
    daemon_process daemon;
    const struct {
        const char *words;
        int status;
        const char *output, *errors;
    } cases[] = {
        {"call daemon x '{\"a\": [1, 2.50]}'", 0, "reply {\"a\": [1, 2.50]}\n", ""},
        {"call daemon x", 0, "reply\n", ""},
        {"call daemon x null", 0, "reply\n", ""},
        {"call daemon x false", 0, "reply false\n", ""},
        {"call daemon x - <<END\n \"in\"\nEND\n", 0, "reply \"in\"\n", ""},
        {"call daemon late 5", 0, "first\n", ""},
        {"call daemon late 5 -r second", 0, "second 5\n", ""},
        {"call -q daemon x 5", 0, "", ""},
        {"call -q daemon x $(printf '[%.0s' $(seq 31))$(printf ']%.0s' $(seq 31))", 0, "", ""},
        {"call daemon raw '{\"type\": \"a/b\", \"data\": \"c/d\"}' -r a/b", 0, "a/b \"c/d\"\n", ""},
        {"call daemon raw '{\"type\": \"error\", \"data\": 7}'", 0, "error 7\n", ""},
        {"call daemon raw '{\"type\": \"error\"}'", 0, "error\n", ""},
        {"call -t 1 daemon silent", 4, "", "vdctl: time is up: no answer from \"daemon\"\n"},
        {"call -t 1 daemon x 5 -r y", 4, "", "vdctl: time is up: no \"y\" from \"daemon\"\n"},
        {"call nobody x", 2, "", "vdctl: no daemon \"nobody\"; there are: daemon\n"},
        {"call daemon end", 1, "", "vdctl: \"daemon\" ended the connection\n"},
    };
    for (const auto &[words, status, output, errors] : cases) {
        const outcome found = run(std::string{"vdctl bus "} + words);
        EXPECT_EQ(found.status, status) << words;
        EXPECT_EQ(found.output, output) << words;
        EXPECT_EQ(found.errors, errors) << words;
    }
    daemon.join();
}

TEST_F(vdctl_bus_test, sends_nothing_that_is_wrong)
{
    daemon_process daemon;
    const std::string long_name(81, 'n');
    const struct {
        std::string words;
        const char *errors;
    } cases[] = {
        {"send daemon", "needs NAME TYPE [DATA]"},
        {"send daemon big '{'", "DATA is no JSON: unexpected end of data"},
        {"send daemon big nul", "DATA is no JSON: unexpected end of data"},
        {"send daemon big ''", "DATA is no JSON: unexpected end of data"},
        {"send daemon big \"'x'\"", "DATA is no JSON: unexpected character"},
        {"send daemon big '5 5'", "DATA is no JSON: unexpected character"},
        {"send daemon big \"$(printf '\"\\377\"')\"", "DATA is no JSON: invalid utf-8 string"},
        {"send daemon big $(printf '[%.0s' $(seq 32))$(printf ']%.0s' $(seq 32))", "DATA is no JSON: nesting too deep"},
        {"send daemon big - <<END\n5 [\nEND\n", "DATA is no JSON: unexpected character"},
        {"printf '5\\0 6' | vdctl bus send daemon big -", "DATA is no JSON: there is a NUL in it"},
        {"head -c 1000000 /dev/zero | tr '\\0' 1 | sed 's/.*/\"&\"/' | vdctl bus send daemon big -",
         "the message is too long: 1000029 characters, and 999994 is the most"},
        {"send -t x daemon big 5", "\"x\" is no number that -t takes"},
        {"send -t -1 daemon big 5", "\"-1\" is no number that -t takes"},
        {"send -c 0 daemon big 5", "\"0\" is no number that -c takes"},
        {"send -r x daemon big 5", "\"bus send\" takes no --reply-type"},
        {"send ../ipc_daemon big 5", "is no daemon's name"},
        {"send " + long_name + " big 5", "is no daemon's name"},
    };
    for (const auto &[words, errors] : cases) {
        const outcome found = run((words.find("vdctl") == words.npos ? "vdctl bus " : "") + words);
        EXPECT_EQ(found.status, 2) << words;
        EXPECT_EQ(found.output, "") << words;
        EXPECT_NE(found.errors.find(errors), std::string::npos) << words << '\n' << found.errors;
    }
    EXPECT_EQ(run("vdctl bus call daemon received").output, "sum \"0 of 0\"\n");
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, escapes_what_a_daemon_sends)
{
    daemon_process daemon;
    const std::string question =
        R"(vdctl bus call daemon raw '{"type": "a\u001b[31m\u202e\\", "data": {"\u001bk": "\u009b1m\u0000\n"}}')";
    EXPECT_EQ(run(question).output, "a\\x1b[31m\\u202e\\\\ {\"\\u001bk\": \"\\u009b1m\\u0000\\n\"}\n");
    const std::string json = run(question + " -j").output;
    EXPECT_NE(json.find(R"("type": "a\u001b[31m\u202e\\", "data": {"\u001bk": "\u009b1m\u0000\n"}})"),
              std::string::npos)
        << json;
    EXPECT_EQ(json.find_first_of("\033\302\342"), std::string::npos);
    EXPECT_EQ(run("vdctl bus call \"$(printf '\\033c')\" x").errors,
              "vdctl: no daemon \"\\x1bc\"; there are: daemon\n");
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, lists_who_serves)
{
    EXPECT_EQ(run("vdctl bus list").status, 1);
    EXPECT_EQ(run("vdctl bus list").output, "");
    std::optional<daemon_process> daemon{std::in_place};
    EXPECT_EQ(run("chmod 0751 /var/run/vandrel/ipc_daemon.sock").status, 0);
    const std::string pid = number(daemon->pid()), row = "\tvdctl_bus_test\troot\troot\t0751\t";
    EXPECT_EQ(run("vdctl bus list").output, "daemon\tserving\t" + pid + row + "0\n");
    EXPECT_EQ(run("vdctl bus list").status, 0);
    EXPECT_EQ(run("vdctl --complete bus call ''").output, "daemon\n");
    child_process listener{[] { EXPECT_NE(std::system("exec vdctl bus listen daemon x >/dev/null 2>&1"), 0); }};
    EXPECT_EQ(run("for i in $(seq 500); do vdctl bus list | grep -q '1$' && exit; sleep 0.01; done").status, 0);
    EXPECT_EQ(run("vdctl -j bus list").output,
              "{\"daemons\": [{\"name\": \"daemon\", \"state\": \"serving\", \"pid\": " + pid +
                  ", \"command\": \"vdctl_bus_test\", \"user\": \"root\", \"group\": \"root\", \"mode\": \"0751\", "
                  "\"peers\": 1}]}\n");
    daemon_process second;
    EXPECT_EQ(run("vdctl bus list | cut -f 1-3").output, "daemon\ttwice\t-\n");
    daemon->end_with(SIGKILL);
    listener.join();
    second.end_with(SIGKILL);
    EXPECT_EQ(run("vdctl bus list | cut -f 1-4,8").output, "daemon\tno listener\t-\t-\t0\n");
    EXPECT_EQ(run("vdctl --complete bus call ''").output, "");
    EXPECT_NE(run("vdctl -j bus list").output.find("\"pid\": null, \"command\": null"), std::string::npos);
    EXPECT_EQ(run("vdctl bus call daemon x").errors, "vdctl: \"daemon\" does not run: nobody listens at its socket\n");
    EXPECT_EQ(run("vdctl bus call nobody x").errors, "vdctl: no daemon \"nobody\"; none serves\n");
}

TEST_F(vdctl_bus_test, says_who_may_connect)
{
    daemon_process daemon;
    const auto become_powerless = [] {
        constexpr int cap_dac_override = 1;
        prctl(PR_CAPBSET_DROP, cap_dac_override, 0, 0, 0);
    };
    const struct {
        const char *mode;
        int status;
        const char *errors;
    } cases[] = {
        {"0070", 2, "vdctl: no right to its socket: join the group root\n"},
        {"0000", 2, "vdctl: no right to its socket, only root has\n"},
        {"0700", 0, ""},
    };
    for (const auto &[mode, status, errors] : cases) {
        EXPECT_EQ(run(std::string{"chmod "} + mode + ' ' + socket_path).status, 0);
        const outcome found = run("vdctl bus call daemon x", become_powerless);
        EXPECT_EQ(found.status, status) << mode;
        EXPECT_EQ(found.errors, errors) << mode;
    }
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, sends_all_of_it_and_waits_until_it_is_read)
{
    daemon_process daemon;
    EXPECT_EQ(run("vdctl bus send daemon sleep").status, 0);
    EXPECT_EQ(run("head -c 990000 /dev/zero | tr '\\0' x | sed 's/.*/\"&\"/' >big; vdctl bus send daemon sleep; "
                  "vdctl bus send -t 60 -c 31 daemon big - <big")
                  .status,
              0);
    EXPECT_EQ(run("vdctl bus call daemon received").output, "sum \"31 of 30690000\"\n");

    kill(daemon.pid(), SIGSTOP);
    const outcome small = run("vdctl bus send -t 1 daemon x"), big = run("vdctl bus send -t 1 daemon big - <big");
    EXPECT_EQ(small.status, 4);
    EXPECT_EQ(small.errors, "vdctl: time is up: the message has left, but is not read\n");
    EXPECT_EQ(big.status, 4);
    EXPECT_EQ(big.errors, "vdctl: time is up: the message has not left, since earlier ones are not read\n");
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, does_not_wait_for_ever_to_be_accepted)
{
    daemon_process daemon;
    kill(daemon.pid(), SIGSTOP);
    sockaddr_un address{AF_UNIX, {}};
    std::strcpy(address.sun_path, socket_path);
    const auto connects = [&] { // and stays so until the end of the test
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    };
    while (connects()) {}
    for (const char *command : {"call", "send", "listen"}) {
        const outcome found = run(std::string{"vdctl bus "} + command + " -t 1 daemon x");
        EXPECT_EQ(found.status, 4) << command;
        EXPECT_EQ(found.errors, "vdctl: time is up: \"daemon\" accepts nobody\n") << command;
    }
    daemon.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, follows_a_daemon)
{
    daemon_process daemon;
    const std::string without_time = " | sed -E 's/^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} //'";
    const struct {
        const char *words;
        int status;
        const char *output;
    } cases[] = {
        {"-c 2 daemon late 5", 0, "first\nsecond 5\n"},
        {"-c 1 daemon late 5", 0, "first\n"},
        {"-t 1 daemon late 5", 0, "first\nsecond 5\n"},
        {"-t 1 -c 3 daemon late 5", 4, "first\nsecond 5\n"},
        {"-t 1 daemon", 0, ""},
        {"daemon end", 1, ""},
    };
    for (const auto &[words, status, output] : cases) {
        const outcome found = run(std::string{"{ vdctl bus listen "} + words + "; echo $? >status; }" + without_time);
        EXPECT_EQ(read_file("/tmp/status"), number(status) + "\n") << words << found.errors;
        EXPECT_EQ(found.output, output) << words;
    }
    daemon.join();
    daemon_process next;
    for (const char *signal : {"INT", "TERM", "HUP"}) {
        EXPECT_EQ(
            run(std::string{"rm -f out; vdctl bus listen daemon x >out & until grep -q reply out; do :; done; kill -"} +
                signal + " $!; wait $!")
                .status,
            0)
            << signal;
    }
    next.end_with(SIGKILL);
}

TEST_F(vdctl_bus_test, stands_in_for_a_daemon)
{
    write_file("/tmp/replies", R"({
        "echo": {"type": "$type", "data": ["$data", {"in": "$data", "not": "$data "}]},
        "two": [{"type": "first"}, {"type": "second", "data": 2}],
        "a/b": {"type": "$type"},
        "once": {"type": "$type", "data": "$data"},
        "twice": {"type": "$type", "data": ["$data", "$data"]}})");
    const std::string large = "head -c 600000 /dev/zero | tr '\\0' x | sed 's/.*/\"&\"/' | vdctl bus call double ";
    {
        const stand_in serving{"-c 8 - <replies >arrived 2>serve_errors; [ $? = 0 ]"};
        const struct {
            const char *words;
            int status;
            const char *output;
        } cases[] = {
            {R"(echo '"$type"')", 0, "echo [\"$type\", {\"in\": \"$type\", \"not\": \"$data \"}]\n"},
            {"echo", 0, "echo [null, {\"in\": null, \"not\": \"$data \"}]\n"},
            {"two -r second", 0, "second 2\n"},
            {"a/b", 0, "a/b\n"},
            {"silent -t 1", 4, ""},
            {"\"$(printf 'a\\033')\" -t 1", 4, ""},
        };
        for (const auto &[words, status, output] : cases) {
            const outcome found = run(std::string{"vdctl bus call double "} + words);
            EXPECT_EQ(found.status, status) << words << found.errors;
            EXPECT_EQ(found.output, output) << words;
        }
        EXPECT_EQ(run(large + "twice -t 1 -").status, 4); // the answer would be too long
        EXPECT_EQ(run(large + "once - | wc -c").output, "600008\n");
    }
    EXPECT_EQ(run("cut -d ' ' -f 2- arrived | head -n 6").output, "echo \"$type\"\necho\ntwo\na/b\nsilent\na\\x1b\n");
    EXPECT_NE(read_file("/tmp/serve_errors").find("vdctl: an answer to \"twice\" could not be sent\n"),
              std::string::npos);
    EXPECT_EQ(run("ls /var/run/vandrel").output, "");
}

TEST_F(vdctl_bus_test, stops_standing_in)
{
    const struct {
        const char *words;
        int status;
    } cases[] = {
        {"-t 1 double >arrived", 0},
        {"-t 1 -c 1 double >arrived", 4},
        {"double >arrived & until vdctl bus list | grep -q serving; do :; done; kill -TERM $!; wait $!", 0},
        {"-c 1 -j double >arrived & until vdctl bus list | grep -q serving; do :; done; "
         "vdctl bus send double x & sent=$!; wait; grep -q '\"pid\": '$sent', \"type\": \"x\", \"data\": null}' "
         "arrived",
         0},
    };
    for (const auto &[words, status] : cases) {
        EXPECT_EQ(run(std::string{"vdctl bus serve "} + words).status, status) << words;
        EXPECT_EQ(run("vdctl bus list").output, "") << words;
    }
}

TEST_F(vdctl_bus_test, stands_in_for_nobody_who_is_there)
{
    daemon_process daemon;
    std::filesystem::create_directory("/var/run/vandrel/ipc_folder.sock");
    const struct {
        const char *words;
        std::string errors;
    } cases[] = {
        {"daemon", "vdctl: \"daemon\" is served already, by process " + number(daemon.pid()) + '\n'},
        {"folder", "vdctl: cannot serve as \"folder\": Address already in use\n"},
        {"x '[]'", "vdctl: REPLIES is no object\n"},
        {"x '{\"a\": 5}'", "vdctl: REPLIES: what answers \"a\" is no message, it has no \"type\"\n"},
        {"x '{\"a\": [{\"type\": \"b\"}, {\"type\": 5}]}'",
         "vdctl: REPLIES: what answers \"a\" is no message, it has no \"type\"\n"},
    };
    for (const auto &[words, errors] : cases) {
        const outcome found = run(std::string{"vdctl bus serve -t 1 "} + words);
        EXPECT_EQ(found.status, 2) << words;
        EXPECT_EQ(found.output, "") << words;
        EXPECT_EQ(found.errors.substr(0, errors.size()), errors) << words;
    }
    EXPECT_EQ(run("vdctl bus call daemon x").status, 0);
    daemon.end_with(SIGKILL);
    std::filesystem::remove_all("/var/run/vandrel");
    EXPECT_EQ(run("vdctl bus serve -t 1 x").errors,
              "vdctl: cannot serve in /var/run/vandrel: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists("/var/run/vandrel"));
}
