// device COMMAND [ARGUMENT...]: runs a command on an empty device, which ends with it; gives the command's exit status.
// Arguments that name something which the device hides (below /tmp, for one) are given as it is called there.
#include "device.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// GoogleTest keeps this file while it runs tests. One that ends the process leaves it behind.
constexpr char tests_are_running[] = "/.tests-are-running";

int exit_status(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    std::fprintf(stderr, "device: killed by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
    return 128 + WTERMSIG(status);
}

/// Reaps what ends, on the device also whatever is orphaned there, until the child does.
int wait_for(pid_t child)
{
    int status = 0;
    for (pid_t pid = wait(&status); pid != child; pid = wait(&status)) {
        if (pid < 0)
            return 1;
    }
    return exit_status(status);
}

bool exists(const char *path)
{
    return access(path, F_OK) == 0;
}

char *as_on_device(char *argument)
{
    const std::string on_host = host_path(argument);
    char *found = *argument == '/' && !exists(argument) && exists(on_host.c_str()) ? strdup(on_host.c_str()) : nullptr;
    return found ? found : argument;
}

[[noreturn]] void run(char **command)
{
    for (char **argument = command; *argument; ++argument)
        *argument = as_on_device(*argument);
    setenv("TEST_PREMATURE_EXIT_FILE", tests_are_running, 1);
    execvp(command[0], command); // NOLINT(clang-analyzer-core.NonNullParamChecker) main has seen that there is one
    std::perror(command[0]);
    _exit(127);
}

/// What process 1 of the device does.
int run_and_wait(char **command)
{
    const pid_t pid = fork();
    if (pid == 0)
        run(command);
    const int status = wait_for(pid);
    if (status != 0 || !exists(tests_are_running))
        return status;
    std::fputs("device: the process ended in the middle of a test\n", stderr);
    return 1;
}

/// The kernel kills the process with its parent.
void end_with_parent()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 2) {
        std::fputs("usage: device COMMAND [ARGUMENT...]\n", stderr);
        return 2;
    }
    end_with_parent();
    const pid_t device = fork_into_device();
    if (device > 0)
        return wait_for(device);
    end_with_parent();
    _exit(run_and_wait(argv + 1));
}
