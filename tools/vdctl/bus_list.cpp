// bus list: who serves on the message bus.
#include "command.hpp"
#include "handles.hpp"
#include "served.hpp"

#include <cstdio>

namespace vdctl {

int bus_list(const invocation &given);

namespace {

text state_of(const served_name &served)
{
    return served.by == serving::nobody ? text{"no listener"}
           : served.by == serving::one  ? text{"serving"}
                                        : text{"twice"};
}

std::string mode_of(const served_name &served)
{
    char octal[16];
    std::snprintf(octal, sizeof octal, "%04o", static_cast<unsigned>(served.mode));
    return octal;
}

text or_dash(const text &cell)
{
    return cell.empty() ? text{"-"} : cell;
}

void print_table(const std::vector<served_name> &names)
{
    table shown{{"NAME", "STATE", "PID", "COMMAND", "USER", "GROUP", "MODE", "PEERS"}};
    for (const served_name &served : names) {
        shown.add({text::of(served.name), state_of(served), served.pid ? text{*served.pid} : text{"-"},
                   or_dash(text::of(served.command)), text::of(user_name(served.user)),
                   text::of(group_name(served.group)), text::of(mode_of(served)), text{served.peers}});
    }
    shown.print();
}

json_object *json_of(const served_name &served)
{
    json_object *row = json_object_new_object();
    json_object_object_add(row, "name", new_string(served.name));
    json_object_object_add(row, "state", new_string(state_of(served).str()));
    json_object_object_add(row, "pid", served.pid ? json_object_new_int(*served.pid) : nullptr);
    json_object_object_add(row, "command", served.pid ? new_string(served.command) : nullptr);
    json_object_object_add(row, "user", new_string(user_name(served.user)));
    json_object_object_add(row, "group", new_string(group_name(served.group)));
    json_object_object_add(row, "mode", new_string(mode_of(served)));
    json_object_object_add(row, "peers", json_object_new_int64(served.peers));
    return row;
}

} // namespace

int bus_list(const invocation &)
{
    const std::vector<served_name> names = served_names();
    if (style().json) {
        json_object *rows = json_object_new_array();
        for (const served_name &served : names)
            json_object_array_add(rows, json_of(served));
        json_object *object = json_object_new_object();
        json_object_object_add(object, "daemons", rows);
        print_json(object);
    } else {
        print_table(names);
    }
    return names.empty() ? status_no : status_yes;
}

} // namespace vdctl
