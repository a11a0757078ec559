// Faults on purpose. The program's own malloc, open, write and their like stand before the C library's and pass every
// call on, except the one that is to fail. So all libraries below the program are hit as well.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace inject {

// Memory. Counted is every allocation from when n is given on; the n-th is refused (0: none).
void refuse_allocation(long n);
long allocations();
bool allocation_refused();
const char *refused_library(); // whose allocation it was; "" when none
void note_blocks();            // from now on, blocks are remembered with the library that asked for them
/// The library that asked for a block that was not freed since, or null: one of ours (first) before one of others.
const char *leaking_library();

// Files. Counted is every call on files from when n is given on; the n-th gives the error, or for short_count reads or
// writes half of what it was to (0: none). A call that knows no half passes.
constexpr int short_count = -1;
void fail_file_call(long n, int error);
long file_calls();
bool file_call_failed();
const char *failed_call(); // its name

/// One change of the disk, as the kernel was asked for it.
struct disk_change {
    enum kind { create, write, truncate, sync, sync_folder, rename, remove } what;
    ino_t file;        // not for rename and remove
    std::string path;  // create, rename, remove: the entry
    std::string to;    // rename
    std::string bytes; // write
    off_t position;    // write, truncate
};

/// Notes all changes of the disk from now on, until they are taken.
void note_changes();
std::vector<disk_change> take_changes();

} // namespace inject
