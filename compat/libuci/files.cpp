#include "files.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace libuci {

namespace {

struct closes_folder {
    void operator()(DIR *folder) const noexcept { ::closedir(folder); }
};
struct frees {
    void operator()(char *text) const noexcept { ::free(text); }
};

void check(bool done)
{
    if (!done)
        throw failure{UCI_ERR_IO};
}

/// Whether the error of a call says that there is no regular file, rather than that we can't get at it.
bool tells_of_nothing(int error) noexcept
{
    const int errors[] = {ENOENT, ENOTDIR, EISDIR, ELOOP, ENAMETOOLONG, ENXIO};
    return std::find(std::begin(errors), std::end(errors), error) != std::end(errors);
}

/// Waits until what was written is on the disk, if the file system knows such a thing.
bool sync(int fd) noexcept
{
    return ::fsync(fd) == 0 || errno == EINVAL;
}

void write_whole(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        check(written > 0 || (written < 0 && errno == EINTR));
        if (written > 0)
            text.remove_prefix(static_cast<std::size_t>(written));
    }
}

/// A new file beside the one that it is to replace; removed again unless it did.
class replacement {
public:
    explicit replacement(const std::string &path_prefix) : path_{path_prefix + "XXXXXX"}
    {
        fd_ = descriptor{::mkostemp(path_.data(), O_CLOEXEC)};
        check(static_cast<bool>(fd_));
    }
    ~replacement()
    {
        if (!path_.empty())
            ::unlink(path_.c_str());
    }
    replacement(const replacement &) = delete;
    replacement &operator=(const replacement &) = delete;

    void fill(std::string_view content, mode_t mode)
    {
        write_whole(fd_.get(), content);
        check(::fchmod(fd_.get(), mode) == 0);
        check(sync(fd_.get()));
        id_ = id_of(fd_);
        check(::close(fd_.release()) == 0);
    }

    file_id id() const noexcept { return id_; }

    void take_over(const std::string &target)
    {
        check(::rename(path_.c_str(), target.c_str()) == 0);
        path_.clear();
    }

private:
    std::string path_;
    descriptor fd_;
    file_id id_{};
};

/// Where a file really is, and so its temporary files.
struct place {
    explicit place(const std::string &path) : file{real_path(path)} {}

    std::string folder() const { return file.substr(0, file.rfind('/') + 1); }
    std::string temporary_prefix() const { return '.' + file.substr(file.rfind('/') + 1) + ".uci-"; }

    std::string file;
};

/// Removes what killed processes left behind.
void remove_leftovers_at(const place &of)
{
    const std::string prefix = of.temporary_prefix();
    const std::unique_ptr<DIR, closes_folder> entries{::opendir(of.folder().c_str())};
    if (!entries)
        return;
    while (const dirent *entry = ::readdir(entries.get())) {
        const std::string_view name = entry->d_name;
        if (name.size() == prefix.size() + 6 && name.starts_with(prefix))
            ::unlinkat(::dirfd(entries.get()), entry->d_name, 0);
    }
}

} // namespace

descriptor open_locked(const std::string &path, access how, mode_t create_mode)
{
    // O_NONBLOCK: a FIFO in place of the file must not stop us; regular files don't care
    const int flags = (how == access::write ? O_RDWR | O_CREAT : O_RDONLY) | O_CLOEXEC | O_NONBLOCK;
    for (;;) {
        descriptor file{::open(path.c_str(), flags, create_mode)};
        if (!file) {
            if (errno == EACCES || errno == EPERM)
                throw not_permitted{};
            check(tells_of_nothing(errno));
            return {};
        }
        struct stat opened;
        check(::fstat(file.get(), &opened) == 0);
        if (!S_ISREG(opened.st_mode))
            return {};
        while (::flock(file.get(), how == access::write ? LOCK_EX : LOCK_SH) != 0)
            check(errno == EINTR);
        // whoever had the lock before us may have replaced or removed the file
        struct stat now;
        if (::stat(path.c_str(), &now) == 0 && now.st_dev == opened.st_dev && now.st_ino == opened.st_ino)
            return file;
    }
}

file_id id_of(const descriptor &file)
{
    struct stat status;
    check(::fstat(file.get(), &status) == 0);
    return {status.st_dev, status.st_ino};
}

file_id id_at(const std::string &path) noexcept
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? file_id{status.st_dev, status.st_ino} : file_id{};
}

std::string read_whole(const descriptor &file)
{
    std::string content;
    struct stat status;
    check(::fstat(file.get(), &status) == 0);
    std::size_t length = 0;
    for (;;) {
        content.resize(length + (length == 0 ? static_cast<std::size_t>(status.st_size) + 1 : 65536));
        const ssize_t got =
            ::pread(file.get(), content.data() + length, content.size() - length, static_cast<off_t>(length));
        check(got >= 0 || errno == EINTR);
        if (got == 0)
            break;
        if (got > 0)
            length += static_cast<std::size_t>(got);
    }
    content.resize(length);
    return content;
}

void append(const descriptor &file, std::string_view text)
{
    const off_t before = ::lseek(file.get(), 0, SEEK_END);
    check(before >= 0);
    try {
        write_whole(file.get(), text);
        check(sync(file.get()));
    } catch (const failure &) {
        [[maybe_unused]] const int cut = ::ftruncate(file.get(), before); // half a line would spoil the next one
        throw;
    }
}

void shorten(const descriptor &file, std::size_t length)
{
    check(::ftruncate(file.get(), static_cast<off_t>(length)) == 0);
}

std::string real_path(const std::string &path)
{
    const std::unique_ptr<char, frees> target{::realpath(path.c_str(), nullptr)};
    if (!target && errno == ENOMEM)
        throw std::bad_alloc{};
    check(static_cast<bool>(target));
    return target.get();
}

void remove_leftovers(const std::string &path)
{
    remove_leftovers_at(place{path});
}

bool replace(const std::string &path, const descriptor &locked, std::string_view content,
             const std::function<void(file_id)> &about_to)
{
    const place target{path};
    struct stat old;
    check(::fstat(locked.get(), &old) == 0);

    const descriptor entries{::open(target.folder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    check(static_cast<bool>(entries));
    remove_leftovers_at(target);
    replacement fresh{target.folder() + target.temporary_prefix()};
    fresh.fill(content, old.st_mode & 07777);
    about_to(fresh.id());
    fresh.take_over(target.file);
    return sync(entries.get());
}

mode_t permissions(const std::string &path, mode_t otherwise) noexcept
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : otherwise;
}

bool is_regular(const std::string &path)
{
    struct stat status;
    const bool found = ::stat(path.c_str(), &status) == 0;
    check(found || tells_of_nothing(errno));
    return found && S_ISREG(status.st_mode);
}

bool is_folder(const std::string &path) noexcept
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

} // namespace libuci
