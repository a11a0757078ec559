#include "message.hpp"

#include "output.hpp"

#include <cstdio>
#include <ctime>

namespace vdctl {

namespace {

/// "03:20:53.118" of the local day, or the UTC that JSON has: "2026-03-01T03:20:53.118Z".
std::string now_text(bool is_local)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    is_local ? localtime_r(&now.tv_sec, &parts) : gmtime_r(&now.tv_sec, &parts);
    char day[40], fraction[32];
    std::strftime(day, sizeof day, is_local ? "%H:%M:%S" : "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(fraction, sizeof fraction, ".%03ld%s", now.tv_nsec / 1'000'000, is_local ? "" : "Z");
    return std::string{day} + fraction;
}

json_object *json_of(const std::string &type, json_object *data, pid_t pid)
{
    json_object *line = json_object_new_object();
    json_object_object_add(line, "time", new_string(now_text(false)));
    if (pid)
        json_object_object_add(line, "pid", json_object_new_int(pid));
    json_object_object_add(line, "type", new_string(type));
    json_object_object_add(line, "data", json_object_get(data));
    return line;
}

} // namespace

void print_message(shown_time time, const std::string &type, json_object *data, pid_t pid)
{
    if (style().json)
        print_json(json_of(type, data, pid));
    else
        print_raw((time == shown_time::yes ? now_text(true) + ' ' : "") + text::of(type).str() +
                  (data ? ' ' + json_text(data) : "") + '\n');
    flush_output();
}

} // namespace vdctl
