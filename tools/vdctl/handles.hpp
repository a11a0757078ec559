// Owners of C handles; a raw pointer elsewhere is borrowed.
#pragma once

#include <memory>
#include <utility>

#include <json-c/json.h>
#include <unistd.h>

namespace vdctl {

template <auto Release> struct released_by {
    template <typename Handle> void operator()(Handle *handle) const noexcept { Release(handle); }
};
using json_handle = std::unique_ptr<json_object, released_by<::json_object_put>>;
using tokener_handle = std::unique_ptr<json_tokener, released_by<::json_tokener_free>>;

/// Owns a descriptor; -1 is none.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) noexcept : fd_{fd} {}
    unique_fd(unique_fd &&other) noexcept : fd_{std::exchange(other.fd_, -1)} {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

} // namespace vdctl
