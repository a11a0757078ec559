#include "failure.hpp"

#include <cstdio>

namespace libuci {

namespace {

constexpr const char *texts[UCI_ERR_LAST] = {"Success",   "Out of memory", "Invalid argument", "Entry not found",
                                             "I/O error", "Parse error",   "Duplicate entry",  "Unknown error"};

} // namespace

char *error_text(int code, const std::optional<parse_failure> &details, const char *prefix) noexcept
{
    char position[160] = "";
    if (details)
        std::snprintf(position, sizeof position, " (%s) at line %zu, byte %zu", details->reason, details->line,
                      details->byte);
    char *text = nullptr;
    const int length = asprintf(&text, "%s%s%s%s", prefix ? prefix : "", prefix ? ": " : "", texts[code], position);
    return length < 0 ? nullptr : text;
}

} // namespace libuci
