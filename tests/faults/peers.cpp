// peers [FRAMES]: a server among hostile peers. FRAMES hostile frames (a million) and a tenth as many valid ones come
// over 50 connections, and every valid one has to arrive once, in order and unchanged. Then the answering time of 449
// clients is measured with and without 50 that stall within a frame and one that reads none of 50 MB.
#include "device.hpp"
#include "ipc.h"
#include "logging.h"
#include "processes.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <vector>

#include <event2/event.h>
#include <json-c/json.h>

namespace {

constexpr int connections = 50;    // of the frames; every other one is ended by what it sends
constexpr int quick_clients = 449; // of the answering time
constexpr int stalled_clients = 50;
constexpr int rounds = 20;      // of measuring, by turns with and without the stalled
constexpr int questions = 1000; // in each round
constexpr int attempts = 3;     // where the machine has something else to do meanwhile

struct counts {
    long valid[connections]; // arrived on each
    long wrong;
};
counts &seen = shared_with_children<counts>();

std::string message(const std::string &text)
{
    return frame({text.c_str(), text.size() + 1});
}

/// A valid message, with what is easily spoilt by the one before it: an escape, a surrogate pair, a number, nesting.
std::string valid_frame(int connection, long number)
{
    return message(R"({"type": "v", "data": {"c": )" + std::to_string(connection) + R"(, "n": )" +
                   std::to_string(number) + R"(, "t": "vc-\u0041lice \ud83d\ude00", "l": [[1], {"a": 2.5}]}})");
}

/// A body with up to three bytes changed.
std::string hostile_frame(std::mt19937 &random)
{
    static const std::vector<std::string> bodies = [] {
        std::istringstream words{
            R"x({"a":{}/* [[]/* "\ud83d\u {"type":"v","data":{"c": {"type":"v" {"type":5} null [ { "
            /* // {"type":"v\u0000","data":1} {"type":null} nan -Infinity 1e999 {"type":"v","type":5} ' "\u "\ud83d
            {'type':'v','data':{}} [[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[ {"data":{"c":0}} {"type":"v","data":[{"a":"\ud83d\u)x"};
        std::vector<std::string> all{"", std::string(1, '\0'), "\xff\xfe\xfd"};
        all.insert(all.end(), std::istream_iterator<std::string>{words}, {});
        return all;
    }();
    std::string body = bodies[random() % bodies.size()];
    for (unsigned i = random() % 4; i > 0 && !body.empty(); --i)
        body[random() % body.size()] = static_cast<char>(random());
    return frame(body.find("\"n\"") == body.npos ? body : ""); // which could be another's valid one
}

/// As much of it as the server takes.
void write_whole(int fd, std::string_view bytes)
{
    for (ssize_t size; !bytes.empty() && (size = write(fd, bytes.data(), bytes.size())) > 0;)
        bytes.remove_prefix(static_cast<std::size_t>(size));
}

int send_frames(long hostile)
{
    std::mt19937 random{1};
    // What ends its connection: a length beyond the limit, and the middle of a frame.
    const std::string endings[] = {{"\xff\xff\xff\xff{}", 6}, valid_frame(0, 0).substr(0, 10)};
    long numbers[connections] = {};
    int fds[connections];
    for (int &fd : fds)
        fd = connect_to("peers");
    for (long sent = 0; sent < hostile;) {
        const int c = static_cast<int>(random() % connections);
        std::string bytes = hostile_frame(random);
        if (c % 2 == 0) { // both kinds on one connection
            for (int i = 1; i < 25; ++i)
                bytes += hostile_frame(random);
            for (int i = 0; i < 5; ++i)
                bytes += valid_frame(c, numbers[c]++) + hostile_frame(random);
            const std::size_t cut = random() % bytes.size(); // within a frame, mostly
            write_whole(fds[c], bytes.substr(0, cut));
            usleep(10); // so that it arrives by itself
            write_whole(fds[c], bytes.substr(cut));
            sent += 30;
        } else {
            write_whole(fds[c], bytes + endings[random() % 2]);
            sent += 2;
            close(fds[c]);
            fds[c] = connect_to("peers");
        }
    }
    char byte;
    for (int c = 0; c < connections; c += 2) {
        write_whole(fds[c], message(R"({"type": "end"})"));
        static_cast<void>(read(fds[c], &byte, 1)); // until the server has all and closes
    }
    for (int c = 0; c < connections; ++c)
        seen.wrong += seen.valid[c] != numbers[c];
    const long all = std::reduce(std::begin(seen.valid), std::end(seen.valid));
    std::printf("%ld hostile frames, %ld valid ones sent, %ld arrived in order and unchanged, %ld wrong\n", hostile,
                std::reduce(std::begin(numbers), std::end(numbers)), all, seen.wrong);
    return seen.wrong == 0 && all > 0 ? 0 : 1;
}

void reply(int fd, const std::string &text, int times)
{
    const std::unique_ptr<json_object, decltype(&json_object_put)> answer{json_tokener_parse(text.c_str()),
                                                                          json_object_put};
    for (int i = 0; i < times; ++i)
        ipc_write(fd, answer.get());
}

/// Counts a valid message as right if it is the connection's next.
void count(json_object *data)
{
    const auto part = [&](const char *key) { return json_object_object_get(data, key); };
    const int c = json_object_get_int(part("c"));
    const bool is_next = c >= 0 && c < connections && json_object_get_int64(part("n")) == seen.valid[c];
    const bool is_unchanged = std::strcmp(json_object_get_string(part("t")), "vc-Alice \xf0\x9f\x98\x80") == 0 &&
                              json_object_array_length(part("l")) == 2;
    ++(is_next && is_unchanged ? seen.valid[c] : seen.wrong);
}

void take(int fd, const char *type, json_object *data)
{
    const std::string_view kind = type;
    if (kind == "ping")
        reply(fd, R"({"type": "pong"})", 1);
    else if (kind == "flood")
        reply(fd, R"({"type": "block", "data": ")" + std::string(999'000, 'x') + "\"}", 50);
    else if (kind == "end")
        ipc_close(fd);
    else if (kind == "v" && json_object_object_get(data, "n"))
        count(data);
}

double ask(int fd)
{
    static const std::string ping = message(R"({"type": "ping"})");
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
    std::vector<int> slow(stalled_clients + 1);
    for (int &fd : slow) {
        fd = connect_to("peers");
        write_whole(fd, &fd != &slow.back() ? std::string{"\0\0\1\0{", 5} : message(R"({"type": "flood"})"));
    }
    return slow;
}

/// How many times longer the quick clients wait with slow ones beside them.
double slowing(const std::vector<int> &quick)
{
    std::vector<double> times[2]; // without and with the slow
    for (int round = 0; round < rounds; ++round) {
        const std::vector<int> slow = round % 2 == 1 ? connect_the_slow() : std::vector<int>{};
        ask(quick[0]); // is answered behind the flood
        for (int i = 0; i < questions; ++i)
            times[round % 2].push_back(ask(quick[static_cast<std::size_t>(i) % quick.size()]));
        for (const int fd : slow)
            close(fd);
        ask(quick[0]);
    }
    return late_answer(times[1]) / late_answer(times[0]);
}

int measure_answers()
{
    std::vector<int> quick(quick_clients);
    for (int &fd : quick)
        fd = connect_to("peers");
    for (int attempt = 0; attempt < attempts; ++attempt) {
        const double times = slowing(quick);
        std::printf("99th percentile of %d clients' answers with slow ones: %.2f times that without\n", quick_clients,
                    times);
        if (times <= 2)
            return 0;
    }
    return 1;
}

[[noreturn]] int serve()
{
    logging_init("peers", 0);
    event_base *base = event_base_new();
    ipc_server_new("peers", base, take);
    for (;;)
        event_base_dispatch(base);
}

} // namespace

int main(int argc, char **argv)
{
    enter_device();
    std::signal(SIGPIPE, SIG_IGN);
    const pid_t server = start(serve);
    const int failed = send_frames(argc > 1 ? std::atol(argv[1]) : 1'000'000) + measure_answers();
    end(server);
    std::printf("peers: %d wrong\n", failed);
    return failed;
}
