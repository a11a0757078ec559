// What all readers of JSON ask.
#pragma once

#include <cerrno>
#include <cstddef>

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

/// A value as json_object_to_json_string writes it, borrowed from it; null where there is no memory for the whole text.
/// json-c passes over what it finds no room for and doesn't say so. A refused allocation leaves ENOMEM in errno; one
/// that was not refused may do so too, so the text is then made again, in the room that it got.
inline const char *json_text(json_object *value, std::size_t &length)
{
    const int errno_before = errno;
    for (int tries = 2; tries > 0; --tries) {
        errno = 0;
        const char *text = json_object_to_json_string_length(value, JSON_C_TO_STRING_SPACED, &length);
        if (!text || errno != ENOMEM) {
            errno = errno_before;
            return text;
        }
    }
    return nullptr;
}

} // namespace vandrel
