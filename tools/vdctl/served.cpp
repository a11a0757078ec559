#include "served.hpp"

#include "output.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace vdctl {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view prefix = "ipc_", suffix = ".sock";

/// What /proc/net/unix says of one path, proc(5).
struct kernel_sockets {
    std::vector<unsigned long> listeners; // inodes
    unsigned connected = 0;
};

std::map<std::string, kernel_sockets> sockets_by_path()
{
    constexpr unsigned long accepts = 0x10000; // __SO_ACCEPTCON
    constexpr unsigned connected = 3;          // SS_CONNECTED
    std::map<std::string, kernel_sockets> sockets;
    std::ifstream table{"/proc/net/unix"};
    if (!table)
        fail_with_errno("cannot read /proc/net/unix");
    std::string line;
    std::getline(table, line); // the header
    while (std::getline(table, line)) {
        std::istringstream fields{line};
        std::string address, references, protocol, path;
        unsigned long flags = 0, inode = 0;
        unsigned type = 0, state = 0;
        fields >> address >> references >> protocol >> std::hex >> flags >> type >> state >> std::dec >> inode;
        if (!fields || !std::getline(fields >> std::ws, path))
            continue;
        if ((flags & accepts) != 0)
            sockets[path].listeners.push_back(inode);
        else if (state == connected)
            ++sockets[path].connected;
    }
    return sockets;
}

std::string first_line(const fs::path &path)
{
    std::string line;
    std::ifstream file{path};
    std::getline(file, line);
    return line;
}

/// Fills in the process that holds a listening socket, where it may be looked at.
void find_process(served_name &served, unsigned long inode)
{
    const std::string wanted = "socket:[" + std::to_string(inode) + ']';
    std::error_code ended; // of a process that ends meanwhile
    const fs::directory_iterator none;
    for (fs::directory_iterator process{"/proc", ended}; process != none; process.increment(ended)) {
        const std::string number = process->path().filename();
        if (number.find_first_not_of("0123456789") != std::string::npos)
            continue;
        for (fs::directory_iterator fd{process->path() / "fd", ended}; fd != none; fd.increment(ended)) {
            if (fs::read_symlink(fd->path(), ended) != wanted)
                continue;
            served.pid = static_cast<pid_t>(std::stol(number));
            served.command = first_line(process->path() / "comm");
            return;
        }
    }
}

void describe(served_name &served, const kernel_sockets &sockets)
{
    served.peers = sockets.connected;
    if (sockets.listeners.empty())
        return;
    served.by = sockets.listeners.size() == 1 ? serving::one : serving::two;
    if (served.by == serving::one) // of two, the kernel does not say which can be reached
        find_process(served, sockets.listeners.front());
}

/// The name in "ipc_NAME.sock", or nothing.
std::string name_in(std::string_view file)
{
    if (file.size() <= prefix.size() + suffix.size() || !file.starts_with(prefix) || !file.ends_with(suffix))
        return {};
    return std::string{file.substr(prefix.size(), file.size() - prefix.size() - suffix.size())};
}

} // namespace

std::string socket_path(const std::string &name)
{
    return std::string{bus_folder}.append("/").append(prefix).append(name).append(suffix);
}

std::string user_name(uid_t user)
{
    const passwd *entry = getpwuid(user);
    return entry ? entry->pw_name : std::to_string(user);
}

std::string group_name(gid_t group)
{
    const struct group *entry = getgrgid(group);
    return entry ? entry->gr_name : std::to_string(group);
}

std::vector<served_name> served_names()
{
    std::error_code failed;
    const fs::directory_iterator folder{bus_folder, failed};
    if (failed == std::errc::no_such_file_or_directory)
        return {};
    if (failed)
        throw failure{"cannot read " + text::of(bus_folder) + ": " + text::of(failed.message())};
    const auto sockets = sockets_by_path();
    std::vector<served_name> found;
    for (const auto &entry : folder) {
        const std::string name = name_in(entry.path().filename().native());
        struct stat status;
        if (name.empty() || lstat(entry.path().c_str(), &status) != 0)
            continue;
        served_name &served = found.emplace_back();
        served.name = name;
        served.user = status.st_uid;
        served.group = status.st_gid;
        served.mode = status.st_mode & 07777;
        if (const auto at = sockets.find(entry.path()); at != sockets.end())
            describe(served, at->second);
    }
    std::ranges::sort(found, {}, &served_name::name);
    return found;
}

} // namespace vdctl
