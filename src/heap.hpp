// The heap as a whole.
#pragma once

#include <malloc.h>

namespace vandrel {

/// Gives freed memory back to the system, which glibc does by itself only at the end of its heap. musl does it anyway.
inline void give_memory_back()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

} // namespace vandrel
