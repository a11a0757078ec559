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

struct countdown {
    long calls = 0;
    long failing = 0;
    bool happened = false;

    void start(long n) { *this = {0, n, false}; }
    bool hit()
    {
        ++calls;
        if (calls != failing)
            return false;
        return happened = true;
    }
};

countdown memory;
const char *refused_by = "";

struct noted_block {
    const void *block;
    const char *library;
};

struct {
    bool on = false;
    std::size_t count = 0;
    noted_block blocks[100'000];
} since;

/// The library whose code asks for memory, itself or through the C or the C++ library. Allocates nothing.
const char *calling_library()
{
    static bool busy;
    if (std::exchange(busy, true))
        return "";
    void *frames[24];
    const int depth = backtrace(frames, 24);
    const char *found = "";
    for (int i = 1; i < depth && *found == '\0'; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) == 0 || !std::strstr(info.dli_fname, ".so"))
            continue;
        const char *name = std::strrchr(info.dli_fname, '/') + 1;
        if (std::strncmp(name, "libc.so", 7) != 0 && std::strncmp(name, "libstdc++", 9) != 0)
            found = name;
    }
    busy = false;
    return found;
}

void *remember(void *block)
{
    if (block && since.on && since.count < std::size(since.blocks))
        since.blocks[since.count++] = {block, calling_library()};
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

countdown files;
int file_error;
const char *file_call;

bool noting;
std::vector<inject::disk_change> *noted;

/// Whether this call is the one to fail, or, with half, to do half of its work.
bool fails(const char *name, bool *half = nullptr)
{
    if (!files.hit())
        return false;
    file_call = name;
    if (file_error != inject::short_count) {
        errno = file_error;
        return true;
    }
    if (half)
        *half = true;
    return false;
}

template <typename Function> Function *next(Function *, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

std::string path_of(int fd)
{
    char path[4096];
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return {path, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::string plain(const char *path) // one name for one file
{
    return std::filesystem::path{path}.lexically_normal();
}

void note(inject::disk_change::kind what, int fd, const char *bytes = nullptr, std::size_t size = 0, off_t position = 0)
{
    const int error = errno;
    struct stat status;
    if (noting && fstat(fd, &status) == 0)
        noted->push_back({what, status.st_ino, path_of(fd), "", std::string(bytes ? bytes : "", size), position});
    errno = error;
}

std::size_t share(std::size_t size, bool half)
{
    return half ? (size + 1) / 2 : size;
}

int noted_open(int fd, int flags)
{
    struct stat status;
    if (fd >= 0 && (flags & O_CREAT) != 0 && fstat(fd, &status) == 0 && status.st_size == 0)
        note(inject::disk_change::create, fd);
    return fd;
}

} // namespace

// In the program itself, so that all libraries call these. What glibc calls inside itself is not seen.
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void *block);

static bool refused()
{
    if (!memory.hit())
        return false;
    refused_by = calling_library();
    errno = ENOMEM;
    return true;
}

#pragma GCC visibility push(default)
void *malloc(std::size_t size)
{
    return refused() ? nullptr : remember(__libc_malloc(size));
}

void *calloc(std::size_t count, std::size_t size)
{
    return refused() ? nullptr : remember(__libc_calloc(count, size));
}

void *realloc(void *block, std::size_t size)
{
    if (refused())
        return nullptr;
    void *moved = __libc_realloc(block, size);
    if (moved)
        forget(block);
    return remember(moved);
}

void *memalign(std::size_t alignment, std::size_t size)
{
    return refused() ? nullptr : remember(__libc_memalign(alignment, size));
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    return memalign(alignment, size);
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size)
{
    *block = memalign(alignment, size);
    return *block ? 0 : ENOMEM;
}

void free(void *block)
{
    forget(block);
    __libc_free(block);
}

int open(const char *path, int flags, ...)
{
    static const auto real = next(&::open, "open");
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return fails("open") ? -1 : noted_open(real(path, flags, mode), flags);
}

int open64(const char *path, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return open(path, flags, mode);
}

int mkostemp(char *path, int flags)
{
    static const auto real = next(&::mkostemp, "mkostemp");
    return fails("mkostemp") ? -1 : noted_open(real(path, flags), O_CREAT);
}

int mkostemp64(char *path, int flags)
{
    return mkostemp(path, flags);
}

ssize_t read(int fd, void *bytes, std::size_t size)
{
    static const auto real = next(&::read, "read");
    bool half = false;
    return fails("read", &half) ? -1 : real(fd, bytes, share(size, half));
}

ssize_t pread(int fd, void *bytes, std::size_t size, off_t position)
{
    static const auto real = next(&::pread, "pread");
    bool half = false;
    return fails("pread", &half) ? -1 : real(fd, bytes, share(size, half), position);
}

ssize_t pread64(int fd, void *bytes, std::size_t size, off64_t position)
{
    return pread(fd, bytes, size, position);
}

ssize_t write(int fd, const void *bytes, std::size_t size)
{
    static const auto real = next(&::write, "write");
    bool half = false;
    if (fails("write", &half))
        return -1;
    const off_t position = noting ? lseek(fd, 0, SEEK_CUR) : 0;
    const ssize_t written = real(fd, bytes, share(size, half));
    if (written > 0)
        note(inject::disk_change::write, fd, static_cast<const char *>(bytes), static_cast<std::size_t>(written),
             position);
    return written;
}

int ftruncate(int fd, off_t size)
{
    static const auto real = next(&::ftruncate, "ftruncate");
    if (fails("ftruncate"))
        return -1;
    note(inject::disk_change::truncate, fd, nullptr, 0, size);
    return real(fd, size);
}

int ftruncate64(int fd, off64_t size)
{
    return ftruncate(fd, size);
}

int fsync(int fd)
{
    static const auto real = next(&::fsync, "fsync");
    if (fails("fsync"))
        return -1;
    struct stat status;
    const bool is_folder = fstat(fd, &status) == 0 && S_ISDIR(status.st_mode);
    note(is_folder ? inject::disk_change::sync_folder : inject::disk_change::sync, fd);
    return real(fd);
}

int rename(const char *from, const char *to)
{
    static const auto real = next(static_cast<int (*)(const char *, const char *)>(&::rename), "rename");
    if (fails("rename"))
        return -1;
    if (noting)
        noted->push_back({inject::disk_change::rename, 0, plain(from), plain(to), "", 0});
    return real(from, to);
}

int unlink(const char *path)
{
    static const auto real = next(&::unlink, "unlink");
    if (fails("unlink"))
        return -1;
    if (noting)
        noted->push_back({inject::disk_change::remove, 0, plain(path), "", "", 0});
    return real(path);
}

int unlinkat(int folder, const char *path, int flags)
{
    static const auto real = next(&::unlinkat, "unlinkat");
    if (fails("unlinkat"))
        return -1;
    if (noting)
        noted->push_back({inject::disk_change::remove, 0, path_of(folder) + '/' + path, "", "", 0});
    return real(folder, path, flags);
}

int mkdir(const char *path, mode_t mode)
{
    static const auto real = next(&::mkdir, "mkdir");
    return fails("mkdir") ? -1 : real(path, mode);
}
#pragma GCC visibility pop
}

namespace inject {

void refuse_allocation(long n)
{
    memory.start(n);
}

long allocations()
{
    return memory.calls;
}

bool allocation_refused()
{
    return memory.happened;
}

const char *refused_library()
{
    return memory.happened ? refused_by : "";
}

void note_blocks()
{
    since.count = 0;
    since.on = true;
}

const char *leaking_library()
{
    since.on = false;
    const char *found = nullptr;
    for (std::size_t i = 0; i < since.count; ++i) {
        const char *library = since.blocks[i].library;
        const bool is_ours = std::strstr(library, "libvandrel") || std::strstr(library, "libuci");
        if (!found || is_ours)
            found = library;
        if (is_ours)
            break;
    }
    return found;
}

void fail_file_call(long n, int error)
{
    file_error = error;
    files.start(n);
}

long file_calls()
{
    return files.calls;
}

bool file_call_failed()
{
    return files.happened;
}

const char *failed_call()
{
    return file_call;
}

void note_changes()
{
    if (!noted)
        noted = new std::vector<disk_change>;
    noted->clear();
    noting = true;
}

std::vector<disk_change> take_changes()
{
    noting = false;
    return std::exchange(*noted, {});
}

} // namespace inject
