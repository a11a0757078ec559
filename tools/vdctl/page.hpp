// The matrix as one page for a browser, which loads nothing from elsewhere.
#pragma once

#include "reach.hpp"

namespace vdctl {

void print_page(const matrix &shown, bool is_asked);

} // namespace vdctl
