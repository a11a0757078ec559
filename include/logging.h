/**
 * Logging: one call that sends a structured record to the system log.
 *
 * A record carries its text, the tag "error" when a system call failed, and the tag "filename" with the source file and
 * line. A daemon opens the library's own context once, with logging_init; until then every record of the library is
 * dropped. Several threads may log, one after another; opening and closing a context is for one thread, before and
 * after all others log.
 */
#ifndef VANDREL_LOGGING_H
#define VANDREL_LOGGING_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct __evtcontext; /* libevtlog's context; its header is not needed by daemons */

typedef struct logging_ctx {
    struct __evtcontext *event_ctx; /* NULL when libevtlog could not open one: every log call then gives -1 */
    int32_t echo_stderr;            /* not 0: each record is also printed on standard error, before it is sent */
} logging_ctx;

/** The context that the library itself logs through, NULL until logging_init; for a daemon's own records too. */
extern logging_ctx *libvandrel_logcontext;

/**
 * Opens a context of the caller's own, with the facility LOG_DAEMON.
 *
 * ident        the program name that records of this context carry, borrowed until the process ends: syslog keeps its
 *              address. NULL takes the name that the program was started under.
 * echo_stderr  stored unchanged in the context.
 *
 * Returns a new context, which vd_logging_close releases, or NULL when memory runs out. When libevtlog fails, the
 * context is there with a NULL event_ctx.
 */
logging_ctx *vd_logging_initialize(const char *ident, int echo_stderr);

/**
 * Opens a context as vd_logging_initialize does, stores it in libvandrel_logcontext and returns it.
 *
 * A context that was there before is overwritten and not closed; whoever still holds it closes it.
 */
logging_ctx *logging_init(const char *ident, int echo_stderr);

/**
 * Closes the context that *ctx points to and sets *ctx to NULL. A NULL ctx or *ctx does nothing.
 *
 * For the library's own context: vd_logging_close(&libvandrel_logcontext).
 */
void vd_logging_close(logging_ctx **ctx);

/**
 * Logs one record.
 *
 * priority  a severity of <syslog.h>, LOG_EMERG to LOG_DEBUG.
 * file      source file of the record; its last path component becomes part of the tag "filename". NULL: no such tag.
 * line      source line, after the file name in that tag.
 * err       errno of the failed system call, given as the tag "error"; -1 for none (0 is a value like any other).
 * format    printf format of the text and its arguments; no newline is added or taken away.
 *
 * Returns 0 when the event log took the record; -1 when ctx or its event_ctx is NULL (nothing is formatted); -2 when
 * the text could not be formatted, a NULL format included; -3 when the record could not be made; -4 when the event log
 * failed. A tag that cannot be made is left out and does not fail the call.
 *
 * Each record tells syslog the name of its context, as openlog does: a daemon that also calls syslog itself sends under
 * the name of the last record.
 *
 * The record goes to /dev/log and waits while that socket is full. Without a listener it is lost without a failure, and
 * so is a text that is too long for one datagram (some 200 kB on Linux with glibc).
 */
int vd_logging_log(logging_ctx *ctx, int priority, const char *file, int line, int err, const char *format, ...)
    __attribute__((format(printf, 6, 7)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
