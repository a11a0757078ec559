#include "ipc.h"

#include "boundary.hpp"
#include "handles.hpp"
#include "json.hpp"
#include "log.hpp"
#include "paths.hpp"
#include "util.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <endian.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "ipc.c";

constexpr std::size_t header_bytes = 4;
constexpr std::uint32_t max_body_bytes = 999'995;
constexpr std::size_t read_low_watermark = header_bytes;
constexpr std::size_t read_high_watermark = 1'000'000;
static_assert(header_bytes + max_body_bytes < read_high_watermark, "or reading would stop within the longest frame");
constexpr std::size_t max_queued_bytes = 64 << 20; // on one connection
constexpr std::size_t event_read_bytes = 4096;     // what libevent reads at most before it calls us
constexpr std::size_t ahead_read_bytes = 65'536;
constexpr std::size_t kept_tokener_bytes = 65'536;
constexpr std::size_t shared_from_bytes = 2048; // below, a copy is cheaper than sharing

constexpr std::size_t max_subscribers = 50;
constexpr std::size_t client_path_size = 107; // one less than the server's, which is all of sun_path
constexpr std::size_t descriptor_path_size = 32;
constexpr mode_t run_directory_mode = 0755;
constexpr char socket_group[] = "vdipc";
constexpr mode_t socket_mode = 0770;

using listener_handle = std::unique_ptr<evconnlistener, released_by<::evconnlistener_free>>;
using event_handle = std::unique_ptr<event, released_by<::event_free>>;

/// bufferevent_free closes the socket on a later turn of the loop only, which may never come; so it is closed here.
void close_bufferevent(bufferevent *bev)
{
    const int fd = bufferevent_getfd(bev);
    bufferevent_setfd(bev, -1);
    bufferevent_free(bev);
    close(fd);
}
using bufferevent_handle = std::unique_ptr<bufferevent, released_by<close_bufferevent>>;

struct connection {
    bufferevent_handle bev;
    event_handle flush;   // made active by hand when a first frame is queued
    std::uint64_t serial; // tells it from a later connection with the same descriptor
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
    std::vector<std::unique_ptr<connection>> connections; // by descriptor
    std::uint64_t connections_made = 0;

    listener_handle listener;
    int server_fd = -1;
    sockaddr_un server_address{}; // its path is the socket file to remove

    tokener_handle tokener; // kept from one message to the next

    std::unordered_map<std::string, ipc_callback, text_hash, std::equal_to<>> callbacks;
    std::vector<subscriber> subscribers; // in order of subscription
};

/// Never destroyed: when the process exits, the event base under the connections may be gone already.
union lasting_state {
    bus_state value;
    lasting_state() : value{} {}
    ~lasting_state() {} // NOLINT(modernize-use-equals-default)
} state;

bus_state &bus = state.value;

connection *find_connection(int fd)
{
    const auto slot = static_cast<std::size_t>(fd); // a negative one is beyond any size
    return slot < bus.connections.size() ? bus.connections[slot].get() : nullptr;
}

bool is_open(int fd, std::uint64_t serial)
{
    const connection *found = find_connection(fd);
    return found && found->serial == serial;
}

void ipc_connection_drop(int fd)
{
    if (find_connection(fd))
        bus.connections[static_cast<std::size_t>(fd)].reset();
}

/// The end of a connection, whoever noticed it. The notice may drop it, and connect anew with the same descriptor.
void end_connection(int fd, std::uint64_t serial, ipc_callback default_callback)
{
    if (default_callback)
        default_callback(fd, "error", nullptr);
    if (is_open(fd, serial))
        ipc_connection_drop(fd);
    log_warning("end of file or error "); // the blank at the end is part of the message
}

ipc_callback handler_of(std::string_view type, ipc_callback default_callback)
{
    const auto found = bus.callbacks.find(type);
    return found != bus.callbacks.end() && found->second ? found->second : default_callback;
}

/// What json_tokener_parse makes of the text, which ends at its NUL or else with the body. The tokener is kept only
/// after a value that was complete before the end: any other text may leave its depth or half a character behind, which
/// json_tokener_reset does not clear.
json_handle parse_body(const char *body, std::size_t size)
{
    if (!bus.tokener)
        bus.tokener.reset(json_tokener_new());
    if (!bus.tokener)
        return nullptr;
    tokener_handle tokener = std::move(bus.tokener);
    json_handle message{json_tokener_parse_ex(tokener.get(), body, static_cast<int>(strnlen(body, size)))};
    if (json_tokener_get_error(tokener.get()) == json_tokener_success) {
        if (size <= kept_tokener_bytes) // it would keep room for the longest text that it has seen
            bus.tokener = std::move(tokener);
        return message;
    }
    if (json_tokener_get_error(tokener.get()) == json_tokener_continue)
        message.reset(json_tokener_parse_ex(tokener.get(), "", 1));
    return json_tokener_get_error(tokener.get()) == json_tokener_success ? std::move(message) : nullptr;
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

void handle_event(bufferevent *bev, short events, void *argument)
{
    const int system_error = errno; // of the read or write that failed
    const int fd = bufferevent_getfd(bev);
    log_info("Event");
    if ((events & BEV_EVENT_ERROR) != 0) {
        log_warning("Bufferevent error");
        errno = system_error;
        std::perror("Error from bufferevent");
    }
    if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) != 0)
        end_connection(fd, find_connection(fd)->serial, reinterpret_cast<ipc_callback>(argument));
}

bool is_failure(ssize_t size)
{
    return size < 0 && errno != EAGAIN && errno != EINTR;
}

/// Fetches more of a frame that libevent has begun to read, where it has arrived already. Memory is taken only in step
/// with what has come. The end of the stream shows again when libevent reads on, but an error is told only once: gives
/// false for it.
bool read_ahead(bufferevent *bev, std::size_t missing_bytes)
{
    evbuffer *input = bufferevent_get_input(bev);
    if (evbuffer_get_length(input) < event_read_bytes)
        return true;
    const std::size_t wanted = std::min(missing_bytes, ahead_read_bytes);
    ssize_t size = 0;
    evbuffer_unfreeze(input, 0); // a bufferevent opens the end of its input for its own reads only
    evbuffer_iovec space;
    if (evbuffer_reserve_space(input, static_cast<ev_ssize_t>(wanted), &space, 1) == 1) {
        size = recv(bufferevent_getfd(bev), space.iov_base, wanted, 0);
        space.iov_len = static_cast<std::size_t>(std::max<ssize_t>(size, 0));
        evbuffer_commit_space(input, &space, 1);
    }
    evbuffer_freeze(input, 0);
    return !is_failure(size);
}

std::uint32_t body_size(const char *frame)
{
    std::uint32_t header;
    std::memcpy(&header, frame, header_bytes);
    return be32toh(header);
}

bool holds_frame(std::string_view bytes)
{
    return bytes.size() >= header_bytes && bytes.size() - header_bytes >= body_size(bytes.data());
}

/// Handles the whole frame at the start of the input, and those that lie behind it in one piece; they leave the input
/// together, as that costs no more than for one. Any handler may drop the connection, and its input with it.
void handle_frames(int fd, std::uint64_t serial, evbuffer *input, std::size_t first_frame_bytes,
                   ipc_callback default_callback)
{
    const auto *start =
        reinterpret_cast<const char *>(evbuffer_pullup(input, static_cast<ev_ssize_t>(first_frame_bytes)));
    if (!start) { // no memory to put its pieces together
        evbuffer_drain(input, first_frame_bytes);
        return;
    }
    std::string_view left{start, evbuffer_get_contiguous_space(input)};
    while (holds_frame(left)) {
        const std::size_t body_bytes = body_size(left.data());
        if (body_bytes > 0) {
            if (const json_handle message = parse_body(left.data() + header_bytes, body_bytes))
                dispatch(fd, message.get(), default_callback);
            if (!is_open(fd, serial))
                return;
        }
        left.remove_prefix(header_bytes + body_bytes);
    }
    evbuffer_drain(input, static_cast<std::size_t>(left.data() - start));
}

/// libevent calls it when at least a header waits.
void read_frames(bufferevent *bev, void *argument)
{
    const auto default_callback = reinterpret_cast<ipc_callback>(argument);
    const int fd = bufferevent_getfd(bev);
    const std::uint64_t serial = find_connection(fd)->serial;
    evbuffer *input = bufferevent_get_input(bev);
    while (is_open(fd, serial) && evbuffer_get_length(input) >= header_bytes) {
        std::uint32_t header = 0;
        if (evbuffer_copyout(input, &header, header_bytes) < static_cast<ev_ssize_t>(header_bytes)) {
            log_error("ERROR, too few bytes");
            return;
        }
        const std::uint32_t body_bytes = be32toh(header);
        if (body_bytes > max_body_bytes) {
            log_warning("Message of %u bytes is too long", body_bytes);
            end_connection(fd, serial, default_callback);
            return;
        }
        const std::size_t frame_bytes = header_bytes + body_bytes;
        const std::size_t waiting_bytes = evbuffer_get_length(input);
        if (waiting_bytes < frame_bytes && !read_ahead(bev, frame_bytes - waiting_bytes)) {
            handle_event(bev, BEV_EVENT_READING | BEV_EVENT_ERROR, argument);
            return;
        }
        if (evbuffer_get_length(input) < frame_bytes)
            return;
        handle_frames(fd, serial, input, frame_bytes, default_callback);
    }
}

/// Writes what was queued since the loop ran last in one go, without asking first whether the socket is ready. What
/// doesn't go is left to libevent.
void flush_output(evutil_socket_t, short, void *argument)
{
    auto *bev = static_cast<bufferevent *>(argument);
    evbuffer *output = bufferevent_get_output(bev);
    evbuffer_unfreeze(output, 1); // a bufferevent opens the front of its output for its own writes only
    const int size = evbuffer_write(output, bufferevent_getfd(bev));
    evbuffer_freeze(output, 1);
    if (is_failure(size) || (evbuffer_get_length(output) > 0 && bufferevent_enable(bev, EV_WRITE) != 0)) {
        void *default_callback = nullptr;
        bufferevent_getcb(bev, nullptr, nullptr, nullptr, &default_callback);
        handle_event(bev, BEV_EVENT_WRITING | BEV_EVENT_ERROR, default_callback);
    }
}

void ignore_signal(int) {}

/// Not SIG_IGN, which the commands that a daemon runs would inherit.
void catch_sigpipe()
{
    struct sigaction action {};
    if (sigaction(SIGPIPE, nullptr, &action) != 0 || (action.sa_flags & SA_SIGINFO) != 0 ||
        action.sa_handler != SIG_DFL)
        return;
    action.sa_handler = ignore_signal;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

/// Where the daemon closed a connection's descriptor behind its back, the number is now another socket's: the old
/// record goes without closing it.
void forget_stale_connection(std::unique_ptr<connection> &slot)
{
    if (!slot)
        return;
    bufferevent_setfd(slot->bev.get(), -1);
    slot.reset();
}

std::unique_ptr<connection> make_connection(unique_fd &fd, ipc_callback default_callback, event_base *base)
{
    if (evutil_make_socket_nonblocking(fd.get()) != 0 || evutil_make_socket_closeonexec(fd.get()) != 0)
        return nullptr;
    auto made = std::make_unique<connection>();
    made->bev.reset(bufferevent_socket_new(base, fd.get(), BEV_OPT_CLOSE_ON_FREE));
    if (!made->bev)
        return nullptr;
    fd.release();
    made->flush.reset(event_new(base, -1, 0, flush_output, made->bev.get()));
    made->serial = ++bus.connections_made;
    bufferevent_setcb(made->bev.get(), read_frames, nullptr, handle_event, reinterpret_cast<void *>(default_callback));
    bufferevent_setwatermark(made->bev.get(), EV_READ, read_low_watermark, read_high_watermark);
    if (!made->flush || bufferevent_enable(made->bev.get(), EV_READ) != 0)
        return nullptr;
    return made;
}

/// Sets a connected socket up as a connection; takes it, on failure too.
bool ipc_connection_add(unique_fd fd, ipc_callback default_callback, event_base *base)
{
    if (bus.connections_made == 0)
        catch_sigpipe();
    return guarded(false, [&] {
        const auto slot = static_cast<std::size_t>(fd.get());
        if (slot >= bus.connections.size())
            bus.connections.resize(slot + 1);
        forget_stale_connection(bus.connections[slot]);
        bus.connections[slot] = make_connection(fd, default_callback, base);
        return bus.connections[slot] != nullptr;
    });
}

void accept_connection(evconnlistener *listener, evutil_socket_t fd, sockaddr *, int, void *argument)
{
    if (!ipc_connection_add(unique_fd{fd}, reinterpret_cast<ipc_callback>(argument), evconnlistener_get_base(listener)))
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

const sockaddr *generic(const sockaddr_un &address)
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
    if (!bus.listener)
        return;
    bus.listener.reset();
    bus.server_fd = -1;
    if (safestrcmp(bus.server_address.sun_path, path_in_use) != 0)
        unlink(bus.server_address.sun_path);
}

/// A whole frame that several connections have queued; its bytes follow.
struct shared_frame {
    std::size_t holders;

    char *bytes() { return reinterpret_cast<char *>(this + 1); }
};

void release_frame(const void *, std::size_t, void *argument)
{
    auto *frame = static_cast<shared_frame *>(argument);
    if (--frame->holders == 0)
        std::free(frame);
}

/// One message on its way out. Its text belongs to the object and is made when the first connection needs it.
class outgoing_message {
public:
    outgoing_message(json_object *object, bool for_several) noexcept : object_{object}, for_several_{for_several} {}
    outgoing_message(const outgoing_message &) = delete;
    outgoing_message &operator=(const outgoing_message &) = delete;
    ~outgoing_message()
    {
        if (shared_)
            release_frame(nullptr, 0, shared_);
    }

    bool write_to(int fd);

private:
    bool queue_on(const connection &peer);
    bool append(evbuffer *output);
    bool append_copy(evbuffer *output) const;
    bool append_shared(evbuffer *output);
    void fill(char *frame) const;
    std::size_t frame_bytes() const { return header_bytes + body_bytes_; }

    json_object *object_;
    bool for_several_;
    const char *text_ = nullptr;
    std::size_t body_bytes_ = 0;
    shared_frame *shared_ = nullptr;
};

bool outgoing_message::write_to(int fd)
{
    if (fd == -1) {
        log_warning("FD is -1");
        return false;
    }
    const connection *peer = find_connection(fd);
    if (!peer) {
        log_warning_errno("ERROR, no bufferevent found for fd %d", fd);
        return false;
    }
    if (!text_) {
        text_ = json_object_to_json_string_length(object_, JSON_C_TO_STRING_SPACED, &body_bytes_);
        ++body_bytes_; // the NUL
    }
    if (text_ && body_bytes_ > max_body_bytes) {
        log_warning("Message of %u bytes is too long", static_cast<unsigned>(body_bytes_));
        return false;
    }
    if (!text_ || !queue_on(*peer)) {
        const int failure = text_ ? errno : ENOMEM;
        errno = failure;
        std::perror("write");
        errno = failure;
        return false;
    }
    return true;
}

/// Queues the whole frame or nothing of it; errno tells why not.
bool outgoing_message::queue_on(const connection &peer)
{
    evbuffer *output = bufferevent_get_output(peer.bev.get());
    const std::size_t queued = evbuffer_get_length(output);
    if (queued + frame_bytes() > max_queued_bytes) {
        errno = ENOBUFS;
        return false;
    }
    if (queued == 0)
        bufferevent_disable(peer.bev.get(), EV_WRITE); // or libevent would ask first whether the socket is ready
    if (!append(output)) {
        errno = ENOMEM;
        return false;
    }
    if (queued == 0)
        event_active(peer.flush.get(), EV_WRITE, 0);
    return true;
}

bool outgoing_message::append(evbuffer *output)
{
    return for_several_ && frame_bytes() >= shared_from_bytes ? append_shared(output) : append_copy(output);
}

bool outgoing_message::append_copy(evbuffer *output) const
{
    evbuffer_iovec space;
    if (evbuffer_reserve_space(output, static_cast<ev_ssize_t>(frame_bytes()), &space, 1) != 1)
        return false;
    fill(static_cast<char *>(space.iov_base));
    space.iov_len = frame_bytes();
    return evbuffer_commit_space(output, &space, 1) == 0;
}

bool outgoing_message::append_shared(evbuffer *output)
{
    if (!shared_) {
        shared_ = static_cast<shared_frame *>(std::malloc(sizeof(shared_frame) + frame_bytes()));
        if (!shared_)
            return false;
        shared_->holders = 1;
        fill(shared_->bytes());
    }
    if (evbuffer_add_reference(output, shared_->bytes(), frame_bytes(), release_frame, shared_) != 0)
        return false;
    ++shared_->holders;
    return true;
}

void outgoing_message::fill(char *frame) const
{
    const std::uint32_t header = htobe32(static_cast<std::uint32_t>(body_bytes_));
    std::memcpy(frame, &header, header_bytes);
    std::memcpy(frame + header_bytes, text_, body_bytes_);
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
    listener_handle listener{
        evconnlistener_new_bind(base, accept_connection, reinterpret_cast<void *>(default_callback),
                                LEV_OPT_CLOSE_ON_FREE | LEV_OPT_REUSEABLE, -1, generic(address), sizeof address)};
    if (!listener) {
        log_warning_errno("cannot bind");
        return -1;
    }
    const int fd = evconnlistener_get_fd(listener.get());
    evutil_make_socket_closeonexec(fd);
    give_to_group(address.sun_path);
    close_server(address.sun_path);
    evconnlistener_set_error_cb(listener.get(), listener_failed);
    bus.listener = std::move(listener);
    bus.server_fd = fd;
    bus.server_address = address;
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
    if (connect(fd.get(), generic(address), sizeof address) != 0) { // fails for a missing socket too
        log_warning_errno("connect");
        return -1;
    }
    const int handle = fd.get();
    return ipc_connection_add(std::move(fd), default_callback, base) ? handle : -1;
}

int ipc_write(int fd, json_object *object)
{
    return outgoing_message{object, false}.write_to(fd) ? 0 : -1;
}

void ipc_close(int fd)
{
    if (!bus.listener || fd != bus.server_fd) {
        ipc_connection_drop(fd);
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
        ipc_connection_drop(fd);
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
    outgoing_message message{object, true};
    for (const subscriber &entry : bus.subscribers) {
        if (entry.type == type && !message.write_to(entry.fd))
            ++failed;
    }
    return failed;
}
