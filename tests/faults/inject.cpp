#include "inject.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <utility>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using inject::armed, inject::disk_change;

bool is_due(inject::calls called)
{
    return armed.left > 0 && armed.failing == called && --armed.left == 0;
}

// Memory.

struct noted_block {
    const void *block;
    const char *library;
};

struct {
    bool on = false;
    std::size_t count = 0;
    noted_block blocks[100'000];
} since;

bool is_refused()
{
    if (!is_due(inject::calls::allocations))
        return false;
    armed.failed = inject::calling_library();
    errno = armed.error;
    return true;
}

void *remember(void *block)
{
    if (block && since.on && since.count < std::size(since.blocks))
        since.blocks[since.count++] = {block, inject::calling_library()};
    return block;
}

void forget(const void *block)
{
    if (!block || !since.on)
        return;
    for (std::size_t i = since.count; i-- > 0;) {
        if (since.blocks[i].block == block) {
            since.blocks[i] = since.blocks[--since.count];
            return;
        }
    }
}

// Files.

bool is_half; // what the call is to do

/// Whether the call that is made is the one to fail.
bool fails(const char *name)
{
    const bool due = is_due(inject::calls::on_files);
    is_half = due && armed.error == inject::short_count;
    if (due)
        armed.failed = name;
    if (!due || is_half)
        return false;
    errno = armed.error;
    return true;
}

std::size_t share(std::size_t size)
{
    return is_half ? (size + 1) / 2 : size;
}

bool noting;
std::vector<disk_change> noted;

std::string path_of(int fd)
{
    return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
}

std::string plain(const char *path) // one name for one file
{
    return std::filesystem::path{path}.lexically_normal();
}

int opened(int fd, int flags)
{
    struct stat status;
    if (noting && fd >= 0 && (flags & O_CREAT) != 0 && fstat(fd, &status) == 0 && status.st_size == 0)
        noted.push_back({disk_change::create, path_of(fd)});
    return fd;
}

} // namespace

#define NEXT(function) reinterpret_cast<decltype(&(::function))>(dlsym(RTLD_NEXT, #function))
/// A call on files that passes on to the C library's, and the change of the disk that it is.
#define FAILING(result, function, parameters, passed_on, ...) \
    result function parameters \
    { \
        static const auto next = NEXT(function); \
        if (fails(#function)) \
            return -1; \
        __VA_OPT__(if (noting) noted.push_back(__VA_ARGS__);) \
        return passed_on; \
    }

// In the program itself, so that all libraries call these. What glibc calls inside itself is not seen.
#pragma GCC visibility push(default)
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void __libc_free(void *block);

void *malloc(std::size_t size)
{
    return is_refused() ? nullptr : remember(__libc_malloc(size));
}

void *calloc(std::size_t count, std::size_t size)
{
    return is_refused() ? nullptr : remember(__libc_calloc(count, size));
}

void *realloc(void *block, std::size_t size)
{
    if (is_refused())
        return nullptr;
    void *moved = __libc_realloc(block, size);
    if (moved)
        forget(block);
    return remember(moved);
}

void free(void *block)
{
    forget(block);
    __libc_free(block);
}

int open(const char *path, int flags, ...)
{
    static const auto next = NEXT(open);
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return fails("open") ? -1 : opened(next(path, flags, mode), flags);
}

FAILING(int, mkostemp, (char *path, int flags), opened(next(path, flags), O_CREAT))
FAILING(int, mkdir, (const char *path, mode_t mode), next(path, mode))
FAILING(ssize_t, read, (int fd, void *bytes, std::size_t size), next(fd, bytes, share(size)))
FAILING(ssize_t, pread, (int fd, void *bytes, std::size_t size, off_t position), next(fd, bytes, share(size), position))
FAILING(ssize_t, write, (int fd, const void *bytes, std::size_t size), next(fd, bytes, share(size)),
        {disk_change::write, path_of(fd), "", {static_cast<const char *>(bytes), size}, lseek(fd, 0, SEEK_CUR)})
FAILING(int, ftruncate, (int fd, off_t size), next(fd, size), {disk_change::write, path_of(fd), "", "", size})
FAILING(int, fsync, (int fd), next(fd), {disk_change::sync, path_of(fd)})
FAILING(int, rename, (const char *from, const char *to), next(from, to), {disk_change::rename, plain(from), plain(to)})
FAILING(int, unlink, (const char *path), next(path), {disk_change::remove, plain(path)})
FAILING(int, unlinkat, (int folder, const char *path, int flags), next(folder, path, flags),
        {disk_change::remove, path_of(folder) + '/' + path})
}
#pragma GCC visibility pop

namespace inject {

fault armed;

const char *calling_library()
{
    static bool is_busy;
    if (std::exchange(is_busy, true))
        return "";
    void *frames[32];
    const int depth = backtrace(frames, 32);
    const char *found = "";
    for (int i = 1; i < depth && *found == '\0'; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) == 0 || !std::strstr(info.dli_fname, ".so"))
            continue;
        const char *name = std::strrchr(info.dli_fname, '/') + 1;
        if (std::strncmp(name, "libc.so", 7) != 0 && std::strncmp(name, "libstdc++", 9) != 0)
            found = name;
    }
    is_busy = false;
    return found;
}

bool is_ours(const char *library)
{
    return library[0] == '\0' || std::strstr(library, "libvandrel") || std::strstr(library, "libuci");
}

void note_blocks()
{
    since.count = 0;
    since.on = true;
}

const char *leaking_library()
{
    since.on = false;
    const auto end = since.blocks + since.count;
    const auto ours = std::find_if(since.blocks, end, [](const noted_block &it) { return is_ours(it.library); });
    return ours != end ? ours->library : since.count > 0 ? since.blocks[0].library : nullptr;
}

void note_changes()
{
    noted.clear();
    noting = true;
}

std::vector<disk_change> take_changes()
{
    noting = false;
    return std::exchange(noted, {});
}

} // namespace inject
