#include "ipc_socket.hpp"

#include "lasting.hpp"
#include "log.hpp"
#include "paths.hpp"
#include "util.h"

#include <algorithm>
#include <cstdio>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <event2/event.h>
#include <event2/listener.h>

namespace vandrel {
namespace {

constexpr std::size_t client_path_size = 107; // one less than the server's, which is all of sun_path
constexpr std::size_t descriptor_path_size = 32;
constexpr mode_t run_directory_mode = 0755;
constexpr char socket_group[] = "vdipc";
constexpr mode_t socket_mode = 0770;

constexpr timeval accept_pause{0, 100'000};
constexpr rlim_t most_reserved = 8; // descriptors that no accepted connection gets
constexpr rlim_t reserved_part = 8; // of all, where that is less

using listener_handle = std::unique_ptr<evconnlistener, released_by<::evconnlistener_free>>;

struct bus_server {
    listener_handle listener; // none, and there is no server
    event_handle resume;      // a timer that ends a pause in accepting
    sockaddr_un address{};    // its path is the socket file to remove
    ipc_dispatch dispatch = nullptr;
    ipc_callback default_callback = nullptr;
};
lasting<bus_server> state;
bus_server &server = state.value;

sockaddr_un socket_address(const char *name, std::size_t path_size)
{
    sockaddr_un address;
    memzero(&address, sizeof address);
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, path_size, ipc_socket_format, name);
    return address;
}

const sockaddr *as_sockaddr(const sockaddr_un &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

/// Both changes are made through the descriptor of the socket file itself, so that a symbolic link that somebody put in
/// its place is not followed. Linux has no fchmod for such a descriptor; its name in /proc does the same.
bool change_group(const char *path, gid_t gid)
{
    const unique_fd file{open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0)
        return false;
    if (!S_ISSOCK(status.st_mode)) {
        errno = ENOTSOCK;
        return false;
    }
    char name[descriptor_path_size];
    std::snprintf(name, sizeof name, descriptor_format, file.get());
    return fchownat(file.get(), "", static_cast<uid_t>(-1), gid, AT_EMPTY_PATH) == 0 && chmod(name, socket_mode) == 0;
}

void give_to_group(const char *path)
{
    const group *entry = getgrnam(socket_group);
    if (entry && !change_group(path, entry->gr_gid))
        log_error_errno("Failed to set ipc socket group or permissions");
}

/// The socket goes on listening meanwhile: who connects waits, as far as there is room.
void pause_accepting()
{
    if (event_add(server.resume.get(), &accept_pause) == 0)
        evconnlistener_disable(server.listener.get());
}

void resume_accepting(evutil_socket_t, short, void *)
{
    if (evconnlistener_enable(server.listener.get()) != 0)
        pause_accepting();
}

/// Whether a descriptor is one of the last that the process may have. A flood of connections must leave them to the
/// daemon's own files, scripts and log.
bool is_reserved(int fd)
{
    rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
    getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<rlim_t>(fd) >= limit.rlim_cur - std::min(most_reserved, limit.rlim_cur / reserved_part);
}

void accept_connection(evconnlistener *listener, evutil_socket_t accepted, sockaddr *, int, void *)
{
    unique_fd fd{accepted};
    const bool refused = is_reserved(accepted);
    if (refused)
        pause_accepting();
    if (refused ||
        !add_connection(std::move(fd), evconnlistener_get_base(listener), server.dispatch, server.default_callback))
        log_warning("Connection failed");
}

void accept_failed(evconnlistener *, void *)
{
    log_warning_errno("error: "); // the blank at the end is part of the message
    pause_accepting();            // for want of a descriptor or memory it would fail again at once
}

/// It is enabled last: where its number is that of a connection that the daemon closed behind the library's back,
/// libevent would think that it watches it already.
listener_handle listen_at(const sockaddr_un &address, event_base *base)
{
    listener_handle listener{evconnlistener_new_bind(base, accept_connection, nullptr,
                                                     LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE | LEV_OPT_DISABLED, -1,
                                                     as_sockaddr(address), sizeof address)};
    if (!listener)
        return nullptr;
    forget_connection(evconnlistener_get_fd(listener.get()));
    return evconnlistener_enable(listener.get()) == 0 ? std::move(listener) : nullptr;
}

/// Closes the server, if there is one; its socket file goes unless that is the new server's.
void release_server(const char *path_in_use)
{
    if (!server.listener)
        return;
    server.resume.reset();
    server.listener.reset();
    if (safestrcmp(server.address.sun_path, path_in_use) != 0)
        unlink(server.address.sun_path);
}

} // namespace

int open_server(const char *name, event_base *base, ipc_dispatch dispatch, ipc_callback default_callback)
{
    const sockaddr_un address = socket_address(name, sizeof address.sun_path);
    ensure_dir_exists(run_directory, run_directory_mode);
    unlink(address.sun_path);
    event_handle resume{evtimer_new(base, resume_accepting, nullptr)};
    listener_handle listener = resume ? listen_at(address, base) : nullptr;
    if (!listener) {
        log_warning_errno("cannot bind");
        return -1;
    }
    const int fd = evconnlistener_get_fd(listener.get());
    evutil_make_socket_closeonexec(fd);
    give_to_group(address.sun_path);
    release_server(address.sun_path);
    evconnlistener_set_error_cb(listener.get(), accept_failed);
    server = {std::move(listener), std::move(resume), address, dispatch, default_callback};
    return fd;
}

bool close_server(int fd)
{
    if (!server.listener || fd != evconnlistener_get_fd(server.listener.get()))
        return false;
    release_server(nullptr);
    return true;
}

unique_fd connect_client(const char *name)
{
    unique_fd fd{socket(AF_UNIX, SOCK_STREAM, 0)};
    const sockaddr_un address = socket_address(name, client_path_size);
    log_info("Connect client to %s", address.sun_path);
    const int result = uninterrupted([&] { return connect(fd.get(), as_sockaddr(address), sizeof address); });
    if (result != 0) { // also for a missing socket
        log_warning_errno("connect");
        fd.reset();
    }
    return fd;
}

} // namespace vandrel
