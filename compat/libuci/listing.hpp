// The packages that a folder holds.
#pragma once

#include <string>
#include <vector>

namespace libuci {

/// The names of the packages in a folder, sorted. Fails with UCI_ERR_NOTFOUND if it is missing or, hidden files aside,
/// empty.
std::vector<std::string> package_names(const char *path);

/// A null-terminated array of the names, which lie behind it in the same block.
char **to_block(const std::vector<std::string> &names);

} // namespace libuci
