// The store: packages on their way from and to the file system.
#pragma once

#include "model.hpp"

#include <string>

namespace libuci {

/// Loads a package by name or path. Fails with failure or parse_failure; the context then has no new package.
package &load(context &ctx, const std::string &name);

/// Appends the unsaved changes to the change file. On failure they stay unsaved.
void save(context &ctx, package &from);

/// Writes the package with all saved changes.
///
/// at  gets the package that took the old one's place; null when it could not be read again
void commit(context &ctx, uci_package *&at, bool overwrite);

/// Takes the changes of a section or option, or of the whole package, out of the change file and loads it again. At is
/// as for commit.
void revert(context &ctx, uci_package *&at, const std::string &section_name, const std::string &option_name);

} // namespace libuci
