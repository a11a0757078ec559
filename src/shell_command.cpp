#include "shell_command.hpp"

#include "paths.hpp"

#include <array>
#include <csignal>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace vandrel;

using spawn_attributes = std::unique_ptr<posix_spawnattr_t, released_by<::posix_spawnattr_destroy>>;
using spawn_actions = std::unique_ptr<posix_spawn_file_actions_t, released_by<::posix_spawn_file_actions_destroy>>;

/// Starts the command with its standard output on fd; -1 when that fails. popen would hand an ignored or blocked
/// SIGPIPE on to it, and fork would copy the page tables of a daemon that may be large.
pid_t spawn_shell(const char *command, int fd)
{
    sigset_t defaults;
    sigset_t mask;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, SIGPIPE);

    // Each of these owns something only once it is set up, so its holder is made after that.
    posix_spawnattr_t attributes_room;
    if (posix_spawnattr_init(&attributes_room) != 0)
        return -1;
    const spawn_attributes attributes{&attributes_room};
    posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigdefault(attributes.get(), &defaults);
    posix_spawnattr_setsigmask(attributes.get(), &mask);

    posix_spawn_file_actions_t actions_room;
    if (posix_spawn_file_actions_init(&actions_room) != 0)
        return -1;
    const spawn_actions actions{&actions_room};
    // this also takes the pipe's close-on-exec flag away, where fd is the standard output already too
    if (posix_spawn_file_actions_adddup2(actions.get(), fd, STDOUT_FILENO) != 0)
        return -1;

    const std::array arguments{const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>(command),
                               static_cast<char *>(nullptr)};
    pid_t pid;
    return posix_spawn(&pid, shell, actions.get(), attributes.get(), arguments.data(), environ) == 0 ? pid : -1;
}

} // namespace

namespace vandrel {

shell_command::shell_command(const char *command)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    output_.reset(ends[0]);
    const unique_fd writing{ends[1]};
    pid_ = spawn_shell(command, writing.get());
}

std::size_t shell_command::read(char *output, std::size_t size)
{
    const auto read_some = [this](char *bytes, std::size_t room) {
        return uninterrupted([&] { return ::read(output_.get(), bytes, room); });
    };
    std::size_t length = 0;
    while (length < size) {
        const ssize_t added = read_some(output + length, size - length);
        if (added <= 0)
            return length;
        length += static_cast<std::size_t>(added);
    }
    char dropped;
    read_some(&dropped, 1);
    return length;
}

int shell_command::wait()
{
    output_.reset();
    int status = -1;
    if (has_started() && uninterrupted([&] { return waitpid(pid_, &status, 0); }) != pid_)
        status = -1; // somebody else has it: a handler of the daemon, or the kernel where SIGCHLD is ignored
    pid_ = -1;
    return status;
}

} // namespace vandrel
