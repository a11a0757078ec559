// bus serve: stands in for a daemon, for tests of its clients.
#include "bus.hpp"
#include "command.hpp"
#include "ipc.h"
#include "message.hpp"
#include "served.hpp"
#include "zone_file.hpp"

#include <algorithm>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

namespace vdctl {

int bus_serve(const invocation &given);

namespace {

/// A message that arrived, for what stands for it in a reply.
struct arrived {
    const std::string &type;
    json_object *data;
};

json_object *filled_in(json_object *pattern, const arrived &message);

json_object *filled_in_members(json_object *pattern, const arrived &message)
{
    json_object *object = json_object_new_object();
    json_object_object_foreach(pattern, key, value) json_object_object_add(object, key, filled_in(value, message));
    return object;
}

json_object *filled_in_items(json_object *pattern, const arrived &message)
{
    json_object *array = json_object_new_array();
    for (std::size_t i = 0; i < json_object_array_length(pattern); ++i)
        json_object_array_add(array, filled_in(json_object_array_get_idx(pattern, i), message));
    return array;
}

/// The pattern with what arrived in place of "$type" and "$data".
json_object *filled_in(json_object *pattern, const arrived &message)
{
    if (json_object_is_type(pattern, json_type_object))
        return filled_in_members(pattern, message);
    if (json_object_is_type(pattern, json_type_array))
        return filled_in_items(pattern, message);
    const char *word = json_object_is_type(pattern, json_type_string) ? json_object_get_string(pattern) : "";
    if (std::strcmp(word, "$type") == 0)
        return new_string(message.type);
    return json_object_get(std::strcmp(word, "$data") == 0 ? message.data : pattern);
}

/// Calls use with each message that answers a type.
template <typename Use> void for_each_reply(json_object *replies, Use &&use)
{
    if (!json_object_is_type(replies, json_type_array)) {
        use(replies);
        return;
    }
    for (std::size_t i = 0; i < json_object_array_length(replies); ++i)
        use(json_object_array_get_idx(replies, i));
}

json_handle read_replies(const char *word)
{
    json_handle replies = read_json(word, "REPLIES");
    if (!json_object_is_type(replies.get(), json_type_object))
        throw misuse{"REPLIES is no object"};
    json_object_object_foreach(replies.get(), type, answers)
    {
        for_each_reply(answers, [&](json_object *reply) {
            if (!json_object_is_type(value_of(reply, "type"), json_type_string))
                throw misuse{"REPLIES: what answers " + quoted(type) + " is no message, it has no \"type\""};
        });
    }
    return replies;
}

/// Opening the server would take the name over from a daemon without a word, and make the folder for vdctl alone.
void refuse_where_it_would_harm(const std::string &name)
{
    const std::vector<served_name> names = served_names();
    const auto found = std::ranges::find(names, name, &served_name::name);
    if (found != names.end() && found->by != serving::nobody)
        throw failure{quoted(name) + " is served already" +
                      (found->pid ? ", by process " + text{*found->pid} : text{})};
    if (access(bus_folder, W_OK) != 0)
        fail_with_errno("cannot serve in " + text{bus_folder});
}

pid_t sender_of(int fd)
{
    ucred sender{};
    socklen_t size = sizeof sender;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &sender, &size) == 0 ? sender.pid : 0;
}

void answer(int fd, json_object *replies, const arrived &message)
{
    json_object *answers = value_of(replies, message.type.c_str());
    if (!answers)
        return;
    for_each_reply(answers, [&](json_object *reply) {
        const json_handle filled{filled_in(reply, message)};
        if (ipc_write(fd, filled.get()) != 0)
            warn("an answer to " + quoted(message.type) + " could not be sent");
    });
}

} // namespace

int bus_serve(const invocation &given)
{
    const std::string name = daemon_name(given.words[0]);
    const unsigned patience = number_of(given, 't', 0), count = number_of(given, 'c', 0);
    const json_handle replies = given.words.size() > 1 ? read_replies(given.words[1]) : nullptr;
    refuse_where_it_would_harm(name);

    unsigned shown = 0;
    int idle = 0; // what there was to wait for before the last answer
    bus_loop bus{patience, [&](int fd, const std::string &type, json_object *data) {
                     if (count && shown == count)
                         return;
                     print_message(shown_time::yes, type, data, sender_of(fd));
                     idle = bus.pending();
                     answer(fd, replies.get(), {type, data});
                     if (++shown == count)
                         bus.stop(status_yes);
                 }};
    bus.stop_when_interrupted(status_yes);
    if (bus.serve(name) == -1)
        fail_with_errno("cannot serve as " + quoted(name));
    const status ended = bus.run();
    if (count && shown == count)
        return bus.run_until([&] { return bus.pending() <= idle; }).value_or(ended); // the answer has to leave
    return ended == status_late && !count ? status_yes : ended;
}

} // namespace vdctl
