// How a call fails inside the library: by an exception that ends at the exported function, as the code of uci.h that it
// carries. Memory that runs out is bad_alloc.
#pragma once

#include "uci.h"

#include <cstddef>
#include <optional>

namespace libuci {

struct failure {
    explicit failure(int of_uci) noexcept : code{of_uci} {}

    int code;
};

/// A file that is there but may not be opened.
struct not_permitted : failure {
    not_permitted() noexcept : failure{UCI_ERR_IO} {}
};

/// What is wrong with a package file, and where.
struct parse_failure : failure {
    parse_failure(const char *what, std::size_t in_line, std::size_t at_byte) noexcept
        : failure{UCI_ERR_PARSE}, reason{what}, line{in_line}, byte{at_byte}
    {
    }

    const char *reason;
    std::size_t line;
    std::size_t byte;
};

/// Fails as an invalid argument unless that holds.
inline void require(bool holds)
{
    if (!holds)
        throw failure{UCI_ERR_INVAL};
}

/// The text for a code as a new string, with a prefix and a colon if there is one; null when memory runs out.
char *error_text(int code, const std::optional<parse_failure> &details, const char *prefix) noexcept;

} // namespace libuci
