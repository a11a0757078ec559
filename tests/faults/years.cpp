// years [SECONDS]: what a daemon does in years, as often as it does it, or each kind for at most SECONDS. In the last
// tenth the process may hold no more memory and no more descriptors than in the second tenth.
#include "device.hpp"
#include "files.hpp"
#include "ipc.h"
#include "logging.h"
#include "uciconfig.h"
#include "zones.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <csignal>
#include <event2/event.h>
#include <fcntl.h>
#include <json-c/json.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

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

struct held {
    long pages = 0, descriptors = 0;
};

held held_now()
{
    held now;
    long all = 0;
    if (FILE *statm = std::fopen("/proc/self/statm", "r")) {
        check(std::fscanf(statm, "%ld %ld", &all, &now.pages) == 2, "statm");
        std::fclose(statm);
    }
    for (const auto &entry : std::filesystem::directory_iterator{"/proc/self/fd"})
        now.descriptors += !entry.path().empty();
    return now;
}

/// Does one kind of work in ten parts and compares the second with the last. A part does all its work, or ends in time.
void repeat(const char *name, long count, void (*work)(long number))
{
    const auto started = steady::now();
    held second, last;
    long done = 0;
    for (int tenth = 1; tenth <= 10; ++tenth) {
        const auto until = started + std::chrono::duration<double>{limit * tenth / 10};
        for (long i = 0; i < count / 10 && (limit == 0 || (i & 15) != 0 || steady::now() < until); ++i)
            work(done++);
        last = held_now();
        if (tenth == 2)
            second = last;
    }
    const bool same = static_cast<double>(last.pages) <= most_growth * static_cast<double>(second.pages) &&
                      last.descriptors <= second.descriptors;
    check(same, name);
    std::printf("%9ld %s: pages %ld, then %ld (%.3f); descriptors %ld, then %ld\n", done, name, second.pages,
                last.pages, static_cast<double>(last.pages) / static_cast<double>(second.pages), second.descriptors,
                last.descriptors);
    std::fflush(stdout);
}

// The zone file changes its size too, so that the model does.

void reload_zones(long number)
{
    constexpr char path[] = "/etc/vandrel/zones.json";
    const long members = 100 + number % 7 * 20;
    std::string text = "{\"zone_configuration\": {\"zones\": {\"1\": {\"members\": {\"token-A\": {\"type\": "
                       "\"serialization\", \"direction\": \"in\"}";
    for (long i = 0; i < members; ++i)
        text.append(", \"net")
            .append(std::to_string(i))
            .append("\": {\"type\": \"whitelisted_ip\", \"direction\": \"out\", "
                    "\"address_start\": \"10.0.")
            .append(std::to_string(i))
            .append(".1\"}");
    text += "}}}}}";
    write_file(path, text.c_str());
    const timespec times[2] = {{number + 1, 0}, {number + 1, 0}};
    utimensat(AT_FDCWD, path, times, 0);
    const auto last = static_cast<uint32_t>(members - 1);
    check(zones_is_ip_allowed("token-A", 0x0A000001 + (last << 8)) == 1, "the last address is reached");
    check(zones_is_ip_allowed("token-A", 0x0A000001 + (last + 1) * 256) == 0, "the one behind is not");
}

// Messages from a process of its own, which connects anew after each thousand.

event_base *base;
long messages;

void count_message(int, const char *type, json_object *)
{
    messages += std::strcmp(type, "m") == 0;
}

[[noreturn]] void send_for_ever()
{
    const std::string body =
        R"({"type": "m", "data": {"common_name": "token-A", "ip": "10.1.2.3", "text": "äöü \u0041"}})";
    std::string frames;
    for (int i = 0; i < 100; ++i) {
        frames.append({0, 0, 0, static_cast<char>(body.size() + 1)});
        frames.append(body).push_back('\0');
    }
    for (;;) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address{AF_UNIX, "/var/run/vandrel/ipc_years.sock"};
        connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        for (int i = 0; i < 10; ++i) {
            if (write(fd, frames.data(), frames.size()) < 0)
                _exit(0);
        }
        shutdown(fd, SHUT_WR);
        char byte;
        static_cast<void>(read(fd, &byte, 1)); // until the server has read all and dropped the connection
        close(fd);
    }
}

void receive_message(long number)
{
    while (messages <= number)
        event_base_loop(base, EVLOOP_ONCE);
}

void commit(long number)
{
    check(config_set_vandrel_setting_string("name", number % 2 == 0 ? "even" : "odd") == 0, "commit");
}

void log_something(long number)
{
    check(vd_logging_log(libvandrel_logcontext, 6, "years.cpp", 1, -1, "record %ld", number) >= 0, "record");
}

/// Reads the records away, as the log daemon does.
pid_t start_log_reader()
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const pid_t child = fork();
    if (child == 0) {
        char record[4096];
        while (recv(fd, record, sizeof record, 0) >= 0) {}
        _exit(0);
    }
    close(fd);
    return child;
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
    const pid_t sender = fork();
    if (sender == 0)
        send_for_ever();
    repeat("messages", 10'000'000, receive_message);
    kill(sender, SIGKILL);
    waitpid(sender, nullptr, 0);
    ipc_close(server);
    kill(log_reader, SIGKILL);
    waitpid(log_reader, nullptr, 0);
    std::printf("years: %d wrong\n", failures);
    return failures == 0 ? 0 : 1;
}
