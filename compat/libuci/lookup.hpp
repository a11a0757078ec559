// Lookup paths, "package.section.option=value", and the uci_ptr that they are resolved into.
#pragma once

#include "model.hpp"

namespace libuci {

/// Cuts text up in place and fills a cleared ptr with the pieces; false if it is no path.
bool parse_path(uci_ptr &ptr, char *text) noexcept;

/// Finds what ptr asks for, loading the package when needed. A section or option may be missing. Gives an error code or
/// fails as load does.
int resolve(context &ctx, uci_ptr &ptr, bool extended);

} // namespace libuci
