// How commands show what is reached, in text and JSON.
#pragma once

#include "reach.hpp"

#include <vector>

struct json_object;

namespace vdctl {

/// TYPE, TARGET, NOW, ZONE.
std::vector<text> cells_of(const extent &reached, bool is_asked);

text now_text(bool is_open, bool is_asked);
text zones_text(const std::vector<source> &members);

json_object *json_of(const std::vector<source> &members);
json_object *json_of(const target &what);
json_object *json_of(const extent &reached, bool is_asked);

/// "start" and "end", "start" and "netmask", or "value".
void add_target(json_object *object, const extent &reached);

/// Says that library and reading differ; gives the exit status for it.
int say_disagreement();

} // namespace vdctl
