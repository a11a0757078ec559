// Refuses one allocation of a library. The program's own malloc and its like stand before the C library's; they pass
// every call on to the sanitizer's, except the one to be refused. Only calls made from the library's own code count,
// and operator new also from libstdc++, which allocates on its behalf.
#include "device_test.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <new>

#include <link.h>

extern "C" {
void *__interceptor_malloc(std::size_t size);
void *__interceptor_calloc(std::size_t count, std::size_t size);
void *__interceptor_realloc(void *block, std::size_t size);
void __interceptor_free(void *block);
char *__interceptor_strdup(const char *text);
char *__interceptor_strndup(const char *text, std::size_t size);
int __interceptor_vasprintf(char **text, const char *format, va_list args);
}

namespace {

struct range {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

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

bool is_refused(bool counts)
{
    if (refusal.left == 0 || !counts || --refusal.left != 0)
        return false;
    refusal.happened = true;
    errno = ENOMEM;
    return true;
}

bool is_refused(const void *caller)
{
    return is_refused(refusal.library.holds(caller));
}

void *checked_new(std::size_t size, const void *caller)
{
    if (is_refused(refusal.library.holds(caller) || refusal.runtime.holds(caller)))
        return nullptr;
    return __interceptor_malloc(size == 0 ? 1 : size);
}

} // namespace

#define CALLER __builtin_extract_return_addr(__builtin_return_address(0))

#pragma GCC visibility push(default) // a hidden one would not stand before the C library's
extern "C" {

void *malloc(std::size_t size)
{
    return is_refused(CALLER) ? nullptr : __interceptor_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    return is_refused(CALLER) ? nullptr : __interceptor_calloc(count, size);
}

void *realloc(void *block, std::size_t size)
{
    return is_refused(CALLER) ? nullptr : __interceptor_realloc(block, size);
}

char *strdup(const char *text)
{
    return is_refused(CALLER) ? nullptr : __interceptor_strdup(text);
}

char *strndup(const char *text, std::size_t size)
{
    return is_refused(CALLER) ? nullptr : __interceptor_strndup(text, size);
}

int vasprintf(char **text, const char *format, va_list args)
{
    return is_refused(CALLER) ? -1 : __interceptor_vasprintf(text, format, args);
}

} // extern "C"
#pragma GCC visibility pop

void *operator new(std::size_t size)
{
    void *block = checked_new(size, CALLER);
    return block ? block : throw std::bad_alloc{};
}

void *operator new[](std::size_t size)
{
    void *block = checked_new(size, CALLER);
    return block ? block : throw std::bad_alloc{};
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept
{
    return checked_new(size, CALLER);
}

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept
{
    return checked_new(size, CALLER);
}

void operator delete(void *block) noexcept
{
    __interceptor_free(block);
}

void operator delete(void *block, std::size_t) noexcept
{
    __interceptor_free(block);
}

void operator delete[](void *block) noexcept
{
    __interceptor_free(block);
}

void operator delete[](void *block, std::size_t) noexcept
{
    __interceptor_free(block);
}

allocation_refusal::allocation_refusal(int n, std::string_view library)
{
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
