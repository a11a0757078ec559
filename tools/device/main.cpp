// device COMMAND [ARGUMENT...]: runs a command on an empty device, which ends with it; gives the command's exit status.
#include "device.hpp"

#include <cstdio>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int exit_status(int status)
{
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Process 1 of the device: reaps whatever is orphaned there until the command ends.
int wait_for(pid_t command)
{
    int status = 0;
    for (pid_t pid = wait(&status); pid != command; pid = wait(&status)) {
        if (pid < 0)
            return 1;
    }
    return exit_status(status);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 2) {
        std::fputs("usage: device COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    const pid_t device = fork_into_device();
    if (device > 0)
        return wait_for(device);
    const pid_t command = fork();
    if (command == 0) {
        execvp(argv[1], argv + 1);
        std::perror(argv[1]);
        _exit(127);
    }
    _exit(wait_for(command));
}
