// Owners of C handles, and the care that some system calls need. A raw pointer or descriptor elsewhere in the library
// is always borrowed.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/capability.h>
#include <unistd.h>

#include <json-c/json.h>
#include <uci.h>

namespace vandrel {

template <auto Release> struct released_by {
    template <typename Handle> void operator()(Handle *handle) const noexcept { Release(handle); }
};

using c_string = std::unique_ptr<char, released_by<::free>>;
using stream_handle = std::unique_ptr<FILE, released_by<::fclose>>;
using dir_handle = std::unique_ptr<DIR, released_by<::closedir>>;
using capability_handle = std::unique_ptr<_cap_struct, released_by<::cap_free>>;
using json_handle = std::unique_ptr<json_object, released_by<::json_object_put>>;
using uci_handle = std::unique_ptr<uci_context, released_by<::uci_free_context>>;
using tokener_handle = std::unique_ptr<json_tokener, released_by<::json_tokener_free>>;

/// Owns a descriptor; -1 is none.
class unique_fd {
public:
    unique_fd() noexcept = default;
    explicit unique_fd(int fd) noexcept : fd_{fd} {}
    unique_fd(unique_fd &&other) noexcept : fd_{other.release()} {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

/// The result of a system call, which is made again for as long as a signal interrupts it.
template <typename Call> auto uninterrupted(Call &&call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

/// Opens for reading what may be anything: a FIFO doesn't block, a terminal doesn't become the process's own.
inline unique_fd open_untrusted(const char *path)
{
    return unique_fd{::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
}

} // namespace vandrel
