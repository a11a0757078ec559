#include "ipc.h"

#include "boundary.hpp"
#include "ipc_connection.hpp"
#include "json.hpp"
#include "lasting.hpp"
#include "log.hpp"
#include "paths.hpp"
#include "util.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <event2/event.h>
#include <event2/listener.h>

namespace {

using namespace vandrel;

constexpr std::size_t max_subscribers = 50;
constexpr std::size_t client_path_size = 107; // one less than the server's, which is all of sun_path
constexpr std::size_t descriptor_path_size = 32;
constexpr mode_t run_directory_mode = 0755;
constexpr char socket_group[] = "vdipc";
constexpr mode_t socket_mode = 0770;

using listener_handle = std::unique_ptr<evconnlistener, released_by<::evconnlistener_free>>;

struct bus_server {
    listener_handle listener; // none, and there is no server
    sockaddr_un address{};    // its path is the socket file to remove
    ipc_callback default_callback = nullptr;

    int fd() const { return listener ? evconnlistener_get_fd(listener.get()) : -1; }
};

struct subscriber {
    std::string type;
    int fd;
};

struct text_hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

struct bus_state {
    bus_server server;
    std::unordered_map<std::string, ipc_callback, text_hash, std::equal_to<>> callbacks;
    std::vector<subscriber> subscribers; // in order of subscription
};
lasting<bus_state> state;
bus_state &bus = state.value;

ipc_callback handler_of(std::string_view type, ipc_callback default_callback)
{
    const auto found = bus.callbacks.find(type);
    return found != bus.callbacks.end() && found->second ? found->second : default_callback;
}

void dispatch(int fd, json_object *message, ipc_callback default_callback)
{
    json_object *const type = member_of(message, "type");
    if (!json_object_is_type(type, json_type_string))
        return;
    std::size_t length = 0;
    const char *quoted = json_object_to_json_string_length(type, JSON_C_TO_STRING_SPACED, &length);
    if (!quoted)
        return;
    const_cast<char *>(quoted)[length - 1] = '\0'; // in the type's own buffer, which nobody else sees
    const char *text = quoted + 1;
    if (const ipc_callback handler = handler_of({text, length - 2}, default_callback))
        handler(fd, text, member_of(message, "data"));
}

void accept_connection(evconnlistener *listener, evutil_socket_t fd, sockaddr *, int, void *)
{
    if (!add_connection(unique_fd{fd}, evconnlistener_get_base(listener), dispatch, bus.server.default_callback))
        log_warning("Connection failed");
}

void listener_failed(evconnlistener *, void *)
{
    log_warning_errno("error: "); // the blank at the end is part of the message
}

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

/// Closes the server, if there is one; its socket file goes unless that is the new server's.
void close_server(const char *path_in_use)
{
    if (!bus.server.listener)
        return;
    bus.server.listener.reset();
    if (safestrcmp(bus.server.address.sun_path, path_in_use) != 0)
        unlink(bus.server.address.sun_path);
}

} // namespace

int ipc_server_new(const char *name, event_base *base, ipc_callback default_callback)
{
    if (!name || !base) {
        errno = EINVAL;
        log_warning_errno("cannot bind");
        return -1;
    }
    const sockaddr_un address = socket_address(name, sizeof address.sun_path);
    ensure_dir_exists(run_directory, run_directory_mode);
    unlink(address.sun_path);
    listener_handle listener{evconnlistener_new_bind(base, accept_connection, nullptr,
                                                     LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE, -1,
                                                     as_sockaddr(address), sizeof address)};
    if (!listener) {
        log_warning_errno("cannot bind");
        return -1;
    }
    const int fd = evconnlistener_get_fd(listener.get());
    evutil_make_socket_closeonexec(fd);
    give_to_group(address.sun_path);
    close_server(address.sun_path);
    evconnlistener_set_error_cb(listener.get(), listener_failed);
    bus.server = {std::move(listener), address, default_callback};
    return fd;
}

int ipc_client_new(const char *name, event_base *base, ipc_callback default_callback)
{
    if (!name || !base) {
        errno = EINVAL;
        log_warning_errno("connect");
        return -1;
    }
    unique_fd fd{socket(AF_UNIX, SOCK_STREAM, 0)};
    const sockaddr_un address = socket_address(name, client_path_size);
    log_info("Connect client to %s", address.sun_path);
    if (connect(fd.get(), as_sockaddr(address), sizeof address) != 0) { // fails for a missing socket too
        log_warning_errno("connect");
        return -1;
    }
    const int handle = fd.get();
    return add_connection(std::move(fd), base, dispatch, default_callback) ? handle : -1;
}

int ipc_write(int fd, json_object *object)
{
    outgoing_frame frame{object, false};
    return write_frame(fd, frame) ? 0 : -1;
}

void ipc_close(int fd)
{
    if (fd == -1 || fd != bus.server.fd()) {
        drop_connection(fd);
        return;
    }
    close_server(nullptr);
    ipc_server_remove_all_subscribers(fd);
}

void ipc_register_callback(const char *name, ipc_callback function)
{
    if (name)
        guarded(false, [&] { return bus.callbacks.insert_or_assign(name, function).second; });
}

void ipc_deregister_callback(const char *name)
{
    if (!name)
        return;
    if (const auto found = bus.callbacks.find(std::string_view{name}); found != bus.callbacks.end())
        bus.callbacks.erase(found);
}

void ipc_deregister_all_callbacks(const char *name)
{
    if (name)
        ipc_deregister_callback(name);
    else
        bus.callbacks.clear();
}

int ipc_server_add_subscriber(const char *type, int fd)
{
    if (fd == -1 || !type || bus.subscribers.size() >= max_subscribers)
        return -1;
    return guarded(-1, [&] {
        subscriber added{type, fd};
        bus.subscribers.reserve(max_subscribers); // so that nothing can fail once the old one is removed
        ipc_server_remove_subscriber_typed(type, fd);
        bus.subscribers.push_back(std::move(added));
        return 0;
    });
}

int ipc_server_remove_subscriber_typed(const char *type, int fd)
{
    return static_cast<int>(std::erase_if(
        bus.subscribers, [&](const subscriber &entry) { return entry.fd == fd && (!type || entry.type == type); }));
}

int ipc_server_remove_subscriber(int fd)
{
    return ipc_server_remove_subscriber_typed(nullptr, fd);
}

void ipc_server_remove_all_subscribers(int fd)
{
    if (fd == -1)
        bus.subscribers.clear();
    else if (ipc_server_remove_subscriber(fd) > 0)
        drop_connection(fd);
}

int ipc_server_get_subscibers(int *fds, const char *type)
{
    int count = 0;
    if (!fds || !type)
        return 0;
    for (const subscriber &entry : bus.subscribers) {
        if (entry.type == type)
            fds[count++] = entry.fd;
    }
    return count;
}

int ipc_server_write_to_subscribers(const char *type, json_object *object)
{
    int failed = 0;
    if (!type)
        return 0;
    outgoing_frame frame{object, true};
    for (const subscriber &entry : bus.subscribers) {
        if (entry.type == type && !write_frame(entry.fd, frame))
            ++failed;
    }
    return failed;
}
