// How a message is shown.
#pragma once

#include <string>

#include <json-c/json.h>
#include <sys/types.h>

namespace vdctl {

enum class shown_time { no, yes }; // in text; JSON always has it

/// Prints a message at once; pid is its sender's, for JSON, where that is known.
void print_message(shown_time time, const std::string &type, json_object *data, pid_t pid = 0);

} // namespace vdctl
