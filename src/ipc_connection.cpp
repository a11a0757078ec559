#include "ipc_connection.hpp"

#include "boundary.hpp"
#include "heap.hpp"
#include "lasting.hpp"
#include "log.hpp"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>
#include <vector>

#include <signal.h>
#include <sys/socket.h>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>

namespace vandrel {
namespace {

constexpr std::size_t max_queued_bytes = 64 << 20; // on one connection
constexpr std::size_t min_read_bytes = 4096;       // asked for at a time
constexpr std::size_t max_read_bytes = 65'536;

/// bufferevent_free closes the socket on a later turn of the loop only, which may never come; so it is closed here.
void close_bufferevent(bufferevent *bev)
{
    const int fd = bufferevent_getfd(bev);
    bufferevent_setfd(bev, -1);
    bufferevent_free(bev);
    close(fd);
}
using bufferevent_handle = std::unique_ptr<bufferevent, released_by<close_bufferevent>>;

/// Any handler may drop any connection: what is needed of one after a handler has run is copied before.
struct connection {
    int fd;
    std::uint64_t serial; // tells it from a later connection with the same descriptor
    ipc_dispatch dispatch;
    ipc_callback default_callback;
    bufferevent_handle bev;
    event_handle arrival;                    // something can be read
    event_handle flush;                      // made active by hand when a first frame is queued
    std::size_t wanted_bytes = header_bytes; // of input: as far as the next frame reaches, or is known to reach
    bool has_sent_too_costly = false;

    evbuffer *input() const { return bufferevent_get_input(bev.get()); }
    evbuffer *output() const { return bufferevent_get_output(bev.get()); }
};

struct connection_table {
    std::vector<std::unique_ptr<connection>> by_fd;
    std::uint64_t made = 0;
    bool has_handled_long_body = false;
    char arriving[max_read_bytes]; // what came last, for a connection that had nothing waiting
    bool is_arriving_used = false;
};
lasting<connection_table> state;
connection_table &table = state.value;

connection *find_connection(int fd)
{
    const auto slot = static_cast<std::size_t>(fd); // a negative one is beyond any size
    return slot < table.by_fd.size() ? table.by_fd[slot].get() : nullptr;
}

bool is_open(int fd, std::uint64_t serial)
{
    const connection *found = find_connection(fd);
    return found && found->serial == serial;
}

/// The end of a connection, whoever noticed it. The notice may drop it, and connect anew with the same descriptor.
void fail(const connection &peer)
{
    const int fd = peer.fd;
    const std::uint64_t serial = peer.serial;
    if (peer.default_callback)
        peer.default_callback(fd, "error", nullptr);
    if (is_open(fd, serial))
        drop_connection(fd);
    log_warning("end of file or error "); // the blank at the end is part of the message
}

void handle_events(const connection &peer, short events)
{
    const int system_error = errno; // of the read or write that failed
    log_info("Event");
    if ((events & BEV_EVENT_ERROR) != 0) {
        log_warning("Bufferevent error");
        errno = system_error;
        std::perror("Error from bufferevent");
    }
    if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) != 0)
        fail(peer);
}

bool is_failure(ssize_t size)
{
    return size < 0 && errno != EAGAIN && errno != EINTR;
}

void log_too_long(std::uint64_t body_bytes)
{
    log_warning("Message of %u bytes is too long", static_cast<unsigned>(body_bytes));
}

/// The message in a body that is worth its memory.
json_handle read_body(connection &peer, std::string_view body)
{
    if (body.size() <= long_body_bytes)
        return parse_body(body);
    table.has_handled_long_body = true;
    if (!is_too_costly(body))
        return parse_body(body);
    if (!std::exchange(peer.has_sent_too_costly, true)) // one record is enough
        log_warning("Message of %u bytes takes too much memory", static_cast<unsigned>(body.size()));
    return nullptr;
}

/// Handles the whole frames at the start of the bytes and takes them off. Gives the size of the next one, as far as it
/// is known, or 0 where a handler has dropped the connection, and the bytes with it.
std::uint64_t handle_frames(connection &peer, std::string_view &bytes)
{
    const int fd = peer.fd;
    const std::uint64_t serial = peer.serial;
    std::uint64_t size = frame_size(bytes);
    for (; size <= std::min(bytes.size(), max_frame_bytes); size = frame_size(bytes)) {
        const std::string_view frame = bytes.substr(0, static_cast<std::size_t>(size));
        if (const json_handle message = read_body(peer, frame.substr(header_bytes)))
            peer.dispatch(fd, message.get(), peer.default_callback);
        if (!is_open(fd, serial))
            return 0;
        bytes.remove_prefix(frame.size());
    }
    return size;
}

/// Notes how much must come before there is a frame to handle; false where the connection has ended.
bool expect_frame(connection &peer, std::uint64_t next_bytes)
{
    if (next_bytes == 0)
        return false;
    if (next_bytes > max_frame_bytes) {
        log_too_long(next_bytes - header_bytes);
        fail(peer);
        return false;
    }
    peer.wanted_bytes = static_cast<std::size_t>(next_bytes);
    return true;
}

void fail_without_memory(const connection &peer)
{
    log_error("ERROR, too few bytes");
    fail(peer);
}

/// Handles all whole frames that wait. Those that lie in one piece leave the input together, as that costs no more than
/// for one.
void handle_input(connection &peer)
{
    evbuffer *input = peer.input();
    while (evbuffer_get_length(input) >= peer.wanted_bytes) {
        const auto *start =
            reinterpret_cast<const char *>(evbuffer_pullup(input, static_cast<ev_ssize_t>(peer.wanted_bytes)));
        if (!start)
            return fail_without_memory(peer);
        const std::string_view held{start, evbuffer_get_contiguous_space(input)};
        std::string_view rest = held;
        const std::uint64_t next = handle_frames(peer, rest);
        if (next > 0)
            evbuffer_drain(input, held.size() - rest.size());
        if (!expect_frame(peer, next))
            return;
    }
}

/// Whether a read brought bytes. The end of the stream, or an error, ends the connection.
bool has_brought(const connection &peer, ssize_t size)
{
    if (size == 0)
        handle_events(peer, BEV_EVENT_READING | BEV_EVENT_EOF);
    else if (is_failure(size))
        handle_events(peer, BEV_EVENT_READING | BEV_EVENT_ERROR);
    return size > 0;
}

/// Where nothing waits, whole frames are handled where they came, and only the start of one more is put by.
void read_anew(connection &peer)
{
    const ssize_t size = recv(peer.fd, table.arriving, sizeof table.arriving, 0);
    if (!has_brought(peer, size))
        return;
    std::string_view rest{table.arriving, static_cast<std::size_t>(size)};
    const bool goes_on = expect_frame(peer, handle_frames(peer, rest));
    if (goes_on && !rest.empty() && evbuffer_add(peer.input(), rest.data(), rest.size()) != 0)
        fail_without_memory(peer);
}

/// Reads on in a frame that has begun. Memory is taken only in step with what comes.
void read_on(connection &peer)
{
    evbuffer *input = peer.input();
    const std::size_t missing = peer.wanted_bytes - evbuffer_get_length(input);
    const std::size_t wanted = std::clamp(missing, min_read_bytes, max_read_bytes);
    evbuffer_iovec space;
    if (evbuffer_reserve_space(input, static_cast<ev_ssize_t>(wanted), &space, 1) != 1)
        return fail_without_memory(peer);
    const ssize_t size = recv(peer.fd, space.iov_base, wanted, 0);
    if (!has_brought(peer, size))
        return;
    space.iov_len = static_cast<std::size_t>(size);
    evbuffer_commit_space(input, &space, 1);
    handle_input(peer);
}

/// A handler may run a loop of its own, in which other connections have something to read.
void handle_arrival(connection &peer)
{
    if (evbuffer_get_length(peer.input()) > 0 || table.is_arriving_used) {
        read_on(peer);
    } else {
        table.is_arriving_used = true;
        read_anew(peer);
        table.is_arriving_used = false;
    }
    if (std::exchange(table.has_handled_long_body, false))
        give_memory_back();
}

/// Writes what was queued since the loop ran last in one go, without asking first whether the socket is ready. What
/// doesn't go is left to libevent.
void flush_output(const connection &peer)
{
    evbuffer *output = peer.output();
    evbuffer_unfreeze(output, 1); // a bufferevent opens the front of its output for its own writes only
    const int size = evbuffer_write(output, peer.fd);
    evbuffer_freeze(output, 1);
    if (is_failure(size) || (evbuffer_get_length(output) > 0 && bufferevent_enable(peer.bev.get(), EV_WRITE) != 0))
        handle_events(peer, BEV_EVENT_WRITING | BEV_EVENT_ERROR);
}

/// Queues the whole frame or nothing of it; errno tells why not.
bool queue_on(const connection &peer, outgoing_frame &frame)
{
    evbuffer *output = peer.output();
    const std::size_t queued = evbuffer_get_length(output);
    if (queued + frame.frame_bytes() > max_queued_bytes) {
        errno = ENOBUFS;
        return false;
    }
    if (queued == 0)
        bufferevent_disable(peer.bev.get(), EV_WRITE); // or libevent would ask first whether the socket is ready
    if (!frame.append_to(output)) {
        errno = ENOMEM;
        return false;
    }
    if (queued == 0)
        event_active(peer.flush.get(), EV_WRITE, 0);
    return true;
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

connection &connection_of(void *argument)
{
    return *static_cast<connection *>(argument);
}

/// The bufferevent writes what doesn't go at once. It doesn't read: it would first ask how much waits, and then take
/// 4096 bytes of it.
bool listen_to(connection &made, event_base *base)
{
    made.arrival.reset(event_new(
        base, made.fd, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void *argument) { handle_arrival(connection_of(argument)); }, &made));
    made.flush.reset(event_new(
        base, -1, 0, [](evutil_socket_t, short, void *argument) { flush_output(connection_of(argument)); }, &made));
    bufferevent_setcb(
        made.bev.get(), nullptr, nullptr,
        [](bufferevent *, short events, void *argument) { handle_events(connection_of(argument), events); }, &made);
    bufferevent_set_max_single_write(made.bev.get(), max_queued_bytes); // or a burst would leave by 16 kB at a time
    evbuffer_unfreeze(made.input(), 0);                                 // we fill it
    return made.arrival && made.flush && event_add(made.arrival.get(), nullptr) == 0;
}

std::unique_ptr<connection> make_connection(unique_fd fd, event_base *base, ipc_dispatch dispatch,
                                            ipc_callback default_callback)
{
    if (evutil_make_socket_nonblocking(fd.get()) != 0 || evutil_make_socket_closeonexec(fd.get()) != 0)
        return nullptr;
    auto made = std::make_unique<connection>(
        connection{fd.get(), ++table.made, dispatch, default_callback, nullptr, nullptr, nullptr});
    made->bev.reset(bufferevent_socket_new(base, fd.get(), BEV_OPT_CLOSE_ON_FREE));
    if (!made->bev)
        return nullptr;
    fd.release();
    return listen_to(*made, base) ? std::move(made) : nullptr;
}

} // namespace

bool add_connection(unique_fd fd, event_base *base, ipc_dispatch dispatch, ipc_callback default_callback)
{
    if (table.made == 0)
        catch_sigpipe();
    return guarded(false, [&] {
        const auto slot = static_cast<std::size_t>(fd.get());
        if (slot >= table.by_fd.size())
            table.by_fd.resize(slot + 1);
        forget_connection(fd.get());
        table.by_fd[slot] = make_connection(std::move(fd), base, dispatch, default_callback);
        return table.by_fd[slot] != nullptr;
    });
}

void drop_connection(int fd)
{
    if (find_connection(fd))
        table.by_fd[static_cast<std::size_t>(fd)].reset();
}

void forget_connection(int fd)
{
    if (const connection *stale = find_connection(fd)) {
        bufferevent_setfd(stale->bev.get(), -1);
        drop_connection(fd);
    }
}

bool write_frame(int fd, outgoing_frame &frame)
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
    const bool has_text = frame.make_text();
    if (has_text && frame.body_bytes() > max_body_bytes) {
        log_too_long(frame.body_bytes());
        return false;
    }
    if (!has_text || !queue_on(*peer, frame)) {
        const int failure = has_text ? errno : ENOMEM;
        errno = failure;
        std::perror("write");
        errno = failure;
        return false;
    }
    return true;
}

} // namespace vandrel
