// Lookup paths, "package.section.option=value", and the uci_ptr that they are resolved into.
#pragma once

#include "change.hpp"
#include "model.hpp"

namespace libuci {

/// Clears ptr, cuts text up in place and fills ptr with the pieces. Fails with UCI_ERR_PARSE.
void parse_path(uci_ptr &ptr, char *text);

/// Finds what ptr asks for, loading the package when needed. A section or option may be missing.
void resolve(context &ctx, uci_ptr &ptr, bool extended);

/// The change that ptr describes, with ptr's texts. One that was filled by hand is resolved first; names that are
/// missing in it are filled in.
change resolve_change(context &ctx, uci_ptr &ptr, change_kind kind);

} // namespace libuci
