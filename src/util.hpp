// What util.cpp shares with other modules.
#pragma once

#include "handles.hpp"

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

    FILE *output() const { return output_.get(); } // null when it could not be started

    /// Closes the output and waits for the end. Gives the status as waitpid has it, or -1 when that is not to be had.
    int wait();

private:
    stream_handle output_;
    pid_t pid_ = -1;
};

} // namespace vandrel
