#include "processes.hpp"

#include <csignal>
#include <endian.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

void end(pid_t child)
{
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

int connect_to(const char *server)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, ""};
    std::snprintf(address.sun_path, sizeof address.sun_path, "/var/run/vandrel/ipc_%s.sock", server);
    for (int tries = 0; connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0; ++tries) {
        if (tries == 10'000)
            _exit(1);
        usleep(1000);
    }
    return fd;
}

std::string frame(std::string_view body)
{
    const uint32_t size = htobe32(static_cast<uint32_t>(body.size()));
    return std::string(reinterpret_cast<const char *>(&size), sizeof size).append(body);
}
