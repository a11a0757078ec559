// Running a command line through the shell.
#pragma once

#include "handles.hpp"

#include <cstddef>

#include <sys/types.h>

namespace vandrel {

/// A shell command whose output is read from a pipe, as popen starts it. Whoever stops reading before the end ends the
/// command, even where the process ignores or blocks SIGPIPE, which a command of popen would inherit.
class shell_command {
public:
    explicit shell_command(const char *command);
    shell_command(const shell_command &) = delete;
    shell_command &operator=(const shell_command &) = delete;
    ~shell_command() { wait(); }

    bool has_started() const noexcept { return pid_ > 0; }

    /// Reads up to size bytes of what the command prints, whatever signals come meanwhile, and says how many there
    /// were. Where there are that many, one more is taken and dropped, so a command that prints no more lives to its
    /// own end.
    std::size_t read(char *output, std::size_t size);

    /// Closes the output and waits for the end. Gives the status as waitpid has it, or -1 when that is not to be had.
    int wait();

private:
    unique_fd output_;
    pid_t pid_ = -1;
};

} // namespace vandrel
