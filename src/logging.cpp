#include "logging.h"

#include "handles.hpp"
#include "log_connection.hpp"

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <errno.h>
#include <libgen.h> // POSIX basename, which may write into its argument
#include <syslog.h>

#include <glib.h> // evtlog.h includes it, and it must stay outside extern "C"
extern "C" {
#include <evtlog.h>
}

namespace {

using namespace vandrel;

struct {
    const char *name = nullptr; // of the first context; libevtlog gives one name to syslog, at the first record
    std::mutex lock;            // libevtlog counts the references to a context without one
} state;

constexpr std::size_t position_room = 16; // ":", a line number and the NUL

c_string format_message(const char *format, va_list args)
{
    char *message = nullptr;
    if (!format || vasprintf(&message, format, args) < 0)
        return nullptr; // message is undefined after a failure
    return c_string{message};
}

/// "zones.c:214", or null when memory runs out.
c_string format_position(const char *file, int line)
{
    c_string path{strdup(file)};
    if (!path)
        return nullptr;
    const char *name = basename(path.get());
    const std::size_t size = std::strlen(name) + position_room;
    c_string position{static_cast<char *>(std::malloc(size))};
    if (position)
        std::snprintf(position.get(), size, "%s:%d", name, line);
    return position;
}

void add_tag(EVTREC *record, EVTTAG *tag)
{
    if (tag)
        evt_rec_add_tag(record, tag);
}

} // namespace

void vandrel::disconnect_log() noexcept
{
    closelog(); // in glibc this also drops the name
    if (state.name)
        openlog(state.name, LOG_PID, LOG_DAEMON);
}

logging_ctx *libvandrel_logcontext = nullptr;

logging_ctx *vd_logging_initialize(const char *ident, int echo_stderr)
{
    auto *ctx = static_cast<logging_ctx *>(std::calloc(1, sizeof(logging_ctx)));
    if (!ctx)
        return nullptr;
    if (!ident)
        ident = program_invocation_short_name;
    if (!state.name)
        state.name = ident;
    ctx->event_ctx = evt_ctx_init(ident, LOG_DAEMON);
    ctx->echo_stderr = echo_stderr;
    return ctx;
}

logging_ctx *logging_init(const char *ident, int echo_stderr)
{
    libvandrel_logcontext = vd_logging_initialize(ident, echo_stderr);
    return libvandrel_logcontext;
}

void vd_logging_close(logging_ctx **ctx)
{
    if (!ctx || !*ctx)
        return;
    if ((*ctx)->event_ctx)
        evt_ctx_free((*ctx)->event_ctx);
    std::free(*ctx);
    *ctx = nullptr;
}

int vd_logging_log(logging_ctx *ctx, int priority, const char *file, int line, int err, const char *format, ...)
{
    if (!ctx || !ctx->event_ctx)
        return -1;

    va_list args;
    va_start(args, format);
    const c_string message = format_message(format, args);
    va_end(args);
    if (!message)
        return -2;

    const std::lock_guard guard{state.lock};
    EVTREC *record = evt_rec_init(ctx->event_ctx, priority, message.get());
    if (!record)
        return -3;
    if (err != -1)
        add_tag(record, evt_tag_errno("error", err));
    if (file) {
        if (const c_string position = format_position(file, line))
            add_tag(record, evt_tag_str("filename", position.get()));
    }
    if (ctx->echo_stderr != 0) {
        const c_string rendered{evt_format(record)};
        if (rendered)
            std::fprintf(stderr, "%s\n", rendered.get());
    }
    return evt_log(record) == 1 ? 0 : -4; // takes the record and its tags
}
