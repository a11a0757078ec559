// The store: packages on their way from and to the file system.
#pragma once

#include "model.hpp"

#include <string>

namespace libuci {

/// Loads a package by name or path. Fails with failure or parse_failure; the context then has no new package.
package &load(context &ctx, const std::string &name);

/// Appends the unsaved changes to the change file. On failure they stay unsaved.
void save(context &ctx, package &from);

/// Writes the package with all saved changes; gives the package that took the old one's place.
///
/// at  is kept up to date: null when the package could not be read again
void commit(context &ctx, package *&at, bool overwrite);

/// Takes the changes of a section or option, or of the whole package, out of the change file and loads it again.
void revert(context &ctx, package *&at, const std::string &section_name, const std::string &option_name);

} // namespace libuci
