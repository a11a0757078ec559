#include "ipc.h"

#include "device_test.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <random>

#include <event2/event.h>
#include <fcntl.h>
#include <grp.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace {

constexpr char socket_path[] = "/var/run/vandrel/ipc_test.sock";
constexpr std::size_t longest_body = 999'995;

/// What a handler was called with; data is "-" for NULL.
struct heard_message {
    int fd;
    std::string handler, type, data;
    bool operator==(const heard_message &) const = default;
};
std::vector<heard_message> heard;
std::function<void(int, const char *)> then; // what the handlers do afterwards

void note(const char *handler, int fd, const char *type, json_object *data)
{
    const std::string text = data ? json_object_to_json_string_ext(data, JSON_C_TO_STRING_PLAIN) : "-";
    heard.push_back({fd, handler, type, text});
    if (then)
        then(fd, type);
}
void by_default(int fd, const char *type, json_object *data)
{
    note("default", fd, type, data);
}
void by_name(int fd, const char *type, json_object *data)
{
    note("named", fd, type, data);
}

std::string frame(std::string_view body)
{
    const auto n = static_cast<unsigned>(body.size());
    std::string bytes;
    for (const int shift : {24, 16, 8, 0})
        bytes += static_cast<char>(n >> shift & 0xFF);
    return bytes.append(body);
}
std::string message(const std::string &type, const std::string &data)
{
    return frame(R"({"type":")" + type + R"(","data":)" + data + '}' + '\0');
}

struct object {
    explicit object(const std::string &text) : json{json_tokener_parse(text.c_str())} {}
    object(const object &) = delete;
    object &operator=(const object &) = delete;
    ~object() { json_object_put(json); }
    operator json_object *() const { return json; }
    json_object *json;
};

struct ipc_test : device_test {
    event_base *base = event_base_new();
    std::vector<int> raw; // descriptors of peers that are no part of the library

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
        then = nullptr;
    }
    bool run_until(const std::function<bool()> &done)
    {
        for (const auto start = std::chrono::steady_clock::now(); !done();) {
            if (std::chrono::steady_clock::now() - start > std::chrono::seconds{15})
                return false;
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        return true;
    }
    bool run_until_heard(std::size_t n)
    {
        return run_until([n] { return heard.size() >= n; });
    }
    void run()
    {
        for (int i = 0; i < 5; ++i)
            event_base_loop(base, EVLOOP_NONBLOCK);
    }
    int server(const char *name = "test") { return ipc_server_new(name, base, by_default); }
    /// A plain socket, connected to the server and accepted by it.
    int peer()
    {
        sockaddr_un address{AF_UNIX, {}};
        std::strcpy(address.sun_path, socket_path);
        raw.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        EXPECT_EQ(connect(raw.back(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        run();
        return raw.back();
    }
    /// The same, and the library's descriptor for it.
    std::pair<int, int> known_peer()
    {
        const int fd = peer();
        send(fd, message("hello", "1"));
        EXPECT_TRUE(run_until([] { return !heard.empty() && heard.back().type == "hello"; }));
        const int handle = heard.back().fd;
        heard.clear();
        return {fd, handle};
    }
    static void send(int fd, std::string_view bytes)
    {
        EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
    /// Sends while the loop runs, for more than a socket takes at once.
    void stream(int fd, std::string_view bytes)
    {
        EXPECT_TRUE(run_until([&] {
            if (const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); sent > 0)
                bytes.remove_prefix(static_cast<std::size_t>(sent));
            return bytes.empty();
        }));
    }
    std::string receive(int fd, std::size_t size)
    {
        std::string bytes;
        std::string part(1 << 16, '\0');
        run_until([&] {
            for (ssize_t n; (n = recv(fd, part.data(), part.size(), 0)) > 0;)
                bytes.append(part, 0, static_cast<std::size_t>(n));
            return bytes.size() >= size;
        });
        return bytes;
    }
};

bool is_closed(int fd)
{
    char byte;
    return recv(fd, &byte, 1, MSG_DONTWAIT) == 0 || (errno != EAGAIN && errno != EINTR);
}

TEST_F(ipc_test, messages_reach_their_handler)
{
    server();
    ipc_register_callback("named", by_default);
    ipc_register_callback("named", by_name);
    ipc_register_callback("error", by_name);
    ipc_register_callback("none", nullptr);
    ipc_register_callback(R"(a\/b)", by_name);
    ipc_register_callback("gone", by_name);
    ipc_deregister_callback("gone");
    ipc_deregister_callback(nullptr);
    ipc_register_callback(nullptr, by_name);
    const int fd = peer();
    const std::string longest = R"({"type":"long","data":")" + std::string(longest_body - 26, 'x') + R"("})" + '\0';
    const struct {
        std::string body;
        const char *handler, *type, *data; // no handler: dropped
    } cases[] = {
        {R"({"type":"x","data":{"a":1}})" + std::string{'\0'}, "default", "x", R"({"a":1})"},
        {R"({"type":"named","other":[]})" + std::string{'\0'}, "named", "named", "-"},
        {R"({"data":null,"type":"none"})" + std::string{'\0'}, "default", "none", "-"},
        {R"({"type":"a/b","data":0})" + std::string{'\0'}, "named", R"(a\/b)", "0"},
        {R"({"type":"gone"})" + std::string{'\0'}, "default", "gone", "-"},
        {R"({"type":"","data":[]})" + std::string{'\0'}, "default", "", "[]"},
        {R"({"type":"error","data":1})" + std::string{'\0'}, "named", "error", "1"},
        {R"({"type":1,"type":"last"})" + std::string{'\0'}, "default", "last", "-"},
        {R"({"type":"no NUL"})", "default", "no NUL", "-"},
        {R"({'type':'odd'} /* never closed)", "default", "odd", "-"},
        {R"({"type":"t"} trailing)", "default", "t", "-"},
        {R"({"type":"t"})" + std::string("\0{\"type\":", 9), "default", "t", "-"},
        {longest, "default", "long", nullptr},
        {"", nullptr, nullptr, nullptr},
        {std::string{'\0'}, nullptr, nullptr, nullptr},
        {R"({"type":"cut")", nullptr, nullptr, nullptr},
        {R"({"type":"cut","data":)" + std::string{'\0'} + "1}", nullptr, nullptr, nullptr},
        {"null" + std::string{'\0'}, nullptr, nullptr, nullptr},
        {R"(["type"])" + std::string{'\0'}, nullptr, nullptr, nullptr},
        {R"({"data":1})" + std::string{'\0'}, nullptr, nullptr, nullptr},
        {R"({"type":5})" + std::string{'\0'}, nullptr, nullptr, nullptr},
        {R"({"type":null})" + std::string{'\0'}, nullptr, nullptr, nullptr},
    };
    for (const auto &[body, handler, type, data] : cases) {
        heard.clear();
        stream(fd, frame(body) + message("end", "0"));
        EXPECT_TRUE(run_until([] { return !heard.empty() && heard.back().type == "end"; })) << body.substr(0, 80);
        ASSERT_EQ(heard.size(), handler ? 2U : 1U) << body.substr(0, 80);
        if (handler) {
            EXPECT_EQ(heard[0], (heard_message{heard[1].fd, handler, type, data ? data : heard[0].data}));
        }
    }
    EXPECT_EQ(log(), records{});
    ipc_deregister_all_callbacks("named");
    send(fd, message("named", "1") + message("error", "2"));
    ipc_deregister_all_callbacks(nullptr);
    ipc_register_callback("x", by_name);
    send(fd, message("error", "3") + message("x", "4"));
    heard.clear();
    EXPECT_TRUE(run_until_heard(4));
    EXPECT_EQ(heard[0].handler + heard[1].handler + heard[2].handler + heard[3].handler, "defaultdefaultdefaultnamed");
}

TEST_F(ipc_test, frames_survive_every_cut)
{
    server();
    const int fd = peer();
    const std::string stream_of_three =
        message("one", "[1]") + frame("") + message("two", "{}") + message("three", "3");
    for (std::size_t cut = 0; cut <= stream_of_three.size(); ++cut) {
        heard.clear();
        send(fd, std::string_view{stream_of_three}.substr(0, cut));
        run();
        send(fd, std::string_view{stream_of_three}.substr(cut));
        ASSERT_TRUE(run_until_heard(3)) << cut;
        EXPECT_EQ(heard[0].type + heard[1].type + heard[2].type, "onetwothree") << cut;
    }
}

TEST_F(ipc_test, writes_whole_frames)
{
    const int listening = server();
    const auto [fd, handle] = known_peer();
    EXPECT_EQ(ipc_write(handle, object{R"({"type":"abcd"})"}), 0);
    char byte;
    EXPECT_EQ(recv(fd, &byte, 1, 0), -1) << "it leaves as the loop runs";
    EXPECT_EQ(receive(fd, 23), std::string("\0\0\0\x13{ \"type\": \"abcd\" }\0", 23));
    const std::string long_text(longest_body - 3, 'x'); // with its quotes and the NUL, the longest body
    const object longest{'"' + long_text + '"'};
    EXPECT_EQ(ipc_write(handle, longest), 0);
    EXPECT_EQ(receive(fd, longest_body + 4).substr(4), '"' + long_text + '"' + '\0');
    log();
    const struct {
        int fd;
        records want;
    } refused[] = {
        {-1, {warning("FD is -1", "ipc.c")}},
        {listening, {warning("ERROR, no bufferevent found for fd " + std::to_string(listening), "ipc.c", EBADF)}},
        {54321, {warning("ERROR, no bufferevent found for fd 54321", "ipc.c", EBADF)}},
        {handle, {warning("Message of 999996 bytes is too long", "ipc.c")}},
    };
    const object too_long{'"' + long_text + "x\""};
    for (const auto &[to, want] : refused) {
        errno = EBADF;
        EXPECT_EQ(ipc_write(to, too_long), -1);
        EXPECT_EQ(log(), want);
    }
    testing::internal::CaptureStderr();
    int queued = 0;
    while (ipc_write(handle, longest) == 0)
        ++queued;
    EXPECT_EQ(errno, ENOBUFS);
    EXPECT_EQ(queued, 67); // times 999999 is just below 64 MiB
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "write: No buffer space available\n");
    EXPECT_EQ(receive(fd, 67 * (longest_body + 4)).size(), 67 * (longest_body + 4)) << "and nothing of the refused one";
}

TEST_F(ipc_test, ends_are_noticed)
{
    server();
    ipc_register_callback("error", by_name); // never gets the notice
    const auto [staying, other] = known_peer();
    const auto end = warning("end of file or error ", "ipc.c");
    const struct {
        std::function<void(int, int)> how; // of a peer's descriptor and the library's for it
        records want;
        const char *printed;
    } cases[] = {
        {[](int fd, int) { shutdown(fd, SHUT_WR); }, {info("Event", "ipc.c"), end}, ""},
        {[](int fd, int) { send(fd, std::string("\0\0\0\x09{\"ty", 8)), shutdown(fd, SHUT_WR); },
         {info("Event", "ipc.c"), end},
         ""},
        {[](int fd, int) { send(fd, std::string("\0\x0f\x42\x3c", 4)); },
         {warning("Message of 999996 bytes is too long", "ipc.c"), end},
         ""},
        {[](int fd, int) { send(fd, "\xff\xff\xff\xff more"); },
         {warning("Message of 4294967295 bytes is too long", "ipc.c"), end},
         ""},
        {[](int fd, int handle) { shutdown(fd, SHUT_RD), ipc_write(handle, object{"{}"}); }, // SIGPIPE comes and goes
         {info("Event", "ipc.c"), warning("Bufferevent error", "ipc.c"), end},
         "Error from bufferevent: Broken pipe\n"},
    };
    for (const auto &[how, want, printed] : cases) {
        const auto [fd, handle] = known_peer();
        log();
        testing::internal::CaptureStderr();
        how(fd, handle);
        EXPECT_TRUE(run_until_heard(1));
        run();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), printed);
        EXPECT_EQ(heard, (std::vector<heard_message>{{handle, "default", "error", "-"}}));
        EXPECT_EQ(log(), want);
        EXPECT_TRUE(is_closed(fd));
        EXPECT_EQ(ipc_write(handle, nullptr), -1);
        EXPECT_EQ(ipc_write(other, object{"{}"}), 0);
        EXPECT_FALSE(receive(staying, 1).empty());
    }
}

TEST_F(ipc_test, handlers_may_change_the_bus)
{
    server();
    static int victim;
    static event_base *loop;
    const auto [fd, handle] = known_peer();
    const auto [other_fd, other] = known_peer();
    victim = other;
    loop = base;
    ipc_register_callback("once", by_name);
    then = [](int from, const char *type) {
        ipc_deregister_callback(type);
        if (std::string_view{type} == "once")
            ipc_close(victim);
        if (std::string_view{type} == "self")
            ipc_close(from);
        if (std::string_view{type} == "error") {
            ipc_close(from);
            victim = ipc_client_new("test", loop, by_default);
        }
    };
    send(other_fd, message("waiting", "1"));
    send(fd, message("once", "1") + message("once", "2") + message("self", "3") + message("lost", "4"));
    EXPECT_TRUE(run_until_heard(3));
    run();
    const bool waiting_first = heard[0].type == "waiting"; // which connection is read first is open
    EXPECT_EQ(heard.size(), waiting_first ? 4U : 3U);
    EXPECT_EQ(heard[waiting_first].handler + heard[waiting_first + 1].handler, "nameddefault");
    EXPECT_TRUE(is_closed(fd) && is_closed(other_fd));

    const auto [ending_fd, ending] = known_peer();
    shutdown(ending_fd, SHUT_WR);
    EXPECT_TRUE(run_until_heard(1));
    EXPECT_EQ(victim, ending) << "the notice closed and connected anew, which gave the same descriptor";
    EXPECT_EQ(ipc_write(victim, object{R"({"type":"again"})"}), 0);
    EXPECT_TRUE(run_until_heard(2));
    EXPECT_EQ(heard.back().type, "again");
}

TEST_F(ipc_test, a_server_and_its_socket_file)
{
    write_file(socket_path, "left behind");
    const int before = open_descriptors();
    const int first = server();
    struct stat status {};
    stat(socket_path, &status);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_gid, 0U);
    EXPECT_EQ(log(), records{}) << "without the group, nothing to say";
    write_file("/etc/group", "root:x:0:\nvdipc:x:" + std::to_string(several_ids() ? 77 : 0) + ":\n");
    const int second = server(); // of the same name: takes the place of the first
    stat(socket_path, &status);
    EXPECT_EQ(status.st_gid, several_ids() ? 77U : 0U);
    EXPECT_EQ(status.st_mode & 07777, 0770U);
    const auto [fd, handle] = known_peer();
    const int third = server("other");
    EXPECT_NE(access(socket_path, F_OK), 0);
    EXPECT_EQ(open_descriptors(), before + 1 + 2) << "one listener, two ends";
    for (const int ours : {third, handle})
        EXPECT_EQ(fcntl(ours, F_GETFD), FD_CLOEXEC);
    ipc_close(first);
    ipc_close(second);
    ipc_close(-1);
    EXPECT_EQ(server("no/such/folder"), -1);
    EXPECT_EQ(log(), (records{warning("cannot bind", "ipc.c", ENOENT)}));
    EXPECT_EQ(access("/var/run/vandrel/ipc_other.sock", F_OK), 0) << "the one before stays";
    ipc_close(third);
    ipc_close(third);
    EXPECT_NE(access("/var/run/vandrel/ipc_other.sock", F_OK), 0);
    EXPECT_EQ(ipc_write(handle, nullptr), 0) << "accepted connections stay";
    EXPECT_EQ(ipc_server_new("x", nullptr, by_default), -1);
    EXPECT_EQ(ipc_client_new(nullptr, base, by_default), -1);
    EXPECT_EQ(log(), (records{warning("cannot bind", "ipc.c", EINVAL), warning("connect", "ipc.c", EINVAL)}));
}

TEST_F(ipc_test, a_client_connects_or_leaves_nothing)
{
    ipc_close(7); // before there was anything
    for (const std::size_t length : {80U, 81U}) {
        const std::string name(length, 'n');
        server(name.c_str());
        const int before = open_descriptors();
        const int fd = ipc_client_new(name.c_str(), base, by_default);
        const std::string path = ("/var/run/vandrel/ipc_" + name + ".sock").substr(0, 106);
        records want{info("Connect client to " + path, "ipc.c")};
        if (length > 80)
            want.push_back(warning("connect", "ipc.c", ENOENT));
        EXPECT_EQ(fd >= 0, length == 80);
        EXPECT_EQ(log(), want);
        EXPECT_EQ(open_descriptors(), before + (fd >= 0));
        if (fd < 0)
            continue;
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        struct sigaction action {};
        sigaction(SIGPIPE, nullptr, &action);
        EXPECT_TRUE(action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
        ipc_close(fd);
        EXPECT_EQ(open_descriptors(), before) << "closed at once, not only when the loop runs";
    }
}

TEST_F(ipc_test, subscriptions)
{
    const auto subscribers = [](const char *type) {
        int fds[50];
        return std::vector<int>(fds, fds + ipc_server_get_subscibers(fds, type));
    };
    using fds = std::vector<int>;
    EXPECT_EQ(ipc_server_remove_subscriber(7) + ipc_server_remove_subscriber_typed("a", 7), 0);
    for (const auto &[type, fd] : {std::pair{"a", 7}, {"b", 7}, {"a", 8}, {"a", 7}})
        EXPECT_EQ(ipc_server_add_subscriber(type, fd), 0);
    EXPECT_EQ(ipc_server_add_subscriber("a", -1) + ipc_server_add_subscriber(nullptr, 7), -2);
    EXPECT_EQ(subscribers("a"), (fds{8, 7})) << "the renewed one is last";
    EXPECT_EQ(ipc_server_get_subscibers(nullptr, "a") + ipc_server_remove_subscriber_typed(nullptr, -1), 0);
    EXPECT_EQ(ipc_server_remove_subscriber(7), 2);
    EXPECT_EQ(subscribers("a"), fds{8});
    EXPECT_EQ(ipc_server_remove_subscriber_typed("b", 8) + ipc_server_remove_subscriber_typed("a", 8), 1);
    for (int fd = 0; fd < 50; ++fd)
        EXPECT_EQ(ipc_server_add_subscriber("full", fd), 0);
    EXPECT_EQ(ipc_server_add_subscriber("full", 50) + ipc_server_add_subscriber("full", 3), -2);
    EXPECT_EQ(subscribers("full").size(), 50U);
    ipc_server_remove_all_subscribers(-1);
    EXPECT_EQ(subscribers("full"), fds{});

    ipc_server_remove_all_subscribers(server()); // without a subscription it stays
    const auto [fd, handle] = known_peer();
    const auto [other_fd, other] = known_peer();
    for (const int to : {handle, 54321, other})
        EXPECT_EQ(ipc_server_add_subscriber("news", to), 0);
    ipc_server_add_subscriber("more", handle);
    log();
    for (const std::size_t size : {10U, 100'000U}) {
        const std::string text = '"' + std::string(size, 'n') + '"';
        EXPECT_EQ(ipc_server_write_to_subscribers("news", object{text}), 1);
        EXPECT_EQ(receive(fd, size + 7), frame(text + '\0'));
        EXPECT_EQ(receive(other_fd, size + 7), frame(text + '\0'));
        EXPECT_EQ(log().size(), 1U);
    }
    EXPECT_EQ(ipc_server_write_to_subscribers("none", nullptr) + ipc_server_write_to_subscribers(nullptr, nullptr), 0);
    ipc_server_remove_all_subscribers(handle);
    EXPECT_TRUE(is_closed(fd));
    EXPECT_FALSE(is_closed(other_fd));
    EXPECT_EQ(subscribers("news"), (fds{54321, other}));
    EXPECT_EQ(subscribers("more"), fds{});
}

TEST_F(ipc_test, a_crowd_gets_its_answers_past_a_peer_that_does_not_read)
{
    server();
    ipc_register_callback("question", [](int fd, const char *, json_object *data) {
        json_object *answer = json_object_new_object();
        json_object_object_add(answer, "answer", json_object_get(data));
        EXPECT_EQ(ipc_write(fd, answer), 0);
        json_object_put(answer);
    });
    const auto round = [this] {
        const auto [deaf_fd, deaf] = known_peer();
        const object large{'"' + std::string(500'000, 'x') + '"'};
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(ipc_write(deaf, large), 0);
        std::vector<int> crowd(500);
        std::generate(crowd.begin(), crowd.end(), [this] { return peer(); });
        std::mt19937 random{5};
        std::vector<std::string> want(crowd.size());
        for (std::size_t question = 0; question < 20; ++question) {
            for (std::size_t i = 0; i < crowd.size(); ++i) {
                std::string garbage(random() % 40, '\0');
                std::generate(garbage.begin(), garbage.end(), [&] { return static_cast<char>(random()); });
                const std::string data = std::to_string(i * 100 + question);
                send(crowd[i], frame(garbage) + message("question", data));
                want[i] += frame("{ \"answer\": " + data + " }" + '\0');
            }
            run();
        }
        for (std::size_t i = 0; i < crowd.size(); ++i)
            EXPECT_EQ(receive(crowd[i], want[i].size()), want[i]);
        EXPECT_EQ(receive(deaf_fd, 100 * 500'007).size(), 100 * 500'007U);
        for (const int fd : std::exchange(raw, {})) {
            close(fd);
            run();
            log(); // which holds some hundred records only
        }
        heard.clear();
    };
    round(); // what grows with the highest descriptor has its size from here on
    const auto [memory, descriptors] = std::pair{__sanitizer_get_current_allocated_bytes(), open_descriptors()};
    round();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_LE(__sanitizer_get_current_allocated_bytes(),
              memory + 16'000); // 32 bytes for each connection, 2 for each message
}

TEST_F(ipc_test, refused_memory_leaves_the_bus_working)
{
    static int arrived;
    const ipc_callback count = [](int, const char *type, json_object *) { arrived += *type == 'n'; };
    ipc_server_new("test", base, count);
    const object news{R"({"type":"news","data":")" + std::string(5000, 'x') + "\"}"};
    bool refused = true;
    for (int n = 1; refused; ++n) {
        const int before = open_descriptors();
        arrived = 0;
        int fd, failed = 0;
        bool subscribed, kept;
        {
            const allocation_refusal refuse{n};
            fd = ipc_client_new("test", base, count);
            ipc_register_callback("news", count);
            ipc_register_callback("a name too long to be stored without an allocation", nullptr);
            subscribed = ipc_server_add_subscriber("news too long to be stored without an allocation", fd) == 0;
            kept = ipc_server_add_subscriber("news", fd) == 0;
            run();
            failed = ipc_server_write_to_subscribers("news", news);
            run();
            refused = refuse.happened();
        }
        EXPECT_TRUE(refused || (fd >= 0 && subscribed && kept && failed == 0 && arrived == 1)) << n;
        ipc_server_remove_all_subscribers(-1);
        ipc_deregister_all_callbacks(nullptr);
        ipc_close(fd);
        run();
        EXPECT_EQ(open_descriptors(), before) << n;
        log();
    }
}

} // namespace
