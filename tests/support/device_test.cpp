#include "device_test.hpp"

#include "logging.h"

#include <algorithm>
#include <csignal>
#include <ostream>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int patience = 20'000; // milliseconds

/// The value of a tag (name='value') in the tail of a record; empty when it has none.
std::string tag(const std::string &tail, const std::string &name)
{
    const std::size_t at = tail.find(name + "='");
    if (at == tail.npos)
        return "";
    const std::size_t begin = at + name.size() + 2;
    return tail.substr(begin, tail.find('\'', begin) - begin);
}

/// "<28>Nov 22 22:55:00 test: text; error='No such file or directory (2)', filename='zones.c:42'"
record parse(const std::string &raw)
{
    const std::size_t stamp = raw.find('>') + sizeof "Nov 22 22:55:00";
    const std::size_t begin = raw.find(": ", stamp) + 2;
    const std::size_t end =
        raw.ends_with(';') ? raw.size() - 1 : std::min(raw.size(), raw.rfind("; ")); // without tags: ;
    const std::string tail = raw.substr(end);
    record result{LOG_PRI(std::stoi(raw.substr(1))), raw.substr(begin, end - begin), tag(tail, "filename"), -1};
    for (std::size_t at; (at = result.text.find("\\x0a")) != raw.npos;)
        result.text.replace(at, 4, "\n");
    result.module.erase(std::min(result.module.size(), result.module.rfind(':')));
    if (const std::string error = tag(tail, "error"); !error.empty())
        result.err = std::stoi(error.substr(error.rfind('(') + 1));
    return result;
}

} // namespace

std::ostream &operator<<(std::ostream &out, const record &entry)
{
    return out << "{" << entry.severity << ", \"" << entry.text << "\", " << entry.module << ", " << entry.err << "}";
}

record error(std::string text, std::string module, int err)
{
    return {LOG_ERR, std::move(text), std::move(module), err};
}

record warning(std::string text, std::string module, int err)
{
    return {LOG_WARNING, std::move(text), std::move(module), err};
}

record info(std::string text, std::string module, int err)
{
    return {LOG_INFO, std::move(text), std::move(module), err};
}

device_test::device_test() : socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)}
{
    const sockaddr_un address{AF_UNIX, "/dev/log"};
    if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        ADD_FAILURE() << "binding /dev/log failed";
    chmod(address.sun_path, 0666);
    logging_init("test", 0);
}

device_test::~device_test()
{
    vd_logging_close(&libvandrel_logcontext);
    closelog();
    close(socket_);
}

std::vector<std::string> device_test::raw_log(std::size_t at_least) const
{
    std::vector<std::string> result;
    std::string buffer(1 << 20, '\0');
    pollfd arriving{socket_, POLLIN, 0};
    do {
        for (ssize_t size; (size = recv(socket_, buffer.data(), buffer.size(), 0)) >= 0;)
            result.emplace_back(buffer, 0, static_cast<std::size_t>(size));
    } while (result.size() < at_least && poll(&arriving, 1, patience) > 0);
    return result;
}

records device_test::log(std::size_t at_least) const
{
    records result;
    for (const std::string &raw : raw_log(at_least))
        result.push_back(parse(raw));
    return result;
}

std::string built_program(const std::string &path_in_build_tree)
{
    return TEST_MACHINE " " + host_path(BINARY_DIR) + "/" + path_in_build_tree;
}

bool is_started_by_another()
{
    return !std::string_view{TEST_MACHINE}.empty();
}

bool is_emulated()
{
    return std::string_view{TEST_MACHINE}.starts_with("qemu");
}

interruptions::interruptions()
{
    struct sigaction handling {};
    handling.sa_handler = [](int) {};
    sigaction(SIGALRM, &handling, nullptr);
    const itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

interruptions::~interruptions()
{
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);
}
