// Reading the zone file.
#pragma once

#include "zone_model.hpp"

#include <ctime>
#include <optional>

namespace vandrel {

/// What the zone file says, and when it was written.
struct zone_file {
    time_t mtime = 0; // before it was read, so what is written or put in its place later has another one
    std::optional<zone_records> records; // none where it has no "zones"
    bool is_complete = false;            // "zones" is an object, and every zone in it has members
};

/// None where the file can't be parsed. Throws when memory runs out.
std::optional<zone_file> read_zone_file();

} // namespace vandrel
