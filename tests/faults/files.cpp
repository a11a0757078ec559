#include "files.hpp"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

void write_file(const char *path, const char *text, mode_t mode)
{
    char folder[256];
    std::snprintf(folder, sizeof folder, "%s", path);
    *std::strrchr(folder, '/') = '\0';
    syscall(SYS_mkdirat, AT_FDCWD, folder, 0755);
    const int fd =
        static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    syscall(SYS_write, fd, text, std::strlen(text));
    close(fd);
}

file_text read_file(const char *path)
{
    file_text text{};
    const int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
    if (fd >= 0) {
        syscall(SYS_read, fd, text.bytes, sizeof text.bytes - 1);
        close(fd);
    }
    return text;
}

void remove_file(const char *path)
{
    syscall(SYS_unlinkat, AT_FDCWD, path, 0);
}
