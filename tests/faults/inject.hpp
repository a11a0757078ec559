// Faults on purpose. The program's own malloc, open, write and their like stand before the C library's and pass every
// call on, except the one that is to fail. So all libraries below the program are hit as well.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace inject {

enum class calls { allocations, on_files };
constexpr int short_count = -1; // an error by which reads and writes do half of what they were to; other calls pass

/// The fault that is armed.
struct fault {
    calls failing = {};
    long left = 0; // until the one that fails; 0: none is to fail
    int error = 0;
    const char *failed = nullptr; // the name of the call; of an allocation, the library that asked for it
};
extern fault armed;

/// The library whose code runs, itself or through the C or the C++ library; "" for the program. Allocates nothing.
const char *calling_library();
bool is_ours(const char *library); // or the program

void note_blocks(); // from now on, blocks are remembered with the library that asked for them
/// The library that asked for a block that was not freed since, or null: one of ours before one of others.
const char *leaking_library();

/// One change of the disk, as the kernel was asked for it.
struct disk_change {
    enum { create, write, sync, rename, remove } what;
    std::string path;
    std::string to{};    // rename
    std::string bytes{}; // write
    off_t position = 0;  // write: where the file ends without them
};

/// Notes all changes of the disk from now on, until they are taken.
void note_changes();
std::vector<disk_change> take_changes();

} // namespace inject
