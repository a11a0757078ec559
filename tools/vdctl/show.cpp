#include "show.hpp"

#include "command.hpp"
#include "output.hpp"

namespace vdctl {

text now_text(bool is_open, bool is_asked)
{
    return !is_asked ? text{"not asked"} : is_open ? text{"open"} : text{"closed"};
}

text zones_text(const std::vector<source> &members)
{
    text line;
    for (const source &from : members)
        line += (line.empty() ? text{} : text{","}) + text::of(from.zone->key) + ":" + text{from.member->line};
    return line;
}

std::vector<text> cells_of(const extent &reached, bool is_asked)
{
    return {text::of(kind_of(reached.type)), text::of(target_text(reached)), now_text(reached.is_open, is_asked),
            zones_text(reached.members)};
}

json_object *json_of(const std::vector<source> &members)
{
    json_object *list = json_object_new_array();
    for (const source &from : members) {
        json_object *object = json_object_new_object();
        json_object_object_add(object, "zone", new_string(from.zone->key));
        json_object_object_add(object, "member", new_string(from.member->key));
        json_object_object_add(object, "line", json_object_new_int64(from.member->line));
        json_object_array_add(list, object);
    }
    return list;
}

json_object *json_of(const target &what)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "type", json_object_new_string(kind_of(what.type)));
    json_object_object_add(object, "value", new_string(value_of(what)));
    return object;
}

json_object *json_of(const extent &reached, bool is_asked)
{
    json_object *object = json_object_new_object();
    json_object_object_add(object, "type", json_object_new_string(kind_of(reached.type)));
    add_target(object, reached);
    json_object_object_add(object, "open", is_asked ? json_object_new_boolean(reached.is_open) : nullptr);
    json_object_object_add(object, "members", json_of(reached.members));
    return object;
}

void add_target(json_object *object, const extent &reached)
{
    if (reached.type == ZONE_MEMBER_PORT || reached.type == ZONE_MEMBER_SERIALIZATION) {
        json_object_object_add(object, "value", new_string(reached.name));
        return;
    }
    const bool is_mac = reached.type == ZONE_MEMBER_MAC_RANGE, is_range = reached.type != ZONE_MEMBER_IP_NETWORK;
    const auto written = [=](uint64_t value) {
        return new_string(is_mac ? mac_text(value) : ip_text(static_cast<uint32_t>(value)));
    };
    json_object_object_add(object, "start", written(reached.start));
    json_object_object_add(object, is_range ? "end" : "netmask", written(reached.end));
}

int say_disagreement()
{
    error("the library and vdctl's own reading of the file differ; what is shown is the library's");
    return status_disagreement;
}

} // namespace vdctl
