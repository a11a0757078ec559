#include "ipc.h"
#include "zones.h"

#include "child_process.hpp"
#include "device_test.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>

#include <endian.h>
#include <event2/event.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

using namespace std::string_literals;
using strings = std::vector<std::string>;

constexpr std::size_t longest_body = 999'995;
const record event = info("Event", "ipc.c");
const record broken = warning("Bufferevent error", "ipc.c");
const record end = warning("end of file or error ", "ipc.c");

record too_long(const char *bytes)
{
    return warning("Message of "s + bytes + " bytes is too long", "ipc.c");
}
record missing(int fd)
{
    return warning("ERROR, no bufferevent found for fd " + std::to_string(fd), "ipc.c", EBADF);
}

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
int connect_to_server() // -1 where there is no room in its queue
{
    const sockaddr_un address{AF_UNIX, "/var/run/vandrel/ipc_test.sock"};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
}
void limit_descriptors(rlim_t limit)
{
    rlimit limits;
    getrlimit(RLIMIT_NOFILE, &limits);
    limits.rlim_cur = limit;
    setrlimit(RLIMIT_NOFILE, &limits);
}

struct ipc_test : device_test {
    event_base *base = event_base_new();
    std::vector<int> raw; // descriptors of peers, which are no part of the library
    int listening = -1;   // the server "test"

    ipc_test()
    {
        ipc_write(-1, nullptr); // the first record opens the log's own descriptor
        log();
        listening = server();
    }
    ~ipc_test() override
    {
        limit_descriptors(2000);
        std::for_each(raw.begin(), raw.end(), close);
        for (int fd = 3; fd < 2000; ++fd)
            ipc_close(fd);
        event_base_free(base);
    }
    bool run_until(const std::function<bool()> &done)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{15};
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        return true;
    }
    void run(int turns = 20) // enough for what a full socket holds
    {
        run_until([&] { return turns-- <= 0; });
    }
    int server(const char *name = "test") const { return ipc_server_new(name, base, by_default); }
    void send(int fd, std::string_view bytes) // lets the loop run where the socket doesn't take all at once
    {
        run_until([&] {
            const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            bytes.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
            return bytes.empty() || (sent < 0 && errno != EAGAIN);
        });
    }
    void feed(int fd, const std::string &bytes, std::size_t cut = 0)
    {
        for (const std::string &piece : {bytes.substr(0, cut), bytes.substr(cut)}) {
            send(fd, piece);
            run();
        }
    }
    strings heard_of(int fd, const std::string &bytes, std::size_t cut = 0)
    {
        heard.clear();
        feed(fd, bytes, cut);
        return std::exchange(heard, {});
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
        raw.push_back(connect_to_server());
        EXPECT_GE(raw.back(), 0);
        return raw.back();
    }
    std::pair<int, int> peer() // a plain socket, and the library's descriptor for the other end
    {
        const int fd = connected();
        EXPECT_EQ(heard_of(fd, message("hello", "1")), strings{"default hello 1"});
        return {fd, heard_from};
    }
};

TEST_F(ipc_test, messages_reach_their_handler)
{
    const int fd = peer().first;
    const int other = peer().first;
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
    };
    for (const auto &[body, want] : cases)
        EXPECT_EQ(heard_of(fd, frame(body)), strings{want}) << body;
    const char *dropped[] = {"null",         "['type']",   "{'data':1}",   "{'type':5}", R"({"a":{}/*)",
                             R"("\ud83d\u)", R"("\ud83d)", R"([1,{"b":")", R"({"a":1e)", "-"};
    for (const char *body : dropped) {
        EXPECT_EQ(heard_of(fd, frame(body)), strings{}) << body;
        EXPECT_EQ(heard_of(other, message("vc-\\u0041lice", "[1,{\"b\":\"\\udc00\"}]")),
                  strings{"default vc-Alice [1,{\"b\":\"\xEF\xBF\xBD\"}]"})
            << body;
    }
    EXPECT_EQ(heard_of(fd, frame("{'type':'cut','data':\0001}"s)), strings{});
    EXPECT_EQ(log(), records{});
    ipc_deregister_all_callbacks("named");
    EXPECT_EQ(heard_of(fd, message("named", "1") + message("error", "2")),
              (strings{"default named 1", "named error 2"}));
    ipc_deregister_all_callbacks(nullptr);
    EXPECT_EQ(heard_of(fd, message("error", "3")), strings{"default error 3"});
}

std::string repeated(const std::string &part, std::size_t times)
{
    std::string all;
    while (times-- > 0)
        all += part;
    return all;
}
std::string long_list(const std::string &part)
{
    return message("long", '[' + repeated(part, 990'000 / part.size()) + "0]");
}

TEST_F(ipc_test, a_body_of_too_much_memory_is_dropped)
{
    const int fd = peer().first;
    const struct {
        std::string dropped, handled; // just above and just below the limit
    } cases[] = {
        {"{}," + repeated("1,", 30), "{}," + repeated("1,", 31)},
        {"{}," + repeated("\"\",", 5), "{}," + repeated("\"\",", 6)},
        {R"({},"1234567",)", R"({},"12345678",)"},
        {"[]," + repeated("1,", 10), "[]," + repeated("1,", 11)},
        {R"({"":1,"":1,"":1},)", R"({"":1,"":1,"":1,"":1},)"},
    };
    for (const auto &[dropped, handled] : cases) {
        EXPECT_EQ(heard_of(fd, long_list(dropped) + message("next", "1")), strings{"default next 1"}) << dropped;
        EXPECT_EQ(heard_of(fd, long_list(handled)).size(), 1U) << handled;
    }
}

TEST_F(ipc_test, a_body_of_too_much_memory_is_told_of_once_a_connection)
{
    const int fd = peer().first;
    const int other = peer().first;
    const record dropped = warning("Message of 990027 bytes takes too much memory", "ipc.c");
    const std::pair<int, records> cases[] = {{fd, {dropped}}, {fd, {}}, {other, {dropped}}};
    for (const auto &[from, said] : cases) {
        EXPECT_EQ(heard_of(from, long_list("{},") + message("next", "1")), strings{"default next 1"});
        EXPECT_EQ(log(), said);
    }
}

TEST_F(ipc_test, frames_survive_every_cut)
{
    const int fd = peer().first;
    const std::string three = message("one", "[1]") + frame("") + message("two", "{}") + message("three", "3");
    for (std::size_t cut = 0; cut <= three.size(); ++cut)
        EXPECT_EQ(heard_of(fd, three, cut), (strings{"default one [1]", "default two {}", "default three 3"})) << cut;
    for (const std::size_t held : {4'098U, 4'099U, 4'100U, 65'535U, 65'536U, 65'537U}) { // around the size of a read
        const std::string text = text_of(held - message("a", "").size());
        for (const std::size_t cut : {0U, 3U})
            EXPECT_EQ(heard_of(fd, message("a", text) + message("b", "2"), cut),
                      (strings{"default a " + text, "default b 2"}))
                << held << ' ' << cut;
    }
}

TEST_F(ipc_test, writes_whole_frames_or_nothing)
{
    const auto [fd, handle] = peer();
    const auto [other_fd, other] = peer();
    EXPECT_EQ(write_to(handle, R"({"type":"abcd"})"), 0);
    EXPECT_FALSE(is_closed(fd)) << "nor has anything arrived: it leaves as the loop runs";
    EXPECT_EQ(receive(fd, 23), "\0\0\0\x13{ \"type\": \"abcd\" }\0"s);
    EXPECT_EQ(write_to(handle, text_of(longest_body - 1)), 0);
    EXPECT_EQ(receive(fd, longest_body + 4), frame(text_of(longest_body - 1) + '\0'));
    const std::pair<int, record> refused[] = {{-1, warning("FD is -1", "ipc.c")},
                                              {listening, missing(listening)},
                                              {54321, missing(54321)},
                                              {handle, too_long("999996")}};
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

    run(); // as much as the socket takes
    write_to(other, "{}");
    EXPECT_EQ(receive(other_fd, 8), frame("{ }\0"s)) << "past a peer that does not read";
    std::string part(1 << 20, '\0');
    const ssize_t first = recv(fd, part.data(), part.size(), 0);
    EXPECT_GT(first, 65'536) << "a socket that holds too little to tell";
    event_base_loop(base, EVLOOP_NONBLOCK | EVLOOP_ONCE);
    const ssize_t second = recv(fd, part.data(), part.size(), 0);
    EXPECT_GT(second, 65'536) << "filled in one go";
    const std::size_t left = queued * (longest_body + 4) - static_cast<std::size_t>(first + second);
    EXPECT_EQ(receive(fd, left).size(), left);

    for (int i = 0; i < 300; ++i) { // also where the socket takes nothing of what is queued first
        EXPECT_EQ(write_to(other, text_of(5'000)), 0);
        run(1);
    }
    EXPECT_EQ(receive(other_fd, 300 * 5'005).size(), 300U * 5'005U);
}

TEST_F(ipc_test, ends_are_noticed)
{
    ipc_register_callback("error", by_name); // never gets the notice
    answer = [](int fd, const std::string &type) { type == "answer me" ? write_to(fd, "{}") : 0; };
    const int other = peer().second;
    const std::string question = message("answer me", "0"), piece = "\0\0\0\x09{\"ty"s;
    const auto stays = [](int) {};
    const auto stops_writing = [](int fd) { shutdown(fd, SHUT_WR); };
    const auto stops_reading = [](int fd) { shutdown(fd, SHUT_RD); };
    const auto leaves = [](int fd) { close(fd); }; // which is an error where something is left to read
    const struct {
        std::string sent;
        void (*then)(int fd);
        const char *printed;
        records said;
    } cases[] = {
        {piece, stops_writing, "", {event, end}},
        {question, leaves, "Error from bufferevent: Connection reset by peer\n", {event, broken, end}},
        {question + piece, leaves, "Error from bufferevent: Connection reset by peer\n", {event, broken, end}},
        {"", stops_reading, "Error from bufferevent: Broken pipe\n", {event, broken, end}}, // no SIGPIPE
        {"\0\x0f\x42\x3c"s, stays, "", {too_long("999996"), end}},
        {question + "\xff\xff\xff\xff+", stays, "", {too_long("4294967295"), end}},
        {"\xff\xff\xff\xfc+", stays, "", {too_long("4294967292"), end}}, // 0 in 32 bits
    };
    for (std::size_t i = 0; i < 2 * std::size(cases); ++i) {
        const auto &[sent, then, printed, said] = cases[i / 2];
        const auto [fd, handle] = peer();
        log();
        testing::internal::CaptureStderr();
        feed(fd, sent, std::min(sent.size(), i % 2 * 3));
        then(fd);
        feed(fd, question);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), printed) << i;
        EXPECT_EQ(std::count(heard.begin(), heard.end(), "default error -"), 1) << i;
        EXPECT_EQ(heard.back(), "default error -") << i;
        EXPECT_EQ(heard_from, handle) << i;
        EXPECT_EQ(log(), said) << i;
        EXPECT_TRUE(is_closed(fd)) << i;
        EXPECT_EQ(write_to(handle, "{}"), -1) << i;
        EXPECT_EQ(write_to(other, "{}"), 0) << i;
    }
}

TEST_F(ipc_test, memory_is_taken_in_step_with_what_has_come_and_given_back)
{
    std::size_t before = 0, early = 0;
    for (int visit = 0; visit < 40; ++visit) {
        const int fd = peer().first;
        before = __sanitizer_get_current_allocated_bytes();
        feed(fd, "\0\x0f\x42\x3b"s);
        EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + 20'000);
        feed(fd, std::string(5000, ' '));
        EXPECT_LT(__sanitizer_get_current_allocated_bytes(), before + 200'000);
        close(fd);
        raw.clear();
        run();
        early = visit < 20 ? before : early;
    }
    EXPECT_LT(before, early + 20 * 32);
}

TEST_F(ipc_test, descriptors_closed_behind_its_back)
{
    const int handle = peer().second;
    const int next = connected();
    close(handle);
    EXPECT_EQ(heard_of(next, message("next", "1")), strings{"default next 1"});
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
    int other = -1, fresh = -1;
    answer = [&](int from, const std::string &type) {
        ipc_deregister_callback(type.c_str());
        if (type == "once")
            ipc_close(other);
        if (type == "self" || type == "error") {
            ipc_close(from);
            fresh = ipc_client_new("test", base, by_default);
        }
    };
    const std::string sent = message("once", "1") + message("once", "2") + message("self", "3") + message("lost", "4");
    for (const std::size_t cut : {0U, 3U}) { // read anew, and read on
        const auto [fd, handle] = peer();
        const int other_fd = peer().first;
        other = heard_from;
        ipc_register_callback("once", by_name);
        feed(fd, sent.substr(0, cut));
        send(fd, sent.substr(cut));
        send(other_fd, message("waiting", "5"));
        run();
        std::erase(heard, "default waiting 5"); // where that connection was read first
        EXPECT_EQ(std::exchange(heard, {}), (strings{"named once 1", "default once 2", "default self 3"})) << cut;
        EXPECT_EQ(fresh, handle) << "closed and connected anew, which gives the same descriptor";
        EXPECT_TRUE(is_closed(fd)) << cut;
        EXPECT_TRUE(is_closed(other_fd)) << cut;
    }

    const auto [ending_fd, ending] = peer();
    shutdown(ending_fd, SHUT_WR);
    run();
    EXPECT_EQ(fresh, ending);
    EXPECT_EQ(write_to(fresh, R"({"type":"again"})"), 0);
    run();
    EXPECT_EQ(heard.back(), "default again -");

    const int silent = ipc_client_new("test", base, nullptr);
    EXPECT_EQ(write_to(silent, R"({"type":"last"})"), 0);
    run();
    ipc_close(heard_from);
    run();
    EXPECT_EQ(write_to(silent, "{}"), -1) << "an end that nobody wants to hear of";
}

TEST_F(ipc_test, handlers_may_run_another_loop)
{
    event_base *const inner = event_base_new();
    ipc_server_new("test", inner, by_default);
    const int inner_fd = connected();
    event_base_loop(inner, EVLOOP_NONBLOCK);
    server();
    const int fd = peer().first;
    answer = [&](int, const std::string &type) {
        if (type == "ask")
            send(inner_fd, message("inner", text_of(100)));
        event_base_loop(inner, EVLOOP_NONBLOCK);
    };
    for (const std::size_t cut : {0U, 3U})
        EXPECT_EQ(heard_of(fd, message("ask", "1") + message("after", "2"), cut),
                  (strings{"default ask 1", "default inner " + text_of(100), "default after 2"}))
            << cut;
    send(fd, message("large", text_of(65'000)));
    event_base_loop(base, EVLOOP_NONBLOCK | EVLOOP_ONCE);
    EXPECT_EQ(heard.size(), 1U) << "read in one go, as before";
    shutdown(inner_fd, SHUT_WR);
    event_base_loop(inner, EVLOOP_NONBLOCK);
    event_base_free(inner);
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
    EXPECT_EQ(symlink("/tmp/not_ours", socket_file("link").c_str()), 0);
    EXPECT_EQ(log(), records{}) << "without the group, nothing to say";
    const gid_t gid = several_ids() ? 77 : 0;
    write_file("/etc/group", "root:x:0:\nvdipc:x:" + std::to_string(gid) + ":\n");
    server("link");
    EXPECT_EQ(status_of(socket_file("link")).st_mode, S_IFSOCK | 0770U);
    EXPECT_EQ(status_of(socket_file("link")).st_gid, gid);
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
}

TEST_F(ipc_test, a_server_has_no_need_to_be_root)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    write_file("/etc/group", "vdipc:x:77:\n");
    chmod("/var/run/vandrel", 0777);
    for (const gid_t gid : {0U, 77U}) {
        EXPECT_EQ(setegid(gid), 0);
        EXPECT_EQ(seteuid(1), 0);
        prctl(PR_SET_DUMPABLE, 1); // its own files in /proc stay its own
        EXPECT_GE(server(), 0);
        EXPECT_EQ(log(), gid == 77 ? records{}
                                   : records{error("Failed to set ipc socket group or permissions", "ipc.c", EPERM)});
        EXPECT_EQ(status_of(socket_file("test")).st_uid, 1U);
        EXPECT_EQ(status_of(socket_file("test")).st_gid, gid);
        peer();
        EXPECT_EQ(seteuid(0), 0);
    }
    EXPECT_EQ(setegid(0), 0);
}

TEST_F(ipc_test, one_server_follows_another)
{
    const int before = open_descriptors();
    server();
    const int handle = peer().second;
    const int third = server("other");
    EXPECT_EQ(status_of(socket_file("test")).st_mode, 0U) << "the file goes with the server";
    EXPECT_EQ(open_descriptors(), before + 2) << "one listener still, two ends";
    EXPECT_EQ(fcntl(third, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(handle, F_GETFD), FD_CLOEXEC);
    ipc_close(-1);
    EXPECT_NE(status_of(socket_file("other")).st_mode, 0U);
    ipc_close(third);
    EXPECT_EQ(status_of(socket_file("other")).st_mode, 0U);
    ipc_close(third);
    EXPECT_EQ(write_to(handle, "{}"), 0) << "accepted connections stay";
}

TEST_F(ipc_test, a_server_that_can_not_be)
{
    const auto refused = [](int err) { return records{warning("cannot bind", "ipc.c", err)}; };
    EXPECT_EQ(server("no/such/folder"), -1);
    EXPECT_EQ(log(), refused(ENOENT));
    EXPECT_EQ(ipc_server_new("x", nullptr, by_default), -1);
    EXPECT_EQ(log(), refused(EINVAL));
    EXPECT_EQ(ipc_server_new(nullptr, base, by_default), -1);
    EXPECT_EQ(log(), refused(EINVAL));
    peer(); // the one before stays
    ipc_close(listening);
    EXPECT_EQ(status_of(socket_file("test")).st_mode, 0U);
}

TEST_F(ipc_test, without_descriptors_accepting_pauses)
{
    const int open = peer().first;
    for (const int waiting : {connected(), connected()})
        send(waiting, message("waited", "1"));
    log(); // also before the sanitizer has no descriptor for its own checks
    limit_descriptors(0);
    run();
    EXPECT_EQ(log(), records{warning("error: ", "ipc.c", EMFILE)}) << "the first is recorded at once";
    const timeval second{1, 0};
    event_base_loopexit(base, &second);
    const auto begin = std::clock();
    event_base_dispatch(base); // at rest where there is nothing to do
    EXPECT_LT(std::clock() - begin, CLOCKS_PER_SEC / 10);
    const auto said = log().size();
    EXPECT_GE(said, 5U);
    EXPECT_LE(said, 10U);
    EXPECT_EQ(heard_of(open, message("served", "2")), strings{"default served 2"});
    limit_descriptors(1024);
    EXPECT_TRUE(run_until([] { return heard.size() == 2; }));
    EXPECT_EQ(heard, (strings{"default waited 1", "default waited 1"})) << "without connecting anew";

    connected();
    limit_descriptors(0);
    run();
    const int with_pause = event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED);
    ipc_close(listening);
    EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), with_pause - 1) << "the timer has gone too";
}

TEST_F(ipc_test, the_last_descriptors_are_the_daemons_own)
{
    write_file("/etc/vandrel/zones.json", R"({"zone_configuration":{"zones":{"1":{"members":{}}}}})");
    write_script("/usr/share/vandrel/check_zone_scheduled_access.lua", "#!/bin/sh\necho true");
    const std::pair<rlim_t, int> cases[] = {{40, 35}, {63, 56}, {64, 56}, {200, 192}};
    for (const auto &[limit, first_reserved] : cases) {
        const int served = connected();
        const int refused = connected();
        send(served, message("served", "1"));
        std::vector<int> others;
        do
            others.push_back(dup(0));
        while (others.back() < first_reserved - 2);
        log();
        limit_descriptors(limit);
        EXPECT_TRUE(run_until([] { return !heard.empty(); })) << limit;
        EXPECT_EQ(std::exchange(heard, {}), strings{"default served 1"}) << limit;
        EXPECT_EQ(heard_from, first_reserved - 1) << limit;
        EXPECT_TRUE(is_closed(refused)) << limit;
        EXPECT_EQ(log(), records{warning("Connection failed", "ipc.c")}) << limit;
        const int later = connected();
        run(2);
        EXPECT_FALSE(is_closed(later)) << limit << ": accepting pauses";
        EXPECT_TRUE(run_until([later] { return is_closed(later); })) << limit;
        EXPECT_EQ(zones_update_schedule_access(), 1) << limit;
        limit_descriptors(1024);
        others.insert(others.end(), raw.begin(), raw.end());
        raw.clear();
        std::for_each(others.begin(), others.end(), close);
        run();
        heard.clear();
    }
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
    do
        raw.push_back(connect_to_server());
    while (raw.back() >= 0); // until its queue is full
    const child_process client{[this] {
        event_reinit(base);
        const interruptions while_it_waits;
        EXPECT_GE(ipc_client_new("test", base, by_default), 0);
    }};
    usleep(250'000);
    run();
}

TEST_F(ipc_test, sigpipe_is_caught_where_nobody_else_handles_it)
{
    const sighandler_t own = [](int) {};
    for (const sighandler_t set : {own, SIG_IGN, SIG_DFL}) {
        const child_process client{[this, set] { // whose first connection it is
            event_reinit(base);
            std::signal(SIGPIPE, set);
            ipc_client_new("test", base, by_default);
            struct sigaction now {};
            sigaction(SIGPIPE, nullptr, &now);
            EXPECT_NE(now.sa_handler, SIG_DFL);
            EXPECT_EQ(now.sa_handler == set, set != SIG_DFL);
            EXPECT_EQ(now.sa_handler == SIG_IGN, set == SIG_IGN) << "which the daemon's commands would inherit";
        }};
    }
}

using descriptors = std::vector<int>;
descriptors subscribers(const char *type)
{
    int room[50];
    return descriptors(room, room + ipc_server_get_subscibers(room, type));
}

TEST_F(ipc_test, subscriptions)
{
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
    EXPECT_EQ(ipc_server_remove_subscriber(7), 2);
    EXPECT_EQ(ipc_server_remove_subscriber_typed("b", 8), 0);
    EXPECT_EQ(subscribers("a"), descriptors{8});
    EXPECT_EQ(ipc_server_remove_subscriber_typed("a", 8), 1);
    EXPECT_EQ(ipc_server_remove_subscriber_typed("a", 8), 0);
    EXPECT_EQ(log(), records{});

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
    const auto [fd, handle] = peer();
    const auto [other_fd, other] = peer();
    ipc_server_remove_all_subscribers(handle); // without a subscription it stays
    for (const int to : {handle, 54321, other, 54322})
        EXPECT_EQ(ipc_server_add_subscriber("news", to), 0);
    EXPECT_EQ(ipc_server_add_subscriber("more", handle), 0);
    const auto publish = [](json_object *object) {
        return errno = EBADF, ipc_server_write_to_subscribers("news", object);
    };
    for (const std::size_t size : {10U, 100'000U}) {
        EXPECT_EQ(with_json(text_of(size), publish), 2);
        EXPECT_EQ(log(), (records{missing(54321), missing(54322)}));
        for (const int to : {fd, other_fd})
            EXPECT_EQ(receive(to, size + 5), frame(text_of(size) + '\0'));
    }
    for (const char *library : {"libevent_core", "libvandrel.so"}) {
        {
            const allocation_refusal refuse{1, library};
            EXPECT_EQ(with_json(text_of(5'000), publish), 3) << library << ": one more gets nothing";
        }
        EXPECT_EQ(receive(other_fd, 5'005), frame(text_of(5'000) + '\0')) << library;
    }
    EXPECT_EQ(ipc_server_write_to_subscribers("none", nullptr), 0);
    EXPECT_EQ(ipc_server_write_to_subscribers(nullptr, nullptr), 0);
    ipc_server_remove_all_subscribers(handle);
    EXPECT_TRUE(is_closed(fd));
    EXPECT_FALSE(is_closed(other_fd));
    EXPECT_EQ(subscribers("news"), (descriptors{54321, other, 54322}));
    EXPECT_EQ(subscribers("more"), descriptors{});
    EXPECT_EQ(ipc_server_add_subscriber("more", listening), 0);
    ipc_close(listening);
    EXPECT_EQ(subscribers("more"), descriptors{});
    ipc_server_remove_all_subscribers(-1);
    EXPECT_EQ(write_to(other, "{}"), 0) << "no connection is touched";
}

TEST_F(ipc_test, a_frame_is_queued_whole_or_refused_without_memory)
{
    const std::string text = text_of(20'000);
    const struct {
        const char *library;
        int refusal; // the third allocation of json-c is the room that the text needs
        int left_errno;
        bool is_written;
    } cases[] = {
        {"libevent_core", 1, 0, false},     {"libjson-c.so", 1, 0, false},     {"libjson-c.so", 3, 0, true},
        {"libjson-c.so", 3, ENOMEM, false}, {"libjson-c.so", 9, ENOMEM, true},
    };
    for (const auto &[library, refusal, left_errno, is_written] : cases) {
        const auto [fd, handle] = peer();
        json_object *object = json_tokener_parse(text.c_str());
        testing::internal::CaptureStderr();
        {
            const misleading_errno leave{left_errno};
            const allocation_refusal refuse{refusal, library};
            errno = 0;
            const int result = ipc_write(handle, object);
            const int reason = errno;
            EXPECT_EQ(result, is_written ? 0 : -1) << library << refusal;
            EXPECT_EQ(reason, is_written && left_errno == 0 ? 0 : ENOMEM) << library << refusal;
            EXPECT_EQ(refuse.happened(), refusal != 9) << library << refusal;
        }
        const std::string printed = testing::internal::GetCapturedStderr();
        EXPECT_EQ(printed, is_written ? "" : "write: Cannot allocate memory\n") << library << refusal;
        json_object_put(object);
        EXPECT_EQ(write_to(handle, "[]"), 0);
        const std::string want = (is_written ? frame(text + '\0') : "") + frame("[ ]\0"s);
        EXPECT_EQ(receive(fd, want.size()), want) << library << refusal;
    }
}

TEST_F(ipc_test, a_type_that_json_c_cuts_without_memory_is_made_again)
{
    const int fd = peer().first;
    const std::string type(40, 't');
    bool refused = false;
    for (int n = 30; !refused && n > 0; --n) { // down to the last allocation for a message, which is room for its type
        const allocation_refusal refuse{n, "libjson-c.so"};
        EXPECT_EQ(heard_of(fd, frame(R"({"type":")" + type + "\"}\0"s)), strings{"default " + type + " -"}) << n;
        refused = refuse.happened();
    }
    EXPECT_TRUE(refused);
}

TEST_F(ipc_test, a_frame_that_finds_no_memory_ends_its_connection)
{
    const std::string text = text_of(300'000);
    bool refused = true;
    for (int n = 1; refused; ++n) {
        const int fd = peer().first;
        log();
        const allocation_refusal refuse{n, "libevent_core"};
        const strings got = heard_of(fd, message("t", text), 10);
        refused = refuse.happened();
        EXPECT_EQ(got, strings{refused ? "default error -" : "default t " + text}) << n;
        EXPECT_EQ(log(), refused ? (records{error("ERROR, too few bytes", "ipc.c"), end}) : records{}) << n;
        ASSERT_LT(n, 10) << "refused for ever";
    }
}

TEST_F(ipc_test, refused_memory_leaves_the_bus_working)
{
    static int arrived;
    const ipc_callback count = [](int, const char *type, json_object *) { arrived += *type == 'n'; };
    ipc_server_new("test", base, count);
    for (const char *library : {"libvandrel.so", "libevent_core"}) {
        long unaccepted = 0;
        bool refused = true;
        for (int n = 1; refused; ++n) {
            const int before = open_descriptors();
            arrived = 0;
            with_json(R"({"type":"news","data":")" + std::string(5000, 'x') + "\"}", [&](json_object *news) {
                const allocation_refusal refuse{n, library};
                const int fd = ipc_client_new("test", base, count);
                ipc_register_callback("a name too long to be stored without an allocation", nullptr);
                ipc_server_add_subscriber("a type too long to be stored without an allocation", fd);
                ipc_server_add_subscriber("news", fd);
                run();
                ipc_server_write_to_subscribers("news", news);
                run();
                ipc_close(fd);
                return refused = refuse.happened();
            });
            ipc_server_remove_all_subscribers(-1);
            ipc_deregister_all_callbacks(nullptr);
            run();
            EXPECT_EQ(open_descriptors(), before) << library << n;
            const records said = log();
            unaccepted += std::count(said.begin(), said.end(), warning("Connection failed", "ipc.c"));
        }
        EXPECT_EQ(arrived, 1) << "where nothing was refused";
        EXPECT_GT(unaccepted, 0) << library;
    }
}

} // namespace
