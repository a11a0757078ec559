#include "candidate.hpp"

#include "output.hpp"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

namespace vdctl {

namespace {

constexpr char live_folder[] = "/etc/vandrel";

struct {
    std::string name = live_file;
    unique_fd copy;
} place;

[[noreturn]] void refuse(const std::string &name, const text &why)
{
    throw failure{"cannot put " + text::of(name) + " in the live file's place: " + why};
}

void check(bool is_done, const std::string &name, const text &step)
{
    if (!is_done)
        refuse(name, step + ": " + text::of(std::strerror(errno)));
}

void write_text(const char *path, std::string_view content)
{
    const unique_fd file{open(path, O_WRONLY | O_CLOEXEC)};
    [[maybe_unused]] const ssize_t written = write(file.get(), content.data(), content.size()); // the mounts will tell
}

/// A user namespace gives an ordinary user the right to mount, as root of that namespace alone.
bool enter_namespace()
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNS) == 0)
        return true;
    if (unshare(CLONE_NEWNS | CLONE_NEWUSER) != 0)
        return false;
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    return true;
}

std::string by_descriptor(const unique_fd &fd)
{
    return "/proc/self/fd/" + std::to_string(fd.get());
}

/// A tmpfs on the folder holds the copy. (The folder is not bound with what is mounted on it, or the tmpfs would come
/// along and cover it again.) Where there is a live file, the folder then comes back on top, so that all
/// its other files are there, and only the copy stands on its zone file.
void make_place(const std::string &name)
{
    if (!enter_namespace())
        refuse(name, "no right to a mount namespace; run as root");
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, name, "private mounts");
    const unique_fd folder{open(live_folder, O_PATH | O_DIRECTORY | O_CLOEXEC)};
    check(static_cast<bool>(folder), name, live_folder);
    const bool is_live = faccessat(folder.get(), "zones.json", F_OK, 0) == 0;
    check(mount("tmpfs", live_folder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") == 0, name, "a tmpfs");
    place.copy = unique_fd{open(live_file, O_RDWR | O_CREAT | O_CLOEXEC, 0644)};
    check(static_cast<bool>(place.copy), name, "the copy");
    if (!is_live)
        return;
    check(mount(by_descriptor(folder).c_str(), live_folder, nullptr, MS_BIND, nullptr) == 0, name, "the folder on top");
    check(mount(by_descriptor(place.copy).c_str(), live_file, nullptr, MS_BIND, nullptr) == 0, name,
          "the copy on the live file");
}

} // namespace

void put_in_live_place(const zone_text &file)
{
    if (!place.copy)
        make_place(file.name);
    check(ftruncate(place.copy.get(), 0) == 0, file.name, "the copy");
    for (std::size_t written = 0; written < file.bytes.size();) {
        const ssize_t length = pwrite(place.copy.get(), file.bytes.data() + written, file.bytes.size() - written,
                                      static_cast<off_t>(written));
        check(length > 0, file.name, "the copy");
        written += static_cast<std::size_t>(length);
    }
    place.name = file.name;
}

const char *live_name()
{
    return place.name.c_str();
}

} // namespace vdctl
