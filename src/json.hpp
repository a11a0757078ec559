// What all readers of JSON ask.
#pragma once

#include <json-c/json.h>

namespace vandrel {

/// The value of a key, borrowed from object; null where it is JSON's null, where there is no such key, and where object
/// is null or no JSON object.
inline json_object *member_of(json_object *object, const char *key)
{
    json_object *value = nullptr;
    json_object_object_get_ex(object, key, &value);
    return value;
}

} // namespace vandrel
