// What may stand next on a command line, for a shell's completion.
#pragma once

#include <span>

namespace vdctl {

/// Prints what the last of the words may become, one a line: commands, options, daemons that serve, peers and ports of
/// the live file. Gives the exit status, which is always 0.
int complete(std::span<const char *const> words);

} // namespace vdctl
