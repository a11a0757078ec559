// How a call fails inside the library: by an exception that ends at the exported function.
#pragma once

#include "uci.h"

#include <cstddef>

namespace libuci {

/// One of the error codes of uci.h.
struct failure {
    int code;
};

/// What is wrong with a package file, and where.
struct parse_failure {
    const char *reason;
    std::size_t line;
    std::size_t byte;
};

} // namespace libuci
