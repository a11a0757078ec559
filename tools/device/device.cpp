#include "device.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>

#include <linux/sched.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr char host_root[] = "/.host";

[[noreturn]] void give_up(const char *step)
{
    std::fprintf(stderr, "device: %s: %s (tests need user, mount, network and pid namespaces)\n", step,
                 std::strerror(errno));
    _exit(1);
}

void check(long result, const char *step)
{
    if (result < 0)
        give_up(step);
}

void write_text(const fs::path &path, std::string_view text)
{
    std::ofstream{path} << text;
}

int namespaces()
{
    return CLONE_NEWNS | CLONE_NEWNET | (geteuid() == 0 ? 0 : CLONE_NEWUSER);
}

/// Makes the outer ids root's on the device; the kernel allows an ordinary user exactly this one pair.
void map_ids(uid_t uid, gid_t gid)
{
    write_text("/proc/self/setgroups", "deny");
    write_text("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_text("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

/// Makes folder of the new root and links in it for everything that the host has there, but for the private entries.
void link_folder(const fs::path &root, const fs::path &folder, std::initializer_list<std::string_view> own)
{
    const fs::path made = root / folder.relative_path();
    fs::create_directories(made);
    for (const auto &entry : fs::directory_iterator{folder}) {
        const std::string name = entry.path().filename();
        bool is_own = false;
        for (const std::string_view other : own)
            is_own = is_own || name == other;
        if (is_own)
            continue;
        if (entry.is_symlink())
            fs::copy_symlink(entry.path(), made / name);
        else
            fs::create_symlink(host_root + entry.path().string(), made / name);
    }
}

void bind_device(const char *path)
{
    const std::ofstream mount_point{path};
    check(mount(host_path(path).c_str(), path, nullptr, MS_BIND, nullptr), path);
}

void raise_loopback()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    ioctl(fd, SIOCSIFFLAGS, &request);
    close(fd);
}

void build_device()
{
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    const fs::path root = "/tmp";
    check(mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=755"), "tmpfs");
    link_folder(root, "/", {"tmp", "proc", "sys", "dev", "etc", "var", "usr", "run"});
    link_folder(root, "/etc", {"vandrel", "config", "passwd", "group"});
    link_folder(root, "/var", {"run", "state", "tmp"});
    link_folder(root, "/dev", {"log", "null", "zero", "full", "random", "urandom", "tty", "shm"});
    link_folder(root, "/usr", {"share"});
    link_folder(root, "/usr/share", {"vandrel"});
    for (const char *folder : {".host", "proc", "sys", "run/vandrel", "run/uci", "etc/vandrel", "etc/config",
                               "var/state", "usr/share/vandrel"})
        fs::create_directories(root / folder);
    fs::create_symlink("/run", root / "var/run");
    for (const char *folder : {"tmp", "var/tmp", "dev/shm"}) {
        fs::create_directories(root / folder);
        fs::permissions(root / folder, fs::perms::all | fs::perms::sticky_bit);
    }
    write_text(root / "etc/passwd", "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n");
    write_text(root / "etc/group", "root:x:0:\nnogroup:x:65534:\n");

    check(syscall(SYS_pivot_root, root.c_str(), (root / ".host").c_str()), "pivot_root");
    check(chdir("/"), "chdir");
    for (const char *path : {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"})
        bind_device(path);
    if (mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) < 0)
        check(mount(host_path("/proc").c_str(), "/proc", nullptr, MS_BIND | MS_REC, nullptr), "proc");
    check(mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr), "sysfs");
    write_text("/proc/sys/net/unix/max_dgram_qlen", "10000"); // else the eleventh unread log record blocks its sender
    raise_loopback();
    umask(022);
}

void settle(uid_t uid, gid_t gid)
{
    if (uid != 0)
        map_ids(uid, gid);
    build_device();
}

} // namespace

pid_t fork_into_device()
{
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    std::fflush(nullptr);
    clone_args wanted{}; // clone3, since the arguments of clone have another order on some machines
    wanted.flags = static_cast<unsigned>(namespaces() | CLONE_NEWPID);
    wanted.exit_signal = SIGCHLD;
    const long pid = syscall(SYS_clone3, &wanted, sizeof wanted);
    check(pid, "clone");
    if (pid == 0)
        settle(uid, gid);
    return static_cast<pid_t>(pid);
}

bool on_device()
{
    return access(host_root, F_OK) == 0;
}

void enter_device()
{
    if (on_device())
        return;
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    check(unshare(namespaces()), "unshare");
    settle(uid, gid);
}

bool several_ids()
{
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    std::ifstream{"/proc/self/uid_map"} >> inside >> outside >> count;
    return count > 1;
}

std::string host_path(std::string_view path)
{
    return std::string{host_root}.append(path);
}
