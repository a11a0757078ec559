// How a module logs: it defines log_module, the source name its records carry, in its unnamed namespace and calls
// log_error("text %s", argument). The _errno variants attach errno, so nothing may run between the failed call and
// them.
#pragma once

#include "logging.h"

#include <cerrno>
#include <syslog.h>

#define log_at(priority, err, ...) \
    static_cast<void>(vd_logging_log(libvandrel_logcontext, priority, log_module, __LINE__, err, __VA_ARGS__))

#define log_error(...) log_at(LOG_ERR, -1, __VA_ARGS__)
#define log_warning(...) log_at(LOG_WARNING, -1, __VA_ARGS__)
#define log_info(...) log_at(LOG_INFO, -1, __VA_ARGS__)

#define log_error_errno(...) log_at(LOG_ERR, errno, __VA_ARGS__)
#define log_warning_errno(...) log_at(LOG_WARNING, errno, __VA_ARGS__)
