// The connections of the bus, accepted and outgoing alike, each addressed by its descriptor.
#pragma once

#include "handles.hpp"
#include "ipc.h"
#include "ipc_frame.hpp"

#include <event2/event.h>

namespace vandrel {

using event_handle = std::unique_ptr<event, released_by<::event_free>>;

inline constexpr char log_module[] = "ipc.c"; // of all its rooms

/// What becomes of a message: its connection, itself (borrowed), and the connection's default handler.
using ipc_dispatch = void (*)(int fd, json_object *message, ipc_callback default_callback);

/// Sets a connected socket up as a connection; takes it, on failure too.
bool add_connection(unique_fd fd, event_base *base, ipc_dispatch dispatch, ipc_callback default_callback);

/// Ends a connection without notice and closes its descriptor; nothing happens where there is none.
void drop_connection(int fd);

/// Where the daemon closed a connection's descriptor behind its back, the number is now another socket's: the old
/// record goes without closing it.
void forget_connection(int fd);

/// Queues a frame on a connection, whole or not at all; logs why not.
bool write_frame(int fd, outgoing_frame &frame);

} // namespace vandrel
