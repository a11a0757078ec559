// The heap as a whole.
#pragma once

#include <cstddef>
#include <new>

#include <malloc.h>

namespace vandrel {

/// Gives freed memory back to the system, which glibc does by itself only at the end of its heap. musl does it anyway.
inline void give_memory_back()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

/// Joins the small blocks that were freed with what is free beside them. glibc puts that off until it is asked for a
/// large block; joined at once, they are still in the processor's caches.
inline void join_freed_blocks()
{
#ifdef __GLIBC__
    constexpr std::size_t large_block = 4096;
    ::operator delete(::operator new(large_block)); // not as an expression, which a compiler may leave out
#endif
}

} // namespace vandrel
