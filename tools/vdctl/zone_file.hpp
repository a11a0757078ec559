// vdctl's own reading of a zone file: what the library does not tell, which is where each zone, member and key stands.
// json-c judges the text and gives the values; a scanner beside it only notes the places of keys.
#pragma once

#include "handles.hpp"
#include "zones.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vdctl {

inline constexpr char live_file[] = "/etc/vandrel/zones.json";
inline constexpr std::size_t common_name_length = 26, port_name_length = 13; // longer ones are cut

/// A key of an object. Of equal keys json-c keeps the place of the first and the value of the last, and so does this.
struct scanned_key {
    std::string name;
    unsigned line = 1;
    std::size_t value = 0;                          // where the value begins
    std::vector<scanned_key> inside;                // the keys of the value, if it is an object
    std::unique_ptr<std::vector<unsigned>> earlier; // the lines of equal keys, which do not count; usually none
};

/// Scans a text that json-c accepts. The result is the document itself, a value without a key.
scanned_key scan(std::string_view json);

/// The file's bytes, as they were at one moment.
struct zone_text {
    std::string name; // as it was given
    std::string bytes;
    std::optional<time_t> mtime; // none for what is no regular file
};

/// Reads a file whole ("-": standard input), or fails.
zone_text read_zone_text(const char *path);

struct zone_document {
    json_handle root; // null: no JSON
    scanned_key keys;
    unsigned fault_line = 0; // where root is null
    std::string fault;
};

zone_document parse(const zone_text &text);

/// Calls use(key, value) with each key of an object and its value, which is null where the file has null.
template <typename Use> void for_each_key(json_object *object, const scanned_key &place, Use &&use)
{
    if (!json_object_is_type(object, json_type_object))
        return;
    auto key = place.inside.begin();
    json_object_object_foreach(object, name, value)
    {
        static_cast<void>(name);
        use(*key++, value);
    }
}

/// The value of a key, null where the file has null or nothing.
json_object *value_of(json_object *object, const char *key);

/// The place of a key that the object has.
const scanned_key *place_of(const scanned_key &object, std::string_view key);

/// A zone's id from its key, none when the library passes the zone over.
std::optional<int32_t> zone_id(const std::string &key);

bool flag_of(json_object *value);
zone_direction direction_of(json_object *member);
zone_member_type type_of(json_object *member); // a network counts as a range

/// The member as the library holds it, none when it drops it.
std::optional<zone_member> read_member(const std::string &key, json_object *member);

/// The text of an end of an address member.
std::string ip_text(uint32_t ip);
std::string mac_text(uint64_t mac);

} // namespace vdctl
