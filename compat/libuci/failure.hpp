// How a call fails inside the library: by an exception that ends at the exported function.
#pragma once

#include "uci.h"

#include <cstddef>

namespace libuci {

/// One of the error codes of uci.h.
struct failure {
    int code;
};

/// A file that is there but may not be opened.
struct not_permitted : failure {
    not_permitted() noexcept : failure{UCI_ERR_IO} {}
};

/// What is wrong with a package file, and where.
struct parse_failure {
    const char *reason;
    std::size_t line;
    std::size_t byte;
};

} // namespace libuci
