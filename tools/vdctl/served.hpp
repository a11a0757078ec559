// Who serves on the message bus, as the folder of its sockets and the kernel tell it; nobody is connected to.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vdctl {

inline constexpr char bus_folder[] = "/var/run/vandrel";

enum class serving { nobody, one, two }; // processes that listen under the name

struct served_name {
    std::string name;
    serving by = serving::nobody;
    std::optional<pid_t> pid; // of the one listener, where the kernel tells (to root, and to its own user)
    std::string command;      // its program
    uid_t user = 0;           // of the socket file
    gid_t group = 0;
    mode_t mode = 0;
    unsigned peers = 0; // connections that are open
};

/// In the order of the names; none where there is no folder. Fails where it can't be read.
std::vector<served_name> served_names();

std::string socket_path(const std::string &name);

/// Names of ids, or their numbers.
std::string user_name(uid_t user);
std::string group_name(gid_t group);

} // namespace vdctl
