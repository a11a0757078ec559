// Another zone file in the live one's place, for this process and the scripts that it starts.
#pragma once

#include "zone_file.hpp"

namespace vdctl {

/// Moves this process into a mount namespace of its own in which the live file has the other one's text, or fails.
/// The live file itself is not touched. May be called again, with a next file.
void put_in_live_place(const zone_text &file);

/// What the file in the live one's place is called.
const char *live_name();

} // namespace vdctl
