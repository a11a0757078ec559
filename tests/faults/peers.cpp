// peers [FRAMES]: a server among hostile peers. FRAMES hostile frames (a million) and a tenth as many valid ones come
// over 50 connections, and every valid one has to arrive once, in order and unchanged. Then the answering time of 449
// clients is measured with and without 50 that stall within a frame and one that reads none of 50 MB.
#include "device.hpp"
#include "ipc.h"
#include "logging.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <csignal>
#include <event2/event.h>
#include <json-c/json.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int connections = 50;    // of the frames; every other one is ended by what it sends
constexpr int quick_clients = 449; // of the answering time
constexpr int stalled_clients = 50;
constexpr int rounds = 20;      // of measuring, by turns with and without the stalled
constexpr int questions = 1000; // in each round
constexpr int attempts = 3;     // where the machine has something else to do meanwhile
constexpr char socket_path[] = "/var/run/vandrel/ipc_peers.sock";

struct counts {
    long valid[connections]; // arrived on each
    long wrong;
} * seen;

std::string frame(std::string_view body)
{
    const uint32_t size = htonl(static_cast<uint32_t>(body.size()));
    return std::string(reinterpret_cast<const char *>(&size), sizeof size).append(body);
}

/// A valid message, with what is easily spoilt by the one before it: an escape, a surrogate pair, a number, nesting.
std::string valid_frame(int connection, long number)
{
    char body[200];
    const int length = std::snprintf(
        body, sizeof body,
        R"({"type": "v", "data": {"c": %d, "n": %ld, "t": "vc-\u0041lice \ud83d\ude00", "l": [[1], {"a": 2.5}]}})",
        connection, number);
    return frame({body, static_cast<std::size_t>(length) + 1});
}

constexpr std::string_view hostile_bodies[] = {R"({"a":{}/*)",
                                               "[[]/*",
                                               R"("\ud83d\u)",
                                               R"({"type":"v","data":{"c":)",
                                               R"({"type":"v")",
                                               R"({"type":5})",
                                               "",
                                               "\0",
                                               "null",
                                               "[",
                                               "{",
                                               "\"",
                                               "/*",
                                               "//",
                                               R"({"type":"v\u0000","data":1})",
                                               R"({"type":null})",
                                               "nan",
                                               "-Infinity",
                                               "1e999",
                                               R"({"type":"v","type":5})",
                                               "'",
                                               "{'type':'v','data':{}}",
                                               R"([[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[)",
                                               R"({"data":{"c":0,"n":0}})",
                                               "\xff\xfe\xfd",
                                               R"("\u)",
                                               R"("\ud83d)",
                                               R"({"type":"v","data":[{"a":"\ud83d\u)"};

std::string hostile_frame(std::mt19937 &random)
{
    std::string body{hostile_bodies[random() % std::size(hostile_bodies)]};
    for (unsigned i = random() % 4; i > 0 && !body.empty(); --i)
        body[random() % body.size()] = static_cast<char>(random());
    if (body.find("\"n\"") != body.npos) // it could be another's valid one
        body.clear();
    return frame(body);
}

/// Ends its connection: a length beyond the limit, or the middle of a frame.
std::string ending_frame(std::mt19937 &random)
{
    return random() % 2 == 0 ? std::string("\xff\xff\xff\xff{}", 6) : valid_frame(0, 0).substr(0, 10);
}

int connect_to_server()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socket_path);
    while (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        usleep(1000);
    return fd;
}

[[noreturn]] void send_frames(long hostile)
{
    std::mt19937 random{1};
    std::signal(SIGPIPE, SIG_IGN);
    int fds[connections];
    long numbers[connections] = {};
    for (int &fd : fds)
        fd = connect_to_server();
    const auto write_whole = [](int fd, const std::string &bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            const ssize_t size = write(fd, bytes.data() + at, bytes.size() - at);
            if (size <= 0)
                return;
            at += static_cast<std::size_t>(size);
        }
    };
    for (long sent = 0; sent < hostile;) {
        const int c = static_cast<int>(random() % connections);
        if (c % 2 == 0) { // both kinds on one connection
            std::string bytes;
            for (int i = 0; i < 25; ++i, ++sent)
                bytes += hostile_frame(random);
            for (int i = 0; i < 5; ++i)
                bytes += valid_frame(c, numbers[c]++) + hostile_frame(random);
            sent += 5;
            write_whole(fds[c], bytes);
        } else {
            write_whole(fds[c], hostile_frame(random) + ending_frame(random));
            sent += 2;
            close(fds[c]);
            fds[c] = connect_to_server();
        }
    }
    const std::string end = frame({"{\"type\": \"end\"}", 16});
    for (int c = 0; c < connections; c += 2)
        write_whole(fds[c], end);
    char byte;
    for (int c = 0; c < connections; c += 2)
        static_cast<void>(read(fds[c], &byte, 1)); // until the server has all and closes
    std::printf("%ld hostile frames, %ld valid ones sent\n", hostile, [&] {
        long all = 0;
        for (const long n : numbers)
            all += n;
        return all;
    }());
    std::fflush(stdout);
    long all = 0;
    for (int c = 0; c < connections; ++c) {
        if (seen->valid[c] != numbers[c])
            ++seen->wrong;
        all += seen->valid[c];
    }
    std::printf("%ld valid ones arrived in order and unchanged, %ld wrong\n", all, seen->wrong);
    std::fflush(stdout);
    _exit(seen->wrong == 0 && all > 0 ? 0 : 1);
}

void take(int fd, const char *type, json_object *data)
{
    if (std::strcmp(type, "ping") == 0) {
        json_object *answer = json_tokener_parse(R"({"type": "pong"})");
        ipc_write(fd, answer);
        json_object_put(answer);
    } else if (std::strcmp(type, "flood") == 0) {
        json_object *block = json_object_new_object();
        json_object_object_add(block, "type", json_object_new_string("block"));
        json_object_object_add(block, "data", json_object_new_string(std::string(999'000, 'x').c_str()));
        for (int i = 0; i < 50; ++i)
            ipc_write(fd, block);
        json_object_put(block);
    } else if (std::strcmp(type, "end") == 0) {
        ipc_close(fd);
    } else if (std::strcmp(type, "v") == 0 && json_object_object_get(data, "n")) {
        const int c = json_object_get_int(json_object_object_get(data, "c"));
        const bool right =
            c >= 0 && c < connections && json_object_get_int64(json_object_object_get(data, "n")) == seen->valid[c] &&
            std::strcmp(json_object_get_string(json_object_object_get(data, "t")), "vc-Alice \xf0\x9f\x98\x80") == 0 &&
            json_object_array_length(json_object_object_get(data, "l")) == 2;
        if (right)
            ++seen->valid[c];
        else
            ++seen->wrong;
    }
}

double ask(int fd)
{
    static const std::string ping = frame({"{\"type\": \"ping\"}", 17});
    char answer[64];
    const auto started = std::chrono::steady_clock::now();
    if (write(fd, ping.data(), ping.size()) < 0 || read(fd, answer, sizeof answer) <= 0)
        _exit(1);
    return std::chrono::duration<double, std::micro>{std::chrono::steady_clock::now() - started}.count();
}

double late_answer(std::vector<double> &times) // the 99th percentile
{
    const auto at = times.begin() + static_cast<std::ptrdiff_t>(times.size() * 99 / 100);
    std::nth_element(times.begin(), at, times.end());
    return *at;
}

/// Clients that stall within a frame, and one that is sent 50 MB and reads none of it.
std::vector<int> connect_the_slow()
{
    std::vector<int> slow;
    for (int i = 0; i < stalled_clients; ++i) {
        slow.push_back(connect_to_server());
        static_cast<void>(write(slow.back(), "\0\0\1\0{", 5));
    }
    slow.push_back(connect_to_server());
    const std::string flood = frame({"{\"type\": \"flood\"}", 18});
    static_cast<void>(write(slow.back(), flood.data(), flood.size()));
    return slow;
}

/// How many times longer the quick clients wait with slow ones beside them.
double slowing(const std::vector<int> &quick)
{
    std::vector<double> times[2]; // without and with the slow
    for (int round = 0; round < rounds; ++round) {
        std::vector<int> slow;
        if (round % 2 == 1)
            slow = connect_the_slow();
        ask(quick[0]); // is answered behind the flood
        for (int i = 0; i < questions; ++i)
            times[round % 2].push_back(ask(quick[static_cast<std::size_t>(i) % quick.size()]));
        for (const int fd : slow)
            close(fd);
        ask(quick[0]);
    }
    return late_answer(times[1]) / late_answer(times[0]);
}

[[noreturn]] void measure_answers()
{
    std::vector<int> quick(quick_clients);
    for (int &fd : quick)
        fd = connect_to_server();
    double times = 0;
    for (int attempt = 0; attempt < attempts && (times == 0 || times > 2); ++attempt) {
        times = slowing(quick);
        std::printf("99th percentile of %d clients' answers with slow ones: %.2f times that without\n", quick_clients,
                    times);
        std::fflush(stdout);
    }
    _exit(times <= 2 ? 0 : 1);
}

/// Serves until the child has ended; gives its status.
int serve(pid_t child, event_base *base)
{
    int status = 0;
    const timeval turn{0, 20'000};
    while (waitpid(child, &status, WNOHANG) == 0) {
        event_base_loopexit(base, &turn);
        event_base_dispatch(base);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

} // namespace

int main(int argc, char **argv)
{
    const long hostile = argc > 1 ? std::atol(argv[1]) : 1'000'000;
    enter_device();
    logging_init("peers", 0);
    seen =
        static_cast<counts *>(mmap(nullptr, sizeof *seen, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    event_base *base = event_base_new();
    if (ipc_server_new("peers", base, take) < 0)
        return 1;
    int failed = 0;
    for (const bool frames : {true, false}) {
        const pid_t child = fork();
        if (child == 0)
            frames ? send_frames(hostile) : measure_answers();
        failed += serve(child, base) != 0;
    }
    std::printf("peers: %d wrong\n", failed);
    return failed;
}
