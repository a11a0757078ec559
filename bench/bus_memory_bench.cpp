// What a message takes: the longest bodies of each kind that the bus accepts. "Heap" is what malloc has of the system
// when the handler runs, "after" what is more resident than before, once the next message has come. Ends with 1 when a
// figure is above its limit, or where a kind that must never be refused is.
#include "device.hpp"
#include "ipc.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <endian.h>
#include <event2/event.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::size_t longest_text = 990'000;
constexpr double bytes_of_mib = 1 << 20;
constexpr double allowed_mib = 64, allowed_left_mib = 2;

struct subject {
    const char *title;
    std::string unit;
    std::string open = R"({"type":"t","data":[)";
    std::string close = "]}";
    bool is_never_refused = false;
};

std::string many(const char *text, int count)
{
    std::string all;
    for (int i = 0; i < count; ++i)
        all += text;
    all.back() = ']';
    return "[" + all + ",";
}

const subject subjects[] = {
    {"one text", "x", R"({"type":"t","data":")", "\"}", true},
    {"numbers", "1,", R"({"type":"t","data":[)", "]}", true},
    {"fractions", "1.5,", R"({"type":"t","data":[)", "]}", true},
    {"short texts", "\"\",", R"({"type":"t","data":[)", "]}", true},
    {"pairs of key and value", R"("#":"value",)", R"({"type":"t","data":{)", "}}", true},
    {"records of five members", R"({"a":1,"b":"two","c":3.5,"d":true,"e":"#"},)", R"({"type":"t","data":[)", "]}",
     true},
    {"short records of five members", R"({"a":1,"b":2,"c":3,"d":4,"e":5},)", R"({"type":"t","data":[)", "]}", true},
    {"empty objects", "{},"},
    {"objects of one member", R"({"":0},)"},
    {"objects of eleven members", R"({"a":0,"b":0,"c":0,"d":0,"e":0,"f":0,"g":0,"h":0,"i":0,"j":0,"k":0},)"},
    {"objects of twelve members", R"({"a":0,"b":0,"c":0,"d":0,"e":0,"f":0,"g":0,"h":0,"i":0,"j":0,"k":0,"l":0},)"},
    {"objects in objects", R"({"":{"":{"":{"":{}}}}},)"},
    {"short keys", "\"#\":0,", R"({"type":"t","data":{)", "}}"},
    {"keys of objects", "\"#\":{},", R"({"type":"t","data":{)", "}}"},
    {"keys of lists", "\"#\":[],", R"({"type":"t","data":{)", "}}"},
    {"empty lists", "[],"},
    {"lists of one number", "[1],"},
    {"lists of one text", "[\"\"],"},
    {"lists of one list", "[[]],"},
    {"lists in lists", "[[[[[[]]]]]],"},
    {"lists in lists, deep", "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[]]]]]]]]]]]]]]]]]]]]]]]]]]]]],"},
    {"lists in lists, with numbers", "[[[[[[1],1],1],1],1],1],"},
    {"lists of 33 numbers", many("1,", 33)},
    {"lists and objects", "[{}],"},
};

event_base *base;
std::size_t taken; // when the last message was handled
bool is_over;

std::size_t heap_bytes()
{
    const auto now = mallinfo2();
    return now.arena + now.hblkhd;
}

double resident_mib()
{
    unsigned long all = 0, resident = 0;
    FILE *file = std::fopen("/proc/self/statm", "r");
    if (!file || std::fscanf(file, "%lu %lu", &all, &resident) != 2)
        std::abort();
    std::fclose(file);
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / bytes_of_mib;
}

void handle(int, const char *type, json_object *)
{
    if (*type == 't')
        taken = heap_bytes();
    is_over = *type == 'e';
}

std::string body_of(const subject &each, std::size_t units)
{
    std::string body = each.open;
    for (std::size_t i = 0; i < units; ++i) {
        for (const char c : each.unit)
            body += c == '#' ? std::to_string(i) : std::string(1, c);
    }
    if (body.back() == ',')
        body.pop_back();
    return body + each.close;
}

void send_frame(int fd, const std::string &body)
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(body.size() + 1));
    std::string frame(reinterpret_cast<const char *>(&header), sizeof header);
    frame.append(body).push_back('\0');
    for (std::string_view left = frame; !left.empty();) {
        const ssize_t sent = send(fd, left.data(), left.size(), 0);
        left.remove_prefix(sent > 0 ? static_cast<std::size_t>(sent) : 0);
        event_base_loop(base, EVLOOP_NONBLOCK);
    }
}

struct measured {
    double mib; // 0 where the message was refused
    double left_mib;
};

/// In a process of its own, since what is left of one message would serve the next.
measured measure(const subject &each, std::size_t units)
{
    int result[2];
    if (pipe(result) != 0)
        std::abort();
    if (fork() == 0) {
        base = event_base_new();
        if (!std::freopen("/dev/null", "w", stderr) || ipc_server_new("bench", base, handle) < 0)
            std::abort();
        const sockaddr_un address{AF_UNIX, "/var/run/vandrel/ipc_bench.sock"};
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            std::abort();
        const std::string body = body_of(each, units);
        send_frame(fd, R"({"type":"warm"})");
        malloc_trim(0);
        const std::size_t before = heap_bytes();
        const double resident_before = resident_mib();
        send_frame(fd, body);
        while (!is_over)
            send_frame(fd, R"({"type":"end"})");
        const measured all{taken == 0 ? 0 : static_cast<double>(taken - before) / bytes_of_mib,
                           resident_mib() - resident_before};
        _exit(write(result[1], &all, sizeof all) == sizeof all ? 0 : 1);
    }
    measured all{};
    close(result[1]);
    if (read(result[0], &all, sizeof all) != sizeof all)
        std::abort();
    close(result[0]);
    wait(nullptr);
    return all;
}

std::size_t longest_fit(const subject &each)
{
    std::size_t units = longest_text / each.unit.size();
    while (body_of(each, units).size() > longest_text)
        units -= units / 64 + 1;
    return units;
}

/// The most units that are accepted.
std::size_t most_accepted(const subject &each)
{
    std::size_t accepted = 0, refused = longest_fit(each) + 1;
    while (refused - accepted > refused / 256 + 1) {
        const std::size_t middle = accepted + (refused - accepted) / 2;
        (measure(each, middle).mib > 0 ? accepted : refused) = middle;
    }
    return accepted;
}

} // namespace

int main()
{
    enter_device();
    bool is_within = true;
    std::printf("%-32s %10s %10s %10s\n", "longest accepted body", "bytes", "heap, MiB", "after, MiB");
    for (const subject &each : subjects) {
        const std::size_t fit = longest_fit(each);
        const std::size_t units = measure(each, fit).mib > 0 ? fit : most_accepted(each);
        const measured all = measure(each, units);
        const bool is_good =
            all.mib < allowed_mib && all.left_mib <= allowed_left_mib && (units == fit || !each.is_never_refused);
        std::printf("%-32s %10zu %10.1f %10.1f%s%s\n", each.title, body_of(each, units).size(), all.mib, all.left_mib,
                    units == fit ? "" : "  longer ones are refused", is_good ? "" : "  ABOVE ITS LIMIT");
        is_within = is_within && is_good;
    }
    return is_within ? 0 : 1;
}
