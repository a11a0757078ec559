// Refuses one allocation of a library. The program's own malloc and its like stand before the C library's; they pass
// every call on to AddressSanitizer's or, without it, to the C library's, except the one to be refused. Only calls made
// from the library's own code count, and operator new also from libstdc++, which allocates on its behalf.
#include "device_test.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <dlfcn.h>
#include <link.h>
#include <malloc.h>
#include <unistd.h>

namespace {

struct range {
    std::uintptr_t begin = 0, end = 0;

    bool holds(const void *address) const
    {
        const auto value = reinterpret_cast<std::uintptr_t>(address);
        return begin <= value && value < end;
    }
};

struct {
    std::string_view name; // of the library that the range belongs to
    range library;
    range runtime; // libstdc++
    int left = 0;  // allocations until the refused one; 0: none is to be refused
    bool happened = false;
} refusal;

int note_object(dl_phdr_info *object, std::size_t, void *)
{
    const std::string_view name = object->dlpi_name;
    range *found = name.find(refusal.name) != name.npos     ? &refusal.library
                   : name.find("libstdc++.so") != name.npos ? &refusal.runtime
                                                            : nullptr;
    for (int i = 0; found && i < object->dlpi_phnum; ++i) {
        const auto &segment = object->dlpi_phdr[i];
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0)
            *found = {object->dlpi_addr + segment.p_vaddr, object->dlpi_addr + segment.p_vaddr + segment.p_memsz};
    }
    return 0;
}

int left_errno = 0; // by each allocation; 0: as it was

/// valgrind calls no malloc of ours. The test ends as GTEST_SKIP would end it, from whatever depth; another program
/// ends it, as valgrind would count what this one holds as lost.
void skip_under_valgrind()
{
    const char *preloaded = std::getenv("LD_PRELOAD");
    if (!preloaded || std::strstr(preloaded, "vgpreload") == nullptr)
        return;
    std::puts("[  SKIPPED ] needs a malloc of its own");
    std::fflush(stdout);
    execl("/bin/sh", "sh", "-c", ":", nullptr);
}

bool is_refused(const void *caller, bool may_be_runtime = false)
{
    if (left_errno != 0)
        errno = left_errno;
    const bool counts = refusal.library.holds(caller) || (may_be_runtime && refusal.runtime.holds(caller));
    if (refusal.left == 0 || !counts || --refusal.left != 0)
        return false;
    refusal.happened = true;
    errno = ENOMEM;
    return true;
}

} // namespace

#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))
#ifdef WITH_ADDRESS_SANITIZER
#define NEXT(function) __interceptor_##function
#else
#define NEXT(function) reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function))
#endif
#define REFUSABLE(result, function, parameters, arguments, failure) \
    result __interceptor_##function parameters; \
    static result next_##function parameters \
    { \
        static result(*const next) parameters = NEXT(function); \
        return next arguments; \
    } \
    result function parameters \
    { \
        return is_refused(CALLER) ? failure : next_##function arguments; \
    }

#pragma GCC visibility push(default) // a hidden one would not stand before the C library's
extern "C" {
REFUSABLE(void *, malloc, (std::size_t size), (size), nullptr)
REFUSABLE(void *, calloc, (std::size_t count, std::size_t size), (count, size), nullptr)
REFUSABLE(void *, realloc, (void *block, std::size_t size), (block, size), nullptr)
REFUSABLE(char *, strdup, (const char *text), (text), nullptr)
REFUSABLE(char *, strndup, (const char *text, std::size_t size), (text, size), nullptr)
REFUSABLE(int, vasprintf, (char **text, const char *format, va_list args), (text, format, args), -1)

int asprintf(char **text, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = is_refused(CALLER) ? -1 : next_vasprintf(text, format, args);
    va_end(args);
    return length;
}

#ifndef WITH_ADDRESS_SANITIZER
std::size_t __sanitizer_get_current_allocated_bytes()
{
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif

const char *__asan_default_options()
{
    return "alloc_dealloc_mismatch=0"; // the operator below takes its block from malloc
}
}
#pragma GCC visibility pop

void *operator new(std::size_t size)
{
    void *block = is_refused(CALLER, true) ? nullptr : next_malloc(size);
    return block ? block : throw std::bad_alloc{};
}

allocation_refusal::allocation_refusal(int n, std::string_view library)
{
    skip_under_valgrind();
    if (refusal.name != library) {
        refusal.name = library;
        dl_iterate_phdr(note_object, nullptr);
    }
    refusal.happened = false;
    refusal.left = n;
}

allocation_refusal::~allocation_refusal()
{
    refusal.left = 0;
}

bool allocation_refusal::happened() const // NOLINT(readability-convert-member-functions-to-static)
{
    return refusal.happened;
}

misleading_errno::misleading_errno(int value)
{
    skip_under_valgrind();
    left_errno = value;
}

misleading_errno::~misleading_errno()
{
    left_errno = 0;
}
