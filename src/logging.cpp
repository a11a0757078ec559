#include "logging.h"

#include "handles.hpp"

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
    std::mutex lock; // syslog has one name for all, and libevtlog counts the references to a context without a lock
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

/// libevtlog calls this for each record that it makes for a context. It would itself name the process to syslog only
/// once, at the first record of all.
int take_name(EVTREC *, void *name)
{
    openlog(static_cast<const char *>(name), LOG_PID, LOG_DAEMON);
    return 1;
}

/// A context of libevtlog whose records carry the name, or null.
EVTCONTEXT *open_event_log(const char *name)
{
    EVTCONTEXT *opened = evt_ctx_init(name, LOG_DAEMON);
    if (opened && evt_ctx_tag_hook_add(opened, take_name, const_cast<char *>(name)) != 1) {
        evt_ctx_free(opened);
        return nullptr;
    }
    return opened;
}

void add_tag(EVTREC *record, EVTTAG *tag)
{
    if (tag)
        evt_rec_add_tag(record, tag);
}

} // namespace

logging_ctx *libvandrel_logcontext = nullptr;

logging_ctx *vd_logging_initialize(const char *ident, int echo_stderr)
{
    auto *ctx = static_cast<logging_ctx *>(std::calloc(1, sizeof(logging_ctx)));
    if (!ctx)
        return nullptr;
    ctx->event_ctx = open_event_log(ident ? ident : program_invocation_short_name);
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
