#include "json_tree.hpp"

#include <cstring>
#include <new>

namespace vandrel {

namespace {

bool is_same_object(json_object *one, json_object *other)
{
    if (json_object_object_length(one) != json_object_object_length(other))
        return false;
    auto at = json_object_iter_begin(other);
    json_object_object_foreach(one, name, value)
    {
        if (std::strcmp(name, json_object_iter_peek_name(&at)) != 0 ||
            !is_same_tree(value, json_object_iter_peek_value(&at)))
            return false;
        json_object_iter_next(&at);
    }
    return true;
}

bool is_same_array(json_object *one, json_object *other)
{
    const std::size_t length = json_object_array_length(one);
    if (length != json_object_array_length(other))
        return false;
    for (std::size_t i = 0; i < length; ++i) {
        if (!is_same_tree(json_object_array_get_idx(one, i), json_object_array_get_idx(other, i)))
            return false;
    }
    return true;
}

bool is_same_text(json_object *one, json_object *other)
{
    const char *text = json_object_get_string(one), *other_text = json_object_get_string(other);
    if (!text || !other_text)
        throw std::bad_alloc{};
    return std::strcmp(text, other_text) == 0;
}

} // namespace

bool is_same_tree(json_object *one, json_object *other)
{
    const json_type type = json_object_get_type(one);
    if (type != json_object_get_type(other))
        return false;
    switch (type) {
    case json_type_null:
        return true;
    case json_type_object:
        return is_same_object(one, other);
    case json_type_array:
        return is_same_array(one, other);
    default:
        return is_same_text(one, other);
    }
}

} // namespace vandrel
