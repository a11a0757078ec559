// Package files: "config TYPE 'NAME'" lines, each followed by its "option" and "list" lines.
#pragma once

#include "model.hpp"

#include <string>
#include <string_view>

namespace libuci {

/// Adds what a package file says to the package. Fails with parse_failure.
void read_package(package &into, std::string_view content);

/// The package as a file, without what could not be read again: names that are not valid in a file.
std::string package_text(package &from);

} // namespace libuci
