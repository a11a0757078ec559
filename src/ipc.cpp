#include "ipc.h"

#include "boundary.hpp"
#include "ipc_socket.hpp"
#include "json.hpp"
#include "lasting.hpp"
#include "log.hpp"

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

using namespace vandrel;

constexpr std::size_t max_subscribers = 50;

struct subscriber {
    std::string type;
    int fd;
};

struct text_hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
};

struct bus_state {
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
    const char *quoted = json_text(type, length);
    if (!quoted)
        return;
    const_cast<char *>(quoted)[length - 1] = '\0'; // in the type's own buffer, which nobody else sees
    const char *text = quoted + 1;
    if (const ipc_callback handler = handler_of({text, length - 2}, default_callback))
        handler(fd, text, member_of(message, "data"));
}

/// Whether there are both; if not, says so as a failure of what was to be done.
bool has_name_and_base(const char *name, const event_base *base, const char *task)
{
    if (name && base)
        return true;
    errno = EINVAL;
    log_warning_errno("%s", task);
    return false;
}

} // namespace

int ipc_server_new(const char *name, event_base *base, ipc_callback default_callback)
{
    if (!has_name_and_base(name, base, "cannot bind"))
        return -1;
    return open_server(name, base, dispatch, default_callback);
}

int ipc_client_new(const char *name, event_base *base, ipc_callback default_callback)
{
    if (!has_name_and_base(name, base, "connect"))
        return -1;
    unique_fd fd = connect_client(name);
    const int handle = fd.get();
    return fd && add_connection(std::move(fd), base, dispatch, default_callback) ? handle : -1;
}

int ipc_write(int fd, json_object *object)
{
    outgoing_frame frame{object, false};
    return write_frame(fd, frame) ? 0 : -1;
}

void ipc_close(int fd)
{
    if (close_server(fd))
        ipc_server_remove_all_subscribers(fd);
    else
        drop_connection(fd);
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
        ipc_server_remove_subscriber_typed(type, fd);
        bus.subscribers.push_back(std::move(added)); // where one has gone there is room
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
