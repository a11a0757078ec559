// What a daemon's start needs of the log beyond its public header.
#pragma once

namespace vandrel {

/// Closes the C library's connection to the log. The next record opens a new one, under the same name.
void disconnect_log() noexcept;

} // namespace vandrel
