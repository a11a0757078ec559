/**
 * The message bus: JSON messages between the daemons of the device, over Unix stream sockets and libevent.
 *
 * A daemon opens at most one server and any number of client connections on its event base. A connection is addressed
 * by its socket descriptor; -1 is never a connection. Each arriving message goes to the callback registered under its
 * type, or else to the default handler of its connection. Connections, server, callbacks and subscribers are
 * process-wide state. All functions and handlers belong on the one thread that dispatches the event base.
 *
 * A frame is the length of its body (4 bytes, big-endian) and the body: the JSON text of one object and a NUL. The
 * object has "type", a string, and may have "data"; other members are ignored. A message that is not JSON, not an
 * object, or has no string as "type" is dropped silently. A body has at most 999995 bytes: a peer that announces more
 * is logged ("Message of %u bytes is too long") and loses its connection. A body above 64 kB that would take more than
 * 64 MiB once it is parsed is dropped, which is logged once per connection ("Message of %u bytes takes too much
 * memory").
 *
 * A lost connection shows as the type "error" with NULL data to its default handler; then it is dropped. A daemon that
 * keeps subscribers removes those of the descriptor at that point.
 *
 * When the first connection is made and SIGPIPE still has its default action, an empty handler for it is installed, so
 * that a vanished peer doesn't end the daemon.
 */
#ifndef VANDREL_IPC_H
#define VANDREL_IPC_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct event_base;  /* libevent's event loop */
struct json_object; /* json-c's value */

/**
 * Handles one message, or the end of a connection.
 *
 * fd    the connection that it came on.
 * type  the message's type, as JSON writes it between the quotes: a/b arrives as a\/b. Borrowed for the call.
 * data  the message's "data", NULL without one. Borrowed for the call; json_object_get keeps it longer.
 *
 * A handler may send on any connection, register and deregister callbacks (its own too), subscribe, open connections
 * and close any other one. It must not close the connection that it was called for, except in the "error" notice;
 * where it does so all the same, the messages that wait there are lost.
 */
typedef void (*ipc_callback)(int fd, const char *type, struct json_object *data);

/**
 * Opens the server: listens at "/var/run/vandrel/ipc_NAME.sock", making the folder where it is missing and replacing a
 * socket file that is there.
 *
 * name              the daemon's name on the bus, up to 80 characters (the path is cut after 107).
 * default_callback  of every connection that is accepted; NULL drops what no registered callback takes.
 *
 * Where accepting fails ("error: " is logged), it pauses for 100 ms while the socket goes on listening. So it does
 * where a connection would get one of the last 8 descriptors below the soft limit, or of the last eighth where that is
 * less: that connection is closed ("Connection failed").
 *
 * Returns the listening descriptor, which ipc_close takes, or -1 (logged as "cannot bind", with errno; EINVAL for a
 * NULL name or base). The socket gets the group "vdipc" and mode 0770 where that group exists; a failure to do so is
 * logged, and the server is there all the same.
 *
 * A server that was open before is closed once the new one listens, as by ipc_close; a socket file of the same name
 * stays, since it is the new one's. If the new one fails, the old one stays, but without its socket file when both have
 * the same name.
 */
int ipc_server_new(const char *name, struct event_base *base, ipc_callback default_callback);

/**
 * Connects to the server of another daemon, waiting until that has happened or failed; a signal ends no wait.
 *
 * name              the other daemon's name, up to 80 characters (the path is cut after 106).
 * base              must outlive the connection.
 * default_callback  of this connection; NULL drops what no registered callback takes.
 *
 * Returns the connection's descriptor, or -1 with nothing left open (logged as "connect", with errno; EINVAL for a NULL
 * name or base). After the end of a connection it is called again to reconnect, also from inside the "error" notice.
 */
int ipc_client_new(const char *name, struct event_base *base, ipc_callback default_callback);

/**
 * Queues a message on a connection; it leaves as the event base runs.
 *
 * object  the whole message, "type" and "data"; stays the caller's. NULL is sent as null, which receivers drop.
 *
 * Returns 0, or -1 with nothing queued: fd is no connection, the message is too long (both logged), or it could not be
 * queued (perror's "write" on standard error), which is ENOBUFS when 64 MiB already wait for a peer that doesn't read.
 */
int ipc_write(int fd, struct json_object *object);

/**
 * Closes the server and removes its socket file, when fd is the server's descriptor: accepted connections and their
 * subscriptions stay. Otherwise drops the connection fd, without the "error" notice; what was queued on it and has not
 * left is lost, and its subscriptions stay. Any other descriptor does nothing.
 */
void ipc_close(int fd);

/**
 * Has messages of a type handled by function, in place of any function registered for it before.
 *
 * name      the type, compared exactly with what handlers get as type; copied. NULL does nothing.
 * function  NULL sends these messages to the default handler, as if nothing were registered.
 *
 * It serves all connections. The "error" notice always goes to the default handler. Without memory for it, what was
 * registered before stays.
 */
void ipc_register_callback(const char *name, ipc_callback function);

/** Forgets the callback of a type. NULL, or a type without one, does nothing. */
void ipc_deregister_callback(const char *name);

/** Forgets the callback of a type, or all callbacks with a NULL name. */
void ipc_deregister_all_callbacks(const char *name);

/**
 * Subscribes a connection to messages of a type, which the daemon sends with ipc_server_write_to_subscribers.
 *
 * type  compared exactly; copied.
 * fd    any descriptor but -1; whether it is a connection is not looked at.
 *
 * Returns 0 when the subscription is held; one that was held before moves to the end. -1 for a NULL type, for the
 * descriptor -1, without memory, and when 50 subscriptions are held already, all types together: then an existing one
 * cannot be renewed either, and stays. Silent.
 *
 * A subscription lasts until it is removed: it outlives its connection and the server.
 */
int ipc_server_add_subscriber(const char *type, int fd);

/** Removes the subscription of fd to a type, or all of fd with a NULL type. Returns how many; 0 for the descriptor -1.
 */
int ipc_server_remove_subscriber_typed(const char *type, int fd);

/** Removes all subscriptions of fd. Returns how many. */
int ipc_server_remove_subscriber(int fd);

/**
 * With -1, removes every subscription and touches no connection. With a descriptor that has a subscription, drops its
 * connection and removes all its subscriptions; without one, does nothing.
 */
void ipc_server_remove_all_subscribers(int fd);

/**
 * Writes the descriptors that are subscribed to a type into fds, in order of subscription.
 *
 * fds  room for 50; left as it was beyond the result.
 *
 * Returns how many; 0 for a NULL argument.
 */
int ipc_server_get_subscibers(int *fds, const char *type);

/**
 * Queues a message for every subscriber of a type, as ipc_write does.
 *
 * Returns for how many that failed, each with ipc_write's own record; they stay subscribed. 0 for a NULL type. The
 * message is turned into text once, and a long text is kept once for all of them.
 */
int ipc_server_write_to_subscribers(const char *type, struct json_object *object);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
