// The sockets of the bus: the server's, with its file and whom it accepts, and those of clients.
#pragma once

#include "ipc_connection.hpp"

namespace vandrel {

/// Opens the server, in place of the one that was open. Gives its descriptor, or -1 (logged) with that one left open.
int open_server(const char *name, event_base *base, ipc_dispatch dispatch, ipc_callback default_callback);

/// Closes the server and removes its socket file; false where fd is not its descriptor.
bool close_server(int fd);

/// A socket that is connected to another daemon's server; none where that failed (logged).
unique_fd connect_client(const char *name);

} // namespace vandrel
