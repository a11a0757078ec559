#include "ip_calculation.h"
#include "ipc.h"
#include "uciconfig.h"
#include "zones.h"

#include "device_test.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <random>

#include <endian.h>
#include <event2/event.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using namespace std::string_literals;
using strings = std::vector<std::string>;

constexpr std::size_t longest_body = 999'995;
const record event = info("Event", "ipc.c");
const record end = warning("end of file or error ", "ipc.c");

int heard_from;                               // the connection that the last message came on
strings heard;                                // "handler type data" of each message; NULL data is -
std::function<void(int, std::string)> answer; // what handlers do

void note(const char *handler, int fd, const char *type, json_object *data)
{
    heard_from = fd;
    const std::string text = data ? json_object_to_json_string_ext(data, JSON_C_TO_STRING_PLAIN) : "-";
    heard.push_back(handler + " "s + type + " " + text);
    if (answer)
        answer(fd, type);
}
const ipc_callback by_default = [](int fd, const char *type, json_object *data) { note("default", fd, type, data); };
const ipc_callback by_name = [](int fd, const char *type, json_object *data) { note("named", fd, type, data); };

std::string frame(const std::string &body)
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(body.size()));
    return std::string(reinterpret_cast<const char *>(&header), 4) + body;
}
std::string message(const std::string &type, const std::string &data)
{
    return frame(R"({"type":")" + type + R"(","data":)" + data + "}\0"s);
}
std::string text_of(std::size_t size)
{
    return '"' + std::string(size - 2, 'x') + '"';
}
template <typename Send> int with_json(const std::string &text, Send send)
{
    json_object *object = json_tokener_parse(text.c_str());
    const int result = send(object);
    json_object_put(object);
    return result;
}
int write_to(int fd, const std::string &text)
{
    return with_json(text, [fd](json_object *object) { return errno = EBADF, ipc_write(fd, object); });
}
bool is_closed(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0 || errno != EAGAIN;
}
int connect_to_server(int flags) // without O_NONBLOCK, waits for room in its queue
{
    const sockaddr_un address{AF_UNIX, "/var/run/vandrel/ipc_test.sock"};
    const int fd = socket(AF_UNIX, SOCK_STREAM | flags, 0);
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
}

/// While it lives, the process may have descriptors below this one only.
class descriptor_limit {
public:
    explicit descriptor_limit(rlim_t limit)
    {
        getrlimit(RLIMIT_NOFILE, &usual_);
        const rlimit lower{limit, usual_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lower);
    }
    ~descriptor_limit() { setrlimit(RLIMIT_NOFILE, &usual_); }
    descriptor_limit(const descriptor_limit &) = delete;
    descriptor_limit &operator=(const descriptor_limit &) = delete;

private:
    rlimit usual_{};
};

/// Another process. It keeps its descriptors until this object ends.
class process {
public:
    explicit process(char (*body)())
    {
        EXPECT_EQ(pipe2(result_, O_NONBLOCK), 0);
        pid_ = fork();
        if (pid_ != 0)
            return;
        const char result = body();
        if (write(result_[1], &result, 1) == 1)
            pause();
        _exit(1);
    }
    ~process()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        close(result_[0]);
        close(result_[1]);
    }
    process(const process &) = delete;
    process &operator=(const process &) = delete;

    char result() const // of its body; a blank until it is there
    {
        char result;
        return read(result_[0], &result, 1) == 1 ? result : ' ';
    }

private:
    pid_t pid_ = -1;
    int result_[2];
};

struct ipc_test : device_test {
    event_base *base = event_base_new();
    std::vector<int> raw; // descriptors of peers, which are no part of the library

    ipc_test()
    {
        ipc_write(-1, nullptr); // the first record opens the log's own descriptor
        log();
    }
    ~ipc_test() override
    {
        std::for_each(raw.begin(), raw.end(), close);
        for (int fd = 3; fd < 2000; ++fd)
            ipc_close(fd);
        event_base_free(base);
    }
    bool run_until(const std::function<bool()> &done)
    {
        const auto start = std::chrono::steady_clock::now();
        bool is_done = done();
        for (; !is_done && std::chrono::steady_clock::now() - start < std::chrono::seconds{15}; is_done = done())
            event_base_loop(base, EVLOOP_NONBLOCK);
        return is_done;
    }
    void run(int turns = 5)
    {
        run_until([&] { return turns-- <= 0; });
    }
    void run_for(std::chrono::milliseconds time) // at rest where there is nothing to do
    {
        const timeval left{static_cast<time_t>(time.count() / 1000),
                           static_cast<suseconds_t>(time.count() % 1000 * 1000)};
        event_base_loopexit(base, &left);
        event_base_dispatch(base);
    }
    int server(const char *name = "test") { return ipc_server_new(name, base, by_default); }
    void send(int fd, std::string_view bytes) // lets the loop run where the socket doesn't take all at once
    {
        run_until([&] {
            const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
            return bytes.empty();
        });
    }
    std::string receive(int fd, std::size_t size)
    {
        std::string bytes, part(1 << 16, '\0');
        run_until([&] {
            for (ssize_t n; (n = recv(fd, part.data(), part.size(), 0)) > 0;)
                bytes.append(part, 0, static_cast<std::size_t>(n));
            return bytes.size() >= size;
        });
        return bytes;
    }
    int connected() // a plain socket, which the server has not accepted yet
    {
        raw.push_back(connect_to_server(SOCK_NONBLOCK));
        EXPECT_GE(raw.back(), 0);
        return raw.back();
    }
    std::pair<int, int> peer() // a plain socket, and the library's descriptor for the other end
    {
        const int fd = connected();
        heard.clear();
        send(fd, message("hello", "1"));
        EXPECT_TRUE(run_until([] { return heard == strings{"default hello 1"}; }));
        heard.clear();
        return {fd, heard_from};
    }
};

TEST_F(ipc_test, messages_reach_their_handler)
{
    server();
    const int fd = peer().first;
    ipc_register_callback("named", by_default);
    for (const char *type : {"named", "error", "a\\/b"})
        ipc_register_callback(type, by_name);
    ipc_register_callback("none", nullptr);
    ipc_register_callback(nullptr, by_name);
    ipc_deregister_callback(nullptr);
    const std::string text = text_of(longest_body - 24);
    const std::pair<std::string, std::string> cases[] = {
        {"{\"type\":\"x\",\"data\":{\"a\":1}}\0"s, "default x {\"a\":1}"},
        {"{'type':'named','other':[]}\0"s, "named named -"},
        {"{'data':null,'type':'none'}\0"s, "default none -"},
        {"{'type':'a/b','data':0}\0"s, "named a\\/b 0"},
        {"{'type':'error','data':1}\0"s, "named error 1"},
        {"{'type':'no NUL'}", "default no NUL -"},
        {"{'type':''} /* never closed", "default  -"},
        {"{'type':'t'}\0{'type':"s, "default t -"},
        {"{'type':'long','data':" + text + "}\0"s, "default long " + text},
        {"{'type':'cut','data':\0001}"s, ""}};
    for (const auto &[body, want] : cases) {
        heard.clear();
        send(fd, frame(body) + message("end", "0"));
        const auto ended = [] { return !heard.empty() && heard.back() == "default end 0"; };
        EXPECT_TRUE(run_until(ended));
        EXPECT_EQ(heard, want.empty() ? strings{"default end 0"} : (strings{want, "default end 0"}));
    }
    heard.clear();
    for (const auto &dropped : {""s, "{'type':'cut'"s, "null\0"s, "['type']\0"s, "{'data':1}\0"s, "{'type':5}\0"s})
        send(fd, frame(dropped));
    run();
    EXPECT_EQ(log(), records{});
    ipc_deregister_all_callbacks("named");
    send(fd, message("named", "1") + message("error", "2"));
    run();
    ipc_deregister_all_callbacks(nullptr);
    send(fd, message("error", "3"));
    run();
    EXPECT_EQ(heard, (strings{"default named 1", "named error 2", "default error 3"}));
}

TEST_F(ipc_test, no_body_changes_what_the_next_one_means)
{
    server();
    const int garbage = peer().first;
    const int other = peer().first;
    const char *bodies[] = {R"({"a":{}/*)",       R"([[]/*)",
                            R"("\ud83d\u)",       R"({"type":"\ud83d\)",
                            R"({"type":"\ud83d)", R"({"a":[1,{"b":")",
                            R"({"a":1e)",         R"({"a":{"b":1)",
                            R"({} /*)",           "-"};
    for (const char *body : bodies) {
        heard.clear();
        send(garbage, frame(body));
        run();
        send(other, message("vc-\\u0041lice", "[1,{\"b\":\"\\udc00\"}]"));
        run();
        EXPECT_EQ(heard, strings{"default vc-Alice [1,{\"b\":\"\xEF\xBF\xBD\"}]"}) << body;
    }
}

std::string repeated(const std::string &unit, std::size_t bytes)
{
    std::string list;
    while (list.size() + unit.size() < bytes)
        list += unit;
    list.pop_back(); // the comma
    return list;
}

TEST_F(ipc_test, a_body_of_too_much_memory_is_dropped)
{
    server();
    const int fd = peer().first;
    const int other = peer().first;
    const std::string costly = "[" + repeated("{},", 990'000) + "]";
    const record dropped = warning("Message of 990019 bytes takes too much memory", "ipc.c");
    const struct {
        int from;
        std::string body;
        records want;
    } cases[] = {
        {fd, message("t", costly), {dropped}},
        {fd, message("t", costly), {}}, // it has been said of this connection
        {other, message("t", costly), {dropped}},
        {other, frame("{'data':[" + repeated("{'':0},", 900'000)), {}},
    };
    for (const auto &[from, body, want] : cases) {
        heard.clear();
        log();
        send(from, body + message("next", "1"));
        EXPECT_TRUE(run_until([] { return !heard.empty(); }));
        EXPECT_EQ(heard, strings{"default next 1"});
        EXPECT_EQ(log(), want);
    }
}

TEST_F(ipc_test, long_bodies_of_usual_content_are_handled)
{
    server();
    const int fd = peer().first;
    std::string pairs;
    for (int i = 0; pairs.size() < 980'000; ++i)
        pairs += "\"k" + std::to_string(i) + "\":\"v\",";
    pairs.pop_back();
    const std::string bodies[] = {'"' + std::string(990'000, 'x') + '"',
                                  '[' + repeated("1,", 990'000) + ']',
                                  '[' + repeated("1.5,", 990'000) + ']',
                                  '[' + repeated("\"\",", 990'000) + ']',
                                  '{' + pairs + '}',
                                  '[' + repeated(R"({"a":1,"b":2,"c":3,"d":4,"e":5},)", 990'000) + ']'};
    for (const std::string &body : bodies) {
        heard.clear();
        send(fd, message("long", body));
        EXPECT_TRUE(run_until([] { return !heard.empty(); })) << body.substr(0, 20);
        EXPECT_EQ(heard.size(), 1U) << body.substr(0, 20);
        EXPECT_EQ(log(), records{}) << body.substr(0, 20);
    }
}

TEST_F(ipc_test, frames_survive_every_cut)
{
    server();
    const int fd = peer().first;
    const std::string stream = message("one", "[1]") + frame("") + message("two", "{}") + message("three", "3");
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        heard.clear();
        send(fd, stream.substr(0, cut));
        run();
        send(fd, stream.substr(cut));
        run();
        EXPECT_EQ(heard, (strings{"default one [1]", "default two {}", "default three 3"})) << cut;
    }
}

TEST_F(ipc_test, writes_whole_frames_or_nothing)
{
    const int listening = server();
    const auto [fd, handle] = peer();
    EXPECT_EQ(write_to(handle, R"({"type":"abcd"})"), 0);
    EXPECT_FALSE(is_closed(fd)) << "nor has anything arrived: it leaves as the loop runs";
    EXPECT_EQ(receive(fd, 23), "\0\0\0\x13{ \"type\": \"abcd\" }\0"s);
    EXPECT_EQ(write_to(handle, text_of(longest_body - 1)), 0);
    EXPECT_EQ(receive(fd, longest_body + 4), frame(text_of(longest_body - 1) + '\0'));
    const std::pair<int, record> refused[] = {
        {-1, warning("FD is -1", "ipc.c")},
        {listening, warning("ERROR, no bufferevent found for fd " + std::to_string(listening), "ipc.c", EBADF)},
        {54321, warning("ERROR, no bufferevent found for fd 54321", "ipc.c", EBADF)},
        {handle, warning("Message of 999996 bytes is too long", "ipc.c")}};
    for (const auto &[to, want] : refused) {
        EXPECT_EQ(write_to(to, text_of(longest_body)), -1);
        EXPECT_EQ(log(), records{want});
    }
    testing::internal::CaptureStderr();
    std::size_t queued = 0;
    int result = 0;
    while ((result = write_to(handle, text_of(longest_body - 1))) == 0)
        ++queued;
    const int reason = errno;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reason, ENOBUFS);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "write: No buffer space available\n");
    EXPECT_EQ(queued, 67U); // times 999999 is just below 64 MiB
    EXPECT_EQ(receive(fd, queued * (longest_body + 4)).size(), queued * (longest_body + 4));
}

TEST_F(ipc_test, a_socket_that_was_full_is_filled_in_one_go)
{
    server();
    const auto [fd, handle] = peer();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(write_to(handle, text_of(longest_body - 1)), 0);
    run(); // as much as the socket takes
    std::string part(1 << 20, '\0');
    const ssize_t held = recv(fd, part.data(), part.size(), 0);
    EXPECT_GT(held, 65'536) << "a socket that holds too little to tell";
    event_base_loop(base, EVLOOP_NONBLOCK | EVLOOP_ONCE);
    EXPECT_GT(recv(fd, part.data(), part.size(), 0), 65'536);
}

TEST_F(ipc_test, ends_are_noticed)
{
    server();
    ipc_register_callback("error", by_name); // never gets the notice
    const int other = peer().second;
    const struct {
        std::string sent;
        int shut; // which direction
        records want;
    } cases[] = {
        {"\0\0\0\x09{\"ty"s, SHUT_WR, {event, end}},
        {"\0\x0f\x42\x3c"s, -1, {warning("Message of 999996 bytes is too long", "ipc.c"), end}},
        {"\xff\xff\xff\xff+", -1, {warning("Message of 4294967295 bytes is too long", "ipc.c"), end}},
        {"\xff\xff\xff\xfc+", -1, {warning("Message of 4294967292 bytes is too long", "ipc.c"), end}}, // 0 in 32 bits
        {message("answer me", "0"), SHUT_RD, {event, warning("Bufferevent error", "ipc.c"), end}}};    // no SIGPIPE
    answer = [](int fd, const std::string &type) { type == "answer me" ? write_to(fd, "{}") : 0; };
    for (const auto &[sent, shut, want] : cases) {
        const auto [fd, handle] = peer();
        log();
        testing::internal::CaptureStderr();
        shutdown(fd, shut == SHUT_RD ? shut : -1);
        send(fd, sent);
        shutdown(fd, shut);
        run();
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  shut == SHUT_RD ? "Error from bufferevent: Broken pipe\n" : "");
        EXPECT_EQ(std::count(heard.begin(), heard.end(), "default error -"), 1);
        EXPECT_EQ(heard.back(), "default error -");
        EXPECT_EQ(heard_from, handle);
        EXPECT_EQ(log(), want);
        EXPECT_TRUE(is_closed(fd));
        EXPECT_EQ(write_to(handle, "{}"), -1);
        EXPECT_EQ(write_to(other, "{}"), 0);
    }
}

TEST_F(ipc_test, an_error_within_a_long_frame_is_noticed)
{
    server();
    const auto [fd, handle] = peer();
    log();
    EXPECT_EQ(write_to(handle, "{}"), 0);
    run();                                                  // what the peer has not read makes its end an error
    send(fd, ("\0\x0f\x42\x3b"s + std::string(4092, ' '))); // as much as libevent reads at once
    close(fd);
    raw.pop_back();
    testing::internal::CaptureStderr();
    EXPECT_TRUE(run_until([] { return heard == strings{"default error -"}; }));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Error from bufferevent: Connection reset by peer\n");
    EXPECT_EQ(log(), (records{event, warning("Bufferevent error", "ipc.c"), end}));
}

TEST_F(ipc_test, memory_is_taken_in_step_with_what_has_come)
{
    server();
    const int fd = peer().first;
    run();
    const std::size_t before = __sanitizer_get_current_allocated_bytes();
    send(fd, "\0\x0f\x42\x3b"s);
    run();
    EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + 20'000);
    send(fd, std::string(5000, ' '));
    run();
    EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + 200'000);
}

TEST_F(ipc_test, descriptors_closed_behind_its_back)
{
    const int listening = server();
    const auto [fd, handle] = peer();
    const int next = connected();
    close(handle);
    send(next, message("next", "1"));
    EXPECT_TRUE(run_until([] { return heard == strings{"default next 1"}; }));
    EXPECT_EQ(heard_from, handle);
    ipc_close(listening);
    close(handle);
    EXPECT_EQ(ipc_server_add_subscriber("news", handle), 0);
    int fresh = server();
    while (fresh >= 0 && fresh < handle)
        fresh = server(); // until the listener has that number
    EXPECT_EQ(fresh, handle);
    EXPECT_EQ(with_json("[]", [](json_object *news) { return ipc_server_write_to_subscribers("news", news); }), 1);
    run();
    peer();
}

TEST_F(ipc_test, handlers_may_change_the_bus)
{
    server();
    const auto [fd, handle] = peer();
    const auto [other_fd, other] = peer();
    int fresh = -1;
    ipc_register_callback("once", by_name);
    answer = [&, other = other](int from, const std::string &type) {
        ipc_deregister_callback(type.c_str());
        if (type == "once")
            ipc_close(other);
        if (type == "self" || type == "error")
            ipc_close(from);
        if (type == "error")
            fresh = ipc_client_new("test", base, by_default);
    };
    send(fd, message("once", "1") + message("once", "2") + message("self", "3") + message("lost", "4"));
    send(other_fd, message("waiting", "5"));
    run();
    std::erase(heard, "default waiting 5"); // where that connection was read first
    EXPECT_EQ(heard, (strings{"named once 1", "default once 2", "default self 3"}));
    EXPECT_TRUE(is_closed(fd));
    EXPECT_TRUE(is_closed(other_fd));

    const auto [ending_fd, ending] = peer();
    shutdown(ending_fd, SHUT_WR);
    EXPECT_TRUE(run_until([&] { return fresh >= 0; }));
    EXPECT_EQ(fresh, ending) << "closed and connected anew, which gives the same descriptor";
    EXPECT_EQ(write_to(fresh, R"({"type":"again"})"), 0);
    EXPECT_TRUE(run_until([] { return heard.back() == "default again -"; }));
}

struct stat status_of(const std::string &path)
{
    struct stat status {};
    stat(path.c_str(), &status);
    return status;
}
std::string socket_file(const std::string &name)
{
    return "/var/run/vandrel/ipc_" + name + ".sock";
}

TEST_F(ipc_test, a_server_makes_its_socket_file)
{
    write_file("/tmp/not_ours", "");
    EXPECT_EQ(symlink("/tmp/not_ours", socket_file("test").c_str()), 0);
    server();
    EXPECT_EQ(log(), records{}) << "without the group, nothing to say";
    const gid_t gid = several_ids() ? 77 : 0;
    write_file("/etc/group", "root:x:0:\nvdipc:x:" + std::to_string(gid) + ":\n");
    server();
    EXPECT_EQ(status_of(socket_file("test")).st_mode, S_IFSOCK | 0770U);
    EXPECT_EQ(status_of(socket_file("test")).st_gid, gid);
    EXPECT_EQ(status_of("/tmp/not_ours").st_mode, S_IFREG | 0644U);
    EXPECT_EQ(status_of("/tmp/not_ours").st_gid, getgid());
    EXPECT_EQ(log(), records{});
}

TEST_F(ipc_test, a_server_makes_its_folder)
{
    std::filesystem::remove_all("/var/run/vandrel/vpnstate");
    rename("/var/run/vandrel", "/var/run/away");
    umask(0);
    if (access("/var/run/vandrel", F_OK) == 0)
        GTEST_SKIP() << "the folder is a mount of its own here";
    server();
    EXPECT_EQ(status_of("/var/run/vandrel").st_mode, S_IFDIR | 0755U);
    peer();
}

TEST_F(ipc_test, a_server_keeps_the_owner_of_its_socket_file)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    write_file("/etc/group", "vdipc:x:77:\n");
    chmod("/var/run/vandrel", 0777);
    EXPECT_EQ(setegid(77), 0);
    EXPECT_EQ(seteuid(1), 0);
    prctl(PR_SET_DUMPABLE, 1); // its own files in /proc stay its own
    server();
    EXPECT_EQ(log(), records{});
    EXPECT_EQ(status_of(socket_file("test")).st_uid, 1U);
    EXPECT_EQ(status_of(socket_file("test")).st_gid, 77U);
    EXPECT_EQ(seteuid(0), 0);
    EXPECT_EQ(setegid(0), 0);
}

TEST_F(ipc_test, a_server_without_its_group_is_there_all_the_same)
{
    write_file("/etc/group", "vdipc:x:77:\n");
    chmod("/var/run/vandrel", 0777);
    if (several_ids()) {
        EXPECT_EQ(seteuid(1), 0);
    }
    EXPECT_GE(server(), 0);
    EXPECT_EQ(log(),
              records{error("Failed to set ipc socket group or permissions", "ipc.c", several_ids() ? EPERM : EINVAL)});
    if (several_ids()) {
        EXPECT_EQ(seteuid(0), 0);
    }
    peer();
}

TEST_F(ipc_test, one_server_follows_another)
{
    const int before = open_descriptors();
    const int first = server();
    const int second = server();
    const int handle = peer().second;
    const int third = server("other");
    EXPECT_EQ(status_of(socket_file("test")).st_mode, 0U) << "the file goes with the server";
    EXPECT_EQ(open_descriptors(), before + 3) << "one listener, two ends";
    EXPECT_EQ(fcntl(third, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(handle, F_GETFD), FD_CLOEXEC);
    for (const int closed : {first, second, -1}) {
        if (closed != third)
            ipc_close(closed);
    }
    EXPECT_NE(status_of(socket_file("other")).st_mode, 0U);
    ipc_close(third);
    EXPECT_EQ(status_of(socket_file("other")).st_mode, 0U);
    ipc_close(third);
    EXPECT_EQ(write_to(handle, "{}"), 0) << "accepted connections stay";
}

TEST_F(ipc_test, a_server_that_can_not_be)
{
    const auto refused = [](int err) { return records{warning("cannot bind", "ipc.c", err)}; };
    const int open = server();
    EXPECT_EQ(server("no/such/folder"), -1);
    EXPECT_EQ(log(), refused(ENOENT));
    EXPECT_EQ(ipc_server_new("x", nullptr, by_default), -1);
    EXPECT_EQ(log(), refused(EINVAL));
    EXPECT_EQ(ipc_server_new(nullptr, base, by_default), -1);
    EXPECT_EQ(log(), refused(EINVAL));
    {
        const descriptor_limit none{0};
        EXPECT_EQ(server("none"), -1);
        EXPECT_EQ(log(), refused(EMFILE));
    }
    peer(); // the one before stays
    ipc_close(open);
    EXPECT_EQ(status_of(socket_file("test")).st_mode, 0U);
}

TEST_F(ipc_test, without_descriptors_accepting_pauses)
{
    const int listening = server();
    const int open = peer().first;
    const int waiting[] = {connected(), connected()};
    for (const int fd : waiting)
        send(fd, message("waited", "1"));
    log(); // also before the sanitizer has no descriptor for its own checks
    {
        const descriptor_limit none{0};
        run();
        EXPECT_EQ(log(), records{warning("error: ", "ipc.c", EMFILE)}) << "the first is recorded at once";
        const auto begin = std::clock();
        run_for(std::chrono::seconds{1});
        EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 10);
        const auto said = log().size();
        EXPECT_GE(said, 5U);
        EXPECT_LE(said, 10U);
        send(open, message("served", "2"));
        EXPECT_TRUE(run_until([] { return heard == strings{"default served 2"}; }));
    }
    heard.clear();
    EXPECT_TRUE(run_until([] { return heard.size() == 2; }));
    EXPECT_EQ(heard, (strings{"default waited 1", "default waited 1"})) << "without connecting anew";

    connected();
    const descriptor_limit none{0};
    run();
    const int with_pause = event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED);
    ipc_close(listening);
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), with_pause - 1) << "the timer has gone too";
}

TEST_F(ipc_test, the_last_descriptors_are_not_for_accepted_connections)
{
    server();
    const struct {
        rlim_t limit;
        int first_reserved;
    } cases[] = {{40, 35}, {63, 56}, {64, 56}, {200, 192}};
    for (const auto &[limit, first_reserved] : cases) {
        const int served = connected();
        const int refused = connected();
        send(served, message("served", "1"));
        std::vector<int> others;
        do
            others.push_back(dup(0));
        while (others.back() < first_reserved - 2);
        heard.clear();
        log();
        const descriptor_limit few{limit};
        EXPECT_TRUE(run_until([] { return !heard.empty(); })) << limit;
        EXPECT_EQ(heard_from, first_reserved - 1) << limit;
        EXPECT_TRUE(run_until([refused] { return is_closed(refused); })) << limit;
        EXPECT_EQ(log(), records{warning("Connection failed", "ipc.c")}) << limit;
        const int later = connected();
        run();
        EXPECT_FALSE(is_closed(later)) << limit << ": accepting pauses";
        EXPECT_TRUE(run_until([later] { return is_closed(later); })) << limit;
        std::for_each(others.begin(), others.end(), close);
        std::for_each(raw.begin(), raw.end(), close);
        raw.clear();
        run_until([] { return heard.back() == "default error -"; });
        log();
    }
}

TEST_F(ipc_test, a_flood_of_connections_leaves_the_daemon_its_own)
{
    write_file("/etc/vandrel/zones.json",
               R"({"zone_configuration":{"zones":{"1":{"members":{"p":{"type":"serialization","direction":"in"},)"
               R"("a":{"type":"whitelisted_ip","direction":"out","address_start":"10.0.0.1"}}}}}})");
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", "#!/bin/sh\necho true");
    write_file("/etc/config/vandrel", "config settings 'settings'\n\toption name 'router'\n");
    const auto expect_own_answers = [] {
        std::uint8_t sched = 7;
        EXPECT_EQ(zones_update_schedule_access(), 1);
        EXPECT_EQ(zones_is_ip_allowed_sched("p", ip_parse("10.0.0.1"), &sched), 1);
        EXPECT_EQ(sched, 1);
        char *name = config_lookup("vandrel.settings.name");
        EXPECT_STREQ(name, "router");
        std::free(name);
    };
    server();
    const int open = peer().first;
    expect_own_answers();
    const descriptor_limit few{64};
    const int before = open_descriptors();
    const process flood{[] {
        for (int i = 0; i < 2000; ++i)
            connect_to_server(SOCK_NONBLOCK);
        return '+';
    }};
    EXPECT_TRUE(run_until([this] { return !log().empty(); })) << "some are refused";
    EXPECT_GT(open_descriptors(), before + 8);
    for (int turn = 0; turn < 5; ++turn) {
        run_for(std::chrono::milliseconds{100});
        expect_own_answers();
        heard.clear();
        send(open, message("served", "2"));
        EXPECT_TRUE(run_until([] { return heard == strings{"default served 2"}; }));
    }
}

TEST_F(ipc_test, five_hundred_clients_are_served)
{
    server();
    answer = [](int fd, const std::string &type) { type == "question" ? write_to(fd, "[1]") : 0; };
    const process clients{[] {
        std::vector<int> crowd(500);
        std::generate(crowd.begin(), crowd.end(), [] { return connect_to_server(0); });
        const std::string want = frame("[ 1 ]\0"s);
        for (const int fd : crowd) {
            if (::send(fd, message("question", "1").data(), message("question", "1").size(), 0) < 0)
                return 's';
        }
        for (const int fd : crowd) {
            std::string got(want.size(), '\0');
            if (recv(fd, got.data(), got.size(), MSG_WAITALL) != static_cast<ssize_t>(got.size()) || got != want)
                return 'r';
        }
        return '+';
    }};
    const descriptor_limit usual{1024};
    char result = ' ';
    EXPECT_TRUE(run_until([&] { return result = clients.result(), result != ' '; }));
    EXPECT_EQ(result, '+');
}

TEST_F(ipc_test, a_client_connects_or_leaves_nothing)
{
    const auto connecting = [](const std::string &name) {
        return info("Connect client to " + socket_file(name).substr(0, 106), "ipc.c");
    };
    const std::string longest(80, 'n'), longer(81, 'n'); // the client's path has a character less than the server's
    server(longest.c_str());
    const int before = open_descriptors();
    const int fd = ipc_client_new(longest.c_str(), base, by_default);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    EXPECT_EQ(log(), records{connecting(longest)});
    ipc_close(fd);
    EXPECT_EQ(open_descriptors(), before) << "closed at once, not only as the loop runs";

    server(longer.c_str());
    EXPECT_EQ(ipc_client_new(longer.c_str(), base, by_default), -1);
    EXPECT_EQ(log(), (records{connecting(longer), warning("connect", "ipc.c", ENOENT)}));
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(ipc_client_new(nullptr, base, by_default), -1);
    EXPECT_EQ(log(), records{warning("connect", "ipc.c", EINVAL)});
    EXPECT_EQ(ipc_client_new("x", nullptr, by_default), -1);
    EXPECT_EQ(log(), records{warning("connect", "ipc.c", EINVAL)});
}

TEST_F(ipc_test, signals_end_no_wait_for_a_server)
{
    server();
    do
        raw.push_back(connect_to_server(SOCK_NONBLOCK));
    while (raw.back() >= 0); // until its queue is full
    const process client{[] {
        const interruptions while_it_waits;
        return ipc_client_new("test", event_base_new(), by_default) >= 0 ? '+' : '-';
    }};
    char result = ' ';
    for (int looks = 50; looks > 0 && result == ' '; --looks) {
        usleep(5000);
        result = client.result();
    }
    EXPECT_EQ(result, ' ') << "it waits";
    EXPECT_TRUE(run_until([&] { return result != ' ' || (result = client.result()) != ' '; }));
    EXPECT_EQ(result, '+');
}

TEST_F(ipc_test, sigpipe_is_caught_where_nobody_else_handles_it)
{
    const sighandler_t own = [](int) {};
    server();
    for (const sighandler_t set : {own, SIG_IGN}) {
        std::signal(SIGPIPE, set);
        const process client{[] {
            event_base *const own_base = event_base_new();
            ipc_client_new("test", own_base, by_default);
            struct sigaction now {};
            sigaction(SIGPIPE, nullptr, &now);
            return now.sa_handler == SIG_IGN ? 'i' : '-';
        }};
        char result = ' ';
        EXPECT_TRUE(run_until([&] { return (result = client.result()) != ' '; }));
        EXPECT_EQ(result, set == SIG_IGN ? 'i' : '-');
    }
    EXPECT_TRUE(run_until([] { return std::count(heard.begin(), heard.end(), "default error -") == 2; }));
    std::signal(SIGPIPE, own);
    peer();
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_EQ(now.sa_handler, own);
}

TEST_F(ipc_test, sigpipe_does_not_end_the_daemon)
{
    std::signal(SIGPIPE, SIG_DFL);
    server();
    peer();
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    EXPECT_NE(now.sa_handler, SIG_DFL);
    EXPECT_NE(now.sa_handler, SIG_IGN) << "which the daemon's commands would inherit";
}

using descriptors = std::vector<int>;
descriptors subscribers(const char *type)
{
    int room[50];
    return descriptors(room, room + ipc_server_get_subscibers(room, type));
}

TEST_F(ipc_test, subscriptions)
{
    EXPECT_EQ(ipc_server_remove_subscriber(7), 0);
    EXPECT_EQ(ipc_server_remove_subscriber_typed("a", 7), 0);
    for (const auto &[type, fd] : {std::pair{"a", 7}, {"b", 7}, {"a", 8}, {"a", 7}})
        EXPECT_EQ(ipc_server_add_subscriber(type, fd), 0);
    EXPECT_EQ(ipc_server_add_subscriber("a", -1), -1);
    EXPECT_EQ(ipc_server_add_subscriber(nullptr, 7), -1);
    EXPECT_EQ(subscribers("a"), (descriptors{8, 7})) << "the renewed one is last";
    EXPECT_EQ(ipc_server_get_subscibers(nullptr, "a"), 0);
    int untouched = 3;
    EXPECT_EQ(ipc_server_get_subscibers(&untouched, nullptr), 0);
    EXPECT_EQ(ipc_server_get_subscibers(&untouched, "none"), 0);
    EXPECT_EQ(untouched, 3);
    EXPECT_EQ(ipc_server_remove_subscriber_typed(nullptr, -1), 0);
    EXPECT_EQ(ipc_server_remove_subscriber(7), 2);
    EXPECT_EQ(subscribers("a"), descriptors{8});
    EXPECT_EQ(ipc_server_remove_subscriber_typed("b", 8), 0);
    EXPECT_EQ(ipc_server_remove_subscriber_typed("a", 8), 1);
    EXPECT_EQ(ipc_server_remove_subscriber_typed("a", 8), 0);
    EXPECT_EQ(log(), records{});
}

TEST_F(ipc_test, fifty_subscriptions)
{
    for (int fd = 0; fd < 50; ++fd)
        EXPECT_EQ(ipc_server_add_subscriber(fd % 2 == 0 ? "even" : "odd", fd), 0);
    EXPECT_EQ(ipc_server_add_subscriber("even", 50), -1);
    EXPECT_EQ(ipc_server_add_subscriber("even", 0), -1) << "not even one that is held";
    EXPECT_EQ(subscribers("even").size(), 25U);
    EXPECT_EQ(subscribers("even").front(), 0);
    EXPECT_EQ(ipc_server_remove_subscriber(1), 1);
    EXPECT_EQ(ipc_server_add_subscriber("even", 50), 0);
    ipc_server_remove_all_subscribers(-1);
    EXPECT_EQ(subscribers("even"), descriptors{});
    EXPECT_EQ(ipc_server_add_subscriber("even", 50), 0);
}

TEST_F(ipc_test, messages_to_subscribers)
{
    server();
    const auto [fd, handle] = peer();
    const auto [other_fd, other] = peer();
    ipc_server_remove_all_subscribers(handle); // without a subscription it stays
    for (const int to : {handle, 54321, other, 54322})
        EXPECT_EQ(ipc_server_add_subscriber("news", to), 0);
    EXPECT_EQ(ipc_server_add_subscriber("more", handle), 0);
    const auto publish = [](json_object *object) {
        return errno = EBADF, ipc_server_write_to_subscribers("news", object);
    };
    const auto missing = [](int to) {
        return warning("ERROR, no bufferevent found for fd " + std::to_string(to), "ipc.c", EBADF);
    };
    for (const std::size_t size : {10U, 100'000U}) {
        EXPECT_EQ(with_json(text_of(size), publish), 2);
        EXPECT_EQ(log(), (records{missing(54321), missing(54322)}));
        for (const int to : {fd, other_fd})
            EXPECT_EQ(receive(to, size + 5), frame(text_of(size) + '\0'));
    }
    EXPECT_EQ(ipc_server_write_to_subscribers("none", nullptr), 0);
    EXPECT_EQ(ipc_server_write_to_subscribers(nullptr, nullptr), 0);
    ipc_server_remove_all_subscribers(handle);
    EXPECT_TRUE(is_closed(fd));
    EXPECT_FALSE(is_closed(other_fd));
    EXPECT_EQ(subscribers("news"), (descriptors{54321, other, 54322}));
    EXPECT_EQ(subscribers("more"), descriptors{});
    ipc_server_remove_all_subscribers(-1);
    EXPECT_EQ(write_to(other, "{}"), 0) << "no connection is touched";
}

TEST_F(ipc_test, a_crowd_gets_its_answers_past_a_peer_that_does_not_read)
{
    server();
    ipc_register_callback("question", [](int fd, const char *, json_object *data) {
        write_to(fd, "[" + std::to_string(json_object_get_int(data)) + "]");
    });
    const auto round = [this] {
        const auto [deaf_fd, deaf] = peer();
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(write_to(deaf, text_of(500'002)), 0);
        std::vector<int> crowd(500);
        std::generate(crowd.begin(), crowd.end(), [this] { return peer().first; });
        std::mt19937 random{5};
        strings want(crowd.size());
        for (std::size_t i = 0; i < 20 * crowd.size(); ++i) {
            const std::size_t one = i % crowd.size();
            std::string garbage(random() % 40, '\0');
            std::generate(garbage.begin(), garbage.end(), [&] { return static_cast<char>(random()); });
            send(crowd[one], frame(garbage) + message("question", std::to_string(i)));
            want[one] += frame("[ " + std::to_string(i) + " ]\0"s);
        }
        for (std::size_t i = 0; i < crowd.size(); ++i)
            EXPECT_EQ(receive(crowd[i], want[i].size()), want[i]);
        EXPECT_EQ(receive(deaf_fd, 100 * 500'007).size(), 100 * 500'007U);
        for (const int fd : std::exchange(raw, {})) {
            close(fd);
            run(3);
            log(); // which has room for some hundred records
        }
    };
    round(); // what grows with the highest descriptor has its size from here on
    const auto [memory, opened] = std::pair{__sanitizer_get_current_allocated_bytes(), open_descriptors()};
    round();
    EXPECT_EQ(open_descriptors(), opened);
    EXPECT_LE(__sanitizer_get_current_allocated_bytes(), memory + 16'000); // 32 bytes for each connection
}

TEST_F(ipc_test, a_frame_is_queued_whole_or_refused_without_memory)
{
    server();
    const struct {
        const char *library;
        std::size_t size;
        int refusals; // of its allocations, one at a time
    } cases[] = {{"libjson-c.so", 20'000, 2}, {"libevent_core", 20'000, 1}, {"libevent_core", 10, 1}};
    for (const auto &[library, size, refusals] : cases) {
        for (int n = 1; n <= refusals; ++n) {
            const auto [fd, handle] = peer();
            json_object *object = json_tokener_parse(text_of(size).c_str());
            testing::internal::CaptureStderr();
            int result = 0, reason = 0;
            {
                const allocation_refusal refuse{n, library};
                result = ipc_write(handle, object);
                reason = errno;
                EXPECT_TRUE(refuse.happened()) << library << n;
            }
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "write: Cannot allocate memory\n") << library << n;
            EXPECT_EQ(result, -1) << library << n;
            EXPECT_EQ(reason, ENOMEM) << library << n;
            json_object_put(object);
            EXPECT_EQ(write_to(handle, "[]"), 0);
            EXPECT_EQ(receive(fd, 8), frame("[ ]\0"s)) << library << n;
        }
    }
}

TEST_F(ipc_test, a_text_that_json_c_cuts_without_memory_is_made_again_or_refused)
{
    server();
    const std::string text = text_of(20'000);
    const struct {
        int refusal; // the third allocation is the room that the text needs
        int left_errno, result;
        const char *said;
    } cases[] = {{3, 0, 0, ""}, {9, ENOMEM, 0, ""}, {3, ENOMEM, -1, "write: Cannot allocate memory\n"}};
    for (const auto &[refusal, left_errno, result, said] : cases) {
        const auto [fd, handle] = peer();
        json_object *object = json_tokener_parse(text.c_str());
        testing::internal::CaptureStderr();
        int written = 1;
        {
            const misleading_errno leave{left_errno};
            const allocation_refusal refuse{refusal, "libjson-c.so"};
            written = ipc_write(handle, object);
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), said);
        EXPECT_EQ(written, result);
        json_object_put(object);
        EXPECT_EQ(write_to(handle, "[]"), 0);
        const std::string want = (result == 0 ? frame(text + '\0') : "") + frame("[ ]\0"s);
        EXPECT_EQ(receive(fd, want.size()), want);
    }
}

TEST_F(ipc_test, a_type_that_json_c_cuts_without_memory_is_made_again)
{
    server();
    const int fd = peer().first;
    const std::string type(40, 't');
    bool refused = false;
    for (int n = 30; !refused && n > 0; --n) { // down to the last allocation for a message, which is room for its type
        heard.clear();
        send(fd, frame(R"({"type":")" + type + "\"}\0"s));
        const allocation_refusal refuse{n, "libjson-c.so"};
        run();
        refused = refuse.happened();
        EXPECT_EQ(heard, strings{"default " + type + " -"}) << n;
    }
    EXPECT_TRUE(refused);
}

TEST_F(ipc_test, refused_memory_leaves_the_bus_working)
{
    static int arrived;
    const ipc_callback count = [](int, const char *type, json_object *) { arrived += *type == 'n'; };
    ipc_server_new("test", base, count);
    const std::string news = R"({"type":"news","data":")" + std::string(5000, 'x') + "\"}";
    bool refused = true;
    long unaccepted = 0;
    for (int n = 1; refused; ++n) {
        const int before = open_descriptors();
        arrived = 0;
        int fd = -1, subscribed = 0, news_subscribed = 0, unreached = 0;
        with_json(news, [&](json_object *object) {
            const allocation_refusal refuse{n};
            fd = ipc_client_new("test", base, count);
            ipc_register_callback("a name too long to be stored without an allocation", nullptr);
            subscribed = ipc_server_add_subscriber("a type too long to be stored without an allocation", fd);
            news_subscribed = ipc_server_add_subscriber("news", fd);
            run();
            unreached = ipc_server_write_to_subscribers("news", object);
            run();
            return refused = refuse.happened();
        });
        if (!refused) {
            EXPECT_GE(fd, 0);
            EXPECT_EQ(subscribed, 0);
            EXPECT_EQ(news_subscribed, 0);
            EXPECT_EQ(unreached, 0);
            EXPECT_EQ(arrived, 1);
        }
        ipc_server_remove_all_subscribers(-1);
        ipc_deregister_all_callbacks(nullptr);
        ipc_close(fd);
        run();
        EXPECT_EQ(open_descriptors(), before) << n;
        const records said = log();
        unaccepted += std::count(said.begin(), said.end(), warning("Connection failed", "ipc.c"));
    }
    EXPECT_GT(unaccepted, 0);
}

} // namespace
