// Parsed JSON, compared.
#pragma once

#include <json-c/json.h>

namespace vandrel {

/// Whether two trees hold the same, in the same order, with the same number texts. Throws when memory runs out.
bool is_same_tree(json_object *one, json_object *other);

} // namespace vandrel
