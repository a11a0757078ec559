// Mistakes in a zone file, in the order of its lines.
#pragma once

#include "output.hpp"
#include "zone_file.hpp"

#include <optional>
#include <string>
#include <vector>

namespace vdctl {

enum class level { more, less, note }; // what the mistake allows, beside what is written

struct finding {
    unsigned line;
    vdctl::level level;
    const char *code;
    std::optional<std::string> zone, member; // keys
    text what;
};

const char *name_of(level l);

std::vector<finding> find_mistakes(const zone_text &file);

} // namespace vdctl
