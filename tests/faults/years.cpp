// years [SECONDS]: what a daemon does in years, as often as it does it, or each kind for at most SECONDS. In the last
// tenth the process may hold no more memory and no more descriptors than in the second tenth.
#include "device.hpp"
#include "files.hpp"
#include "ipc.h"
#include "logging.h"
#include "processes.hpp"
#include "uciconfig.h"
#include "zone_generator.hpp"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <event2/event.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using steady = std::chrono::steady_clock;

constexpr double most_growth = 1.01;

double limit; // seconds for one kind of work; 0: none
int failures;

void check(bool right, const char *what)
{
    if (!right && ++failures < 10)
        std::printf("WRONG  %s\n", what);
}

long pages_held()
{
    long all = 0, resident = 0;
    check(static_cast<bool>(std::ifstream{"/proc/self/statm"} >> all >> resident), "statm");
    return resident;
}

/// Does one kind of work in ten parts and compares the second with the last. A part does all its work, or ends in time.
void repeat(const char *name, long count, void (*work)(long number))
{
    const auto started = steady::now();
    long pages = 0, done = 0;
    int descriptors = 0;
    for (int tenth = 1; tenth <= 10; ++tenth) {
        const auto until = started + std::chrono::duration<double>{limit * tenth / 10};
        for (long i = 0; i < count / 10 && (limit == 0 || (i & 15) != 0 || steady::now() < until); ++i)
            work(done++);
        if (tenth == 2) {
            pages = pages_held();
            descriptors = open_descriptors();
        }
    }
    const double growth = static_cast<double>(pages_held()) / static_cast<double>(pages);
    const int opened = open_descriptors() - descriptors;
    check(growth <= most_growth, name);
    check(opened <= 0, name);
    std::printf("%9ld %s: %.3f times as many pages, %d descriptors more\n", done, name, growth, opened);
}

// The zone file changes its size too, so that the model does.

void reload_zones(long number)
{
    constexpr char path[] = "/etc/vandrel/zones.json";
    static const std::vector<generated_zones> sites = [] {
        std::vector<generated_zones> made;
        for (unsigned i = 0; i < 7; ++i)
            made.push_back(
                generate_zones({.zones = 1, .members = 100 + i * 20, .is_large = true, .has_left_out = false}));
        return made;
    }();
    const auto &[text, zones, script, names] = sites[static_cast<std::size_t>(number) % sites.size()];
    write_file(path, text);
    const timespec times[2] = {{number + 1, 0}, {number + 1, 0}};
    utimensat(AT_FDCWD, path, times, 0);
    for (const zone_member &member : zones.front().members) {
        const int allowed = zones_is_ip_allowed(names[0].c_str(), member.start.ip);
        check(allowed == plain_ip(zones, names[0].c_str(), member.start.ip, nullptr), "access");
    }
}

void commit(long number)
{
    check(config_set_vandrel_setting_string("name", number % 2 == 0 ? "even" : "odd") == 0, "commit");
}

void log_something(long number)
{
    check(vd_logging_log(libvandrel_logcontext, 6, "years.cpp", 1, -1, "record %ld", number) >= 0, "record");
}

// Messages from a process of its own, which connects anew after each thousand.

event_base *base;
long messages;

void count_message(int, const char *type, json_object *)
{
    messages += std::strcmp(type, "m") == 0;
}

void receive_message(long number)
{
    while (messages <= number)
        event_base_loop(base, EVLOOP_ONCE);
}

int send_for_ever()
{
    constexpr char body[] =
        R"({"type": "m", "data": {"common_name": "token-A", "ip": "10.1.2.3", "text": "äöü \u0041"}})";
    std::string frames;
    for (int i = 0; i < 100; ++i)
        frames += frame({body, sizeof body});
    for (;;) {
        const int fd = connect_to("years");
        for (int i = 0; i < 10; ++i) {
            if (write(fd, frames.data(), frames.size()) < 0)
                return 0;
        }
        shutdown(fd, SHUT_WR);
        char byte;
        static_cast<void>(read(fd, &byte, 1)); // until the server has read all and dropped the connection
        close(fd);
    }
}

/// Reads the records away, as the log daemon does.
pid_t start_log_reader()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const pid_t reader = start([fd] {
        char record[4096];
        while (recv(fd, record, sizeof record, 0) >= 0) {}
        return 0;
    });
    close(fd);
    return reader;
}

} // namespace

int main(int argc, char **argv)
{
    limit = argc > 1 ? std::atof(argv[1]) : 0;
    enter_device();
    const pid_t log_reader = start_log_reader();
    logging_init("years", 0);
    repeat("records", 1'000'000, log_something);
    repeat("reloads of a changing zone file", 10'000, reload_zones);
    zones_free();
    write_file("/etc/config/vandrel", "config settings settings\n option name none\n");
    repeat("configuration commits", 100'000, commit);

    base = event_base_new();
    const int server = ipc_server_new("years", base, count_message);
    const pid_t sender = start(send_for_ever);
    repeat("messages", 10'000'000, receive_message);
    ipc_close(server);
    end(sender);
    end(log_reader);
    std::printf("years: %d wrong\n", failures);
    return failures == 0 ? 0 : 1;
}
