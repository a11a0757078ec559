// What util.cpp shares with other modules.
#pragma once

#include "handles.hpp"

namespace vandrel {

/// Starts a shell command whose output is read from the pipe; null when that fails. Whoever closes the pipe before the
/// end of the output ends the command, even in a process that ignores SIGPIPE.
pipe_handle start_command(const char *command);

} // namespace vandrel
