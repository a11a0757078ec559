// What a message costs on the bus: CPU time of all processes together, on one CPU, as a ratio to the floor: plain epoll
// sockets that send the same bytes and do the same work with json-c. The floor keeps its tokener from one message to
// the next, as the bus does; it trusts its peer, looks no handler up, and simply waits where a socket is full. Both
// sides are measured in turns in one run, the quickest of each counts. Then the same of 500 connections beside one, and
// the heap of an idle connection. An argument chooses the subjects whose title contains it.
#include "device.hpp"
#include "ipc.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <endian.h>
#include <event2/event.h>
#include <json-c/json.h>
#include <malloc.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char name[] = "bench";
constexpr char socket_path[] = "/var/run/vandrel/ipc_bench.sock";
constexpr int repeats = 21;

enum class counted { both, server }; // whose CPU time

/// A client process with some connections and a server process play rounds. The client begins one by sending messages,
/// on its connections in turn, or the server by sending the same to each connection; when all of it has arrived, the
/// other side answers with one message.
struct subject {
    const char *title;
    counted whose;
    bool client_sends;
    int connections;
    int messages; // in a round
    std::size_t data_bytes;
    int rounds;
    double allowed;
};
constexpr subject on_one{"round trip, 100 bytes", counted::both, true, 1, 1, 60, 10'000, 1.5};
constexpr subject on_500{"round trip, 100 bytes, 500 connections", counted::both, true, 500, 1, 60, 20'000, 1.5};
constexpr std::array subjects{
    on_one,
    subject{"round trip, 10 kB", counted::both, true, 1, 1, 10'000, 4'000, 1.1},
    on_500,
    subject{"one way, 100 bytes, 1 connection", counted::both, true, 1, 50, 60, 4'000, 1.2},
    subject{"one way, 100 bytes, 50 connections", counted::both, true, 50, 50, 60, 800, 1.5},
    subject{"publish 100 bytes to 50", counted::both, false, 50, 50, 60, 800, 1.5},
    subject{"publish 10 kB to 50", counted::both, false, 50, 50, 10'000, 200, 1.5},
    subject{"publish 20 times 10 kB to 50", counted::both, false, 50, 1000, 10'000, 20, 1.3},
    subject{"the same, the publisher alone", counted::server, false, 50, 1000, 10'000, 20, 1.3},
    subject{"publish 60 times 10 kB to 50", counted::both, false, 50, 3000, 10'000, 8, 1.5},
};
constexpr double allowed_of_500 = 1.5; // times what a round trip on one connection costs
constexpr int idle_connections = 500;
constexpr double allowed_bytes = 2048; // of an idle connection

subject now;      // what is being measured
std::string data; // of the messages

/// What this process does in a round.
struct {
    bool is_server = false;
    int arrived = 0;
    int rounds_left = 0;
    std::size_t sent = 0;
    std::vector<int> connections;
} self;

json_object *new_message(const char *type)
{
    json_object *message = json_object_new_object();
    json_object_object_add(message, "type", json_object_new_string(type));
    json_object_object_add(message, "data", json_object_new_string_len(data.data(), static_cast<int>(data.size())));
    return message;
}

int next_connection()
{
    return self.connections[self.sent++ % self.connections.size()];
}

int expected_in_a_round()
{
    return self.is_server == now.client_sends ? now.messages : 1;
}

/// Counts a message; true when it is this process's turn to send.
bool is_turn()
{
    if (++self.arrived < expected_in_a_round())
        return false;
    self.arrived = 0;
    return true;
}

// ---- the bus ----

event_base *base;

void bus_send_messages()
{
    if (now.client_sends) {
        for (int i = 0; i < now.messages; ++i) {
            json_object *message = new_message("question");
            ipc_write(next_connection(), message);
            json_object_put(message);
        }
        return;
    }
    for (int i = 0; i < now.messages; i += now.connections) {
        json_object *message = new_message("question");
        ipc_server_write_to_subscribers("question", message);
        json_object_put(message);
    }
}

void bus_take_turn(int fd)
{
    if (self.is_server == now.client_sends) {
        json_object *message = new_message("answer");
        ipc_write(fd, message);
        json_object_put(message);
    } else if (--self.rounds_left > 0) {
        bus_send_messages();
    } else {
        event_base_loopbreak(base);
    }
}

void bus_handle(int fd, const char *type, json_object *)
{
    if (std::strcmp(type, "error") == 0) {
        event_base_loopbreak(base);
    } else if (std::strcmp(type, "hello") == 0) {
        if (!now.client_sends)
            ipc_server_add_subscriber("question", fd);
        self.connections.push_back(fd);
        if (!now.client_sends && static_cast<int>(self.connections.size()) == now.connections)
            bus_send_messages();
    } else if (is_turn()) {
        bus_take_turn(fd);
    }
}

void bus_server(int ready)
{
    base = event_base_new();
    ipc_server_new(name, base, bus_handle);
    close(ready);
    event_base_dispatch(base);
}

void bus_client()
{
    base = event_base_new();
    for (int i = 0; i < now.connections; ++i) {
        self.connections.push_back(ipc_client_new(name, base, bus_handle));
        json_object *message = new_message("hello");
        ipc_write(self.connections.back(), message);
        json_object_put(message);
    }
    if (now.client_sends)
        bus_send_messages();
    event_base_dispatch(base);
}

// ---- the floor ----

struct raw_connection {
    int fd;
    std::string input, output;
};
std::vector<raw_connection> peers; // by descriptor
int poller;
bool is_over;

void add_peer(int fd)
{
    if (peers.size() <= static_cast<std::size_t>(fd))
        peers.resize(static_cast<std::size_t>(fd) + 1);
    peers[static_cast<std::size_t>(fd)].fd = fd;
    epoll_event event{EPOLLIN, {}};
    event.data.fd = fd;
    epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
}

void append(std::string &output, std::string_view text)
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(text.size() + 1));
    output.append(reinterpret_cast<const char *>(&header), sizeof header).append(text).push_back('\0');
}

void append_message(int fd, const char *type)
{
    json_object *message = new_message(type);
    append(peers[static_cast<std::size_t>(fd)].output, json_object_to_json_string(message));
    json_object_put(message);
}

void flush(int fd) // a round always fits into the socket
{
    std::string &output = peers[static_cast<std::size_t>(fd)].output;
    if (output.empty())
        return;
    if (write(fd, output.data(), output.size()) != static_cast<ssize_t>(output.size()))
        std::abort();
    output.clear();
}

void raw_send_messages()
{
    if (now.client_sends) {
        for (int i = 0; i < now.messages; ++i)
            append_message(next_connection(), "question");
        for (const int fd : self.connections)
            flush(fd);
        return;
    }
    std::string frames;
    for (int i = 0; i < now.messages; i += now.connections) {
        json_object *message = new_message("question");
        append(frames, json_object_to_json_string(message));
        json_object_put(message);
    }
    for (const int fd : self.connections) {
        if (write(fd, frames.data(), frames.size()) != static_cast<ssize_t>(frames.size()))
            std::abort();
    }
}

void raw_take_turn(int fd)
{
    if (self.is_server == now.client_sends) {
        append_message(fd, "answer");
        flush(fd);
    } else if (--self.rounds_left > 0) {
        raw_send_messages();
    } else {
        is_over = true;
    }
}

void raw_handle(int fd, const char *quoted_type)
{
    if (std::strcmp(quoted_type, "\"hello\"") == 0) {
        self.connections.push_back(fd);
        if (!now.client_sends && static_cast<int>(self.connections.size()) == now.connections)
            raw_send_messages();
    } else if (is_turn()) {
        raw_take_turn(fd);
    }
}

void raw_read(int fd)
{
    std::string &input = peers[static_cast<std::size_t>(fd)].input;
    static json_tokener *const tokener = json_tokener_new();
    static char buffer[1 << 16];
    const ssize_t size = read(fd, buffer, sizeof buffer);
    if (size <= 0) {
        is_over = true;
        return;
    }
    input.append(buffer, static_cast<std::size_t>(size));
    std::size_t begin = 0;
    for (std::uint32_t header; input.size() - begin >= sizeof header;) {
        std::memcpy(&header, &input[begin], sizeof header);
        const std::size_t frame_bytes = sizeof header + be32toh(header);
        if (input.size() - begin < frame_bytes)
            break;
        json_object *message =
            json_tokener_parse_ex(tokener, &input[begin + sizeof header], static_cast<int>(be32toh(header) - 1));
        begin += frame_bytes;
        json_object *type = nullptr;
        json_object *payload = nullptr;
        json_object_object_get_ex(message, "type", &type);
        json_object_object_get_ex(message, "data", &payload);
        raw_handle(fd, json_object_to_json_string(type));
        json_object_put(message);
    }
    input.erase(0, begin);
}

void raw_loop(int listener)
{
    std::array<epoll_event, 64> events;
    while (!is_over) {
        const int count = epoll_wait(poller, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == listener)
                add_peer(accept(listener, nullptr, nullptr));
            else
                raw_read(fd);
        }
    }
}

sockaddr_un address()
{
    sockaddr_un result{};
    result.sun_family = AF_UNIX;
    std::snprintf(result.sun_path, sizeof result.sun_path, "%s", socket_path);
    return result;
}

void raw_server(int ready)
{
    poller = epoll_create1(0);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un at = address();
    unlink(socket_path);
    if (bind(listener, reinterpret_cast<const sockaddr *>(&at), sizeof at) < 0 || listen(listener, 128) < 0)
        std::abort();
    add_peer(listener);
    close(ready);
    raw_loop(listener);
}

void raw_client()
{
    poller = epoll_create1(0);
    const sockaddr_un at = address();
    for (int i = 0; i < now.connections; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at) < 0)
            std::abort();
        add_peer(fd);
        self.connections.push_back(fd);
        append_message(fd, "hello");
        flush(fd);
    }
    if (now.client_sends)
        raw_send_messages();
    raw_loop(-1);
}

// ---- measuring ----

double cpu_microseconds(const rusage &used)
{
    const auto of = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return of(used.ru_utime) + of(used.ru_stime);
}

pid_t start(bool is_server, void (*run)(int), int ready)
{
    const pid_t pid = fork();
    if (pid == 0) {
        if (!std::freopen("/dev/null", "w", stderr)) // where the bus tells that the other process has ended
            std::abort();
        self = {is_server, 0, now.rounds, 0, {}};
        run(ready);
        _exit(0);
    }
    return pid;
}

/// A way of playing rounds.
struct side {
    void (*server)(int);
    void (*client)();
};
constexpr side bus_side{bus_server, bus_client};
constexpr side floor_side{raw_server, raw_client};

/// Microseconds of CPU per message.
double measure(const subject &what, const side &how)
{
    static void (*run_client)();
    run_client = how.client;
    now = what;
    data.assign(what.data_bytes, 'x');
    int ready[2];
    if (pipe(ready) != 0)
        std::abort();
    const std::array processes{start(true, how.server, ready[1]), [&] {
                                   close(ready[1]);
                                   char end;
                                   if (read(ready[0], &end, 1) != 0) // until the server listens and closes its end
                                       std::abort();
                                   return start(
                                       false, [](int) { run_client(); }, -1);
                               }()};
    close(ready[0]);
    double used = 0;
    for (const pid_t pid : processes) {
        int status = 0;
        rusage usage{};
        if (wait4(pid, &status, 0, &usage) != pid || status != 0)
            std::abort();
        if (what.whose == counted::both || pid == processes.front())
            used += cpu_microseconds(usage);
    }
    return used / what.rounds / what.messages;
}

/// A line of the table: one cost beside another that is measured in turns with it.
template <typename First, typename Second> void compare(const char *title, double allowed, First first, Second second)
{
    double least = 1e9;
    double least_of_second = 1e9;
    for (int i = 0; i < repeats; ++i) {
        least = std::min(least, first());
        least_of_second = std::min(least_of_second, second());
    }
    std::printf("%-38s %7.2f us %7.2f us %8.2f %8.2f\n", title, least, least_of_second, least / least_of_second,
                allowed);
}

// ---- memory ----

int plain_client()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un at = address();
    if (connect(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at) < 0)
        std::abort();
    return fd;
}

/// Serves one client after the other until each has its answer.
void serve_clients(int count)
{
    constexpr std::string_view question{"\0\0\0\x0f{\"type\":\"ask\"}\0", 19};
    for (int i = 0; i < count; ++i) {
        const int fd = plain_client();
        if (write(fd, question.data(), question.size()) < 0)
            std::abort();
        char part;
        while (recv(fd, &part, 1, MSG_DONTWAIT) != 1)
            event_base_loop(base, EVLOOP_ONCE);
    }
}

/// Bytes of heap for each connection that has been talked on and rests now.
double bytes_of_idle_connection()
{
    base = event_base_new();
    ipc_server_new(name, base, [](int fd, const char *type, json_object *) {
        json_object *message = new_message(type);
        ipc_write(fd, message);
        json_object_put(message);
    });
    serve_clients(1); // what is made once
    const std::size_t before = mallinfo2().uordblks;
    serve_clients(idle_connections);
    return static_cast<double>(mallinfo2().uordblks - before) / idle_connections;
}

} // namespace

int main(int argc, char *argv[])
{
    const auto is_chosen = [&](const char *title) { return argc < 2 || std::strstr(title, argv[1]); };
    enter_device();
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);

    std::printf("%-38s %10s %10s %8s %8s\n", "CPU per message, both processes", "bus", "floor", "ratio", "allowed");
    for (const subject &each : subjects) {
        if (is_chosen(each.title))
            compare(
                each.title, each.allowed, [&] { return measure(each, bus_side); },
                [&] { return measure(each, floor_side); });
    }
    constexpr const char *crowd = "bus, 500 connections beside 1";
    if (is_chosen(crowd))
        compare(
            crowd, allowed_of_500, [] { return measure(on_500, bus_side); }, [] { return measure(on_one, bus_side); });
    constexpr const char *idle = "heap of an idle connection";
    if (is_chosen(idle))
        std::printf("%-38s %7.0f bytes %26.0f\n", idle, bytes_of_idle_connection(), allowed_bytes);
}
