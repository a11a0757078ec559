#include "device_test.hpp"

#include "logging.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr char log_socket[] = "/dev/log";
constexpr auto patience = std::chrono::seconds{20};

/// The event log escapes a control character as \x0a, and ; and \ with a backslash.
std::string unescape(const std::string &text)
{
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            plain += text[i];
        } else if (text[i + 1] == 'x' && i + 3 < text.size()) {
            plain += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            plain += text[++i];
        }
    }
    return plain;
}

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
    record result{LOG_PRI(std::stoi(raw.substr(1))), unescape(raw.substr(begin, end - begin)), tag(tail, "filename"),
                  -1};
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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", log_socket);
    if (bind(socket_, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0)
        ADD_FAILURE() << "binding " << log_socket << " failed";
    chmod(log_socket, 0666);
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
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::string buffer(1 << 20, '\0');
    for (;;) {
        for (ssize_t size; (size = recv(socket_, buffer.data(), buffer.size(), 0)) >= 0;)
            result.emplace_back(buffer, 0, static_cast<std::size_t>(size));
        if (result.size() >= at_least || std::chrono::steady_clock::now() > deadline)
            return result;
        pollfd waiting{socket_, POLLIN, 0};
        poll(&waiting, 1, 100);
    }
}

records device_test::log(std::size_t at_least) const
{
    records result;
    for (const std::string &raw : raw_log(at_least))
        result.push_back(parse(raw));
    return result;
}

void write_file(const std::string &path, std::string_view content, mode_t mode)
{
    std::filesystem::create_directories(std::filesystem::path{path}.parent_path());
    std::ofstream{path, std::ios::binary} << content;
    chmod(path.c_str(), mode);
}

void write_script(const std::string &path, std::string_view content)
{
    write_file(path, content, 0755);
}

std::string read_file(const std::string &path)
{
    std::ifstream file{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{file}, {}};
}

int open_descriptors()
{
    const std::filesystem::directory_iterator listing{"/proc/self/fd"}; // is one of them while it counts
    return static_cast<int>(std::distance(begin(listing), end(listing))) - 1;
}
