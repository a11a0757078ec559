// The C boundary: nothing that is thrown inside the library leaves it.
#pragma once

#include <utility>

namespace vandrel {

/// Runs body; if an exception escapes it, which in practice is bad_alloc, gives failure instead.
template <typename Result, typename Body> Result guarded(Result failure, Body &&body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        return failure;
    }
}

} // namespace vandrel
