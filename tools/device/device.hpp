// An empty device for one process: its own mount, network and pid namespaces (and a user namespace for an ordinary
// user), and a root of its own in which the folders that the library uses are empty and private. Everything else of the
// host is there through links, and the host's whole tree stands under /.host.
#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

/// Forks a child that is process 1 of a new empty device. Gives 0 in the child, which ends the test program with one
/// clear line where the host forbids namespaces; its pid in the parent, where SIGKILL to it ends everything on the
/// device.
pid_t fork_into_device();

/// Whether the process is on an empty device.
bool on_device();

/// Moves the calling process itself onto an empty device (it keeps its pid namespace), unless it is on one.
void enter_device();

/// Whether the device has more than one user and group id; an ordinary user's has not.
bool several_ids();

/// Where a path of the host stands on the device.
std::string host_path(std::string_view path);
