// Files: locked, read whole, and replaced whole or not at all. What fails throws failure{UCI_ERR_IO}.
#pragma once

#include "failure.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include <sys/types.h>
#include <unistd.h>

namespace libuci {

/// Owns a descriptor; -1 is none.
class descriptor {
public:
    descriptor() noexcept = default;
    explicit descriptor(int fd) noexcept : fd_{fd} {}
    descriptor(descriptor &&other) noexcept : fd_{std::exchange(other.fd_, -1)} {}
    descriptor &operator=(descriptor &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }

private:
    int fd_ = -1;
};

/// How open_locked opens and locks.
enum class access { read, write };

/// Opens the regular file at path and waits for its lock, shared or exclusive; the lock goes with the descriptor.
/// Access write makes the file if it is missing, with that mode less the umask.
///
/// None if there is no regular file, or no folder to make it in. Throws not_permitted if it may not be opened. The lock
/// is on the file that is at path then, not on one that was replaced meanwhile.
descriptor open_locked(const std::string &path, access how, mode_t create_mode = 0);

/// Which file it is, whatever its name; zeros: none.
struct file_id {
    dev_t device;
    ino_t inode;
};
file_id id_of(const descriptor &file);
file_id id_at(const std::string &path) noexcept;

std::string read_whole(const descriptor &file);
void shorten(const descriptor &file, std::size_t length);
void append(const descriptor &file, std::string_view text); // all of it, and to the disk, or the file stays

/// Removes the temporary files that killed processes left beside the file at path, whose lock the caller has: without
/// it nobody writes one.
void remove_leftovers(const std::string &path);

/// Replaces the file at path, or the file that a link there leads to, whose lock the caller has. Its mode stays.
///
/// about_to  is called when everything is ready but for the renaming
///
/// False: the new file is in place, but it may not outlive a power cut.
bool replace(
    const std::string &path, const descriptor &locked, std::string_view content,
    const std::function<void(file_id)> &about_to = [](file_id) {});

std::string real_path(const std::string &path); // of what is there, links followed

/// The permissions of what is at path, or otherwise if nothing is.
mode_t permissions(const std::string &path, mode_t otherwise) noexcept;

bool is_regular(const std::string &path);
bool is_folder(const std::string &path) noexcept;

} // namespace libuci
