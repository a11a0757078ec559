// What one matrix has more and less than another.
#pragma once

#include "reach.hpp"

#include <string>
#include <vector>

namespace vdctl {

struct change {
    std::string peer;
    bool is_gained;
    extent what;
};

/// By peer, what is lost before what is gained. Both matrices must have every zone open, and outlive the changes.
std::vector<change> changes_between(const matrix &before, const matrix &after);

} // namespace vdctl
