#include "daemon_tools.h"

#include "handles.hpp"
#include "log.hpp"
#include "paths.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <grp.h>
#include <linux/securebits.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace vandrel;

constexpr char log_module[] = "daemon_tools.c";
constexpr mode_t default_umask = 027;

int change_group(const char *user, const char *group, bool keep_supplementary_groups)
{
    const struct group *entry = getgrnam(group);
    if (!entry) {
        log_error("Didn't find group '%s' for setting process group id", group);
        return -8;
    }
    const gid_t gid = entry->gr_gid; // initgroups reads the group file too and may overwrite the entry
    if (user && !keep_supplementary_groups && initgroups(user, gid) != 0) {
        log_error_errno("initgroups() failed");
        return -9;
    }
    if (setgid(gid) != 0) {
        log_error_errno("Unable to set group id to %u (name '%s')", gid, group);
        return -7;
    }
    return 0;
}

int change_user(const char *user)
{
    const struct passwd *entry = getpwnam(user);
    if (!entry) {
        log_error("Didn't find user '%s' for setting process user id", user);
        return -5;
    }
    if (setuid(entry->pw_uid) != 0) {
        log_error_errno("Unable to set user id to %u (name '%s')", entry->pw_uid, user);
        return -6;
    }
    return 0;
}

int change_ids(const daemonize_options &options)
{
    if (!options.user && !options.group)
        return 0;
    // Without this the kernel empties the capability sets when root becomes somebody else.
    constexpr unsigned long keep = SECBIT_NO_SETUID_FIXUP | SECBIT_NO_SETUID_FIXUP_LOCKED;
    if (options.capabilities && prctl(PR_SET_SECUREBITS, keep, 0L, 0L, 0L) != 0) {
        log_error_errno("Setting securebits failed");
        return -20;
    }
    const int failure =
        vd_set_process_uid_and_gid_by_names(options.user, options.group, options.keep_supplementary_groups);
    if (failure != 0) {
        log_error("Failed to change uid and gid, error %d", failure);
        return -21;
    }
    return 0;
}

int reduce_capabilities(const daemonize_options &options)
{
    if (!options.capabilities)
        return 0;
    capability_handle state{cap_get_proc()};
    if (!state) {
        log_error("cap_get_proc() failed");
        return -22;
    }
    cap_clear(state.get());
    if (cap_set_flag(state.get(), CAP_PERMITTED, options.capability_count, options.capabilities, CAP_SET) != 0) {
        log_error("cap_set_flag() with CAP_PERMITTED failed");
        return -23;
    }
    if (cap_set_flag(state.get(), CAP_EFFECTIVE, options.capability_count, options.capabilities, CAP_SET) != 0) {
        log_error("cap_set_flag() with CAP_EFFECTIVE failed");
        return -24;
    }
    if (cap_set_proc(state.get()) != 0) {
        log_error_errno("cap_set_proc() failed");
        return -25;
    }
    if (cap_free(state.release()) != 0) {
        log_error("cap_free() failed");
        return -26;
    }
    return 0;
}

/// Ignores SIGHUP while it lives: a caller that leads a session with a terminal sends it by ending, and a child that is
/// not in a session of its own yet would die of it.
class hangup_ignored {
public:
    hangup_ignored() noexcept
    {
        struct sigaction ignored {};
        ignored.sa_handler = SIG_IGN;
        sigaction(SIGHUP, &ignored, &before_);
    }
    ~hangup_ignored() { sigaction(SIGHUP, &before_, nullptr); }
    hangup_ignored(const hangup_ignored &) = delete;
    hangup_ignored &operator=(const hangup_ignored &) = delete;

private:
    struct sigaction before_ {};
};

/// Holds SIGPIPE back while it lives: what stdio still holds may be for a pipe that nobody reads any more, and both
/// processes that end here write it out again.
class broken_pipe_held_back {
public:
    broken_pipe_held_back() noexcept
    {
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &mask_before_);
    }
    ~broken_pipe_held_back()
    {
        constexpr timespec at_once{};
        if (!was_pending_)
            uninterrupted([&] { return sigtimedwait(&signal_, nullptr, &at_once); });
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }
    broken_pipe_held_back(const broken_pipe_held_back &) = delete;
    broken_pipe_held_back &operator=(const broken_pipe_held_back &) = delete;

private:
    bool was_pending_;
    sigset_t signal_, mask_before_;
};

/// Goes on in the first child, at the head of a session of its own.
int start_session()
{
    const hangup_ignored guard;
    const pid_t child = fork();
    if (child < 0) {
        log_error_errno("Error, cannot fork, %s\n", std::strerror(errno)); // the newline is part of the message
        return -1;
    }
    if (child > 0)
        std::exit(0);
    if (setsid() < 0) {
        log_error_errno("Error, setsid failed, %s\n", std::strerror(errno));
        return -2;
    }
    return 0;
}

/// Goes on in the grandchild, which is in a new session but doesn't lead it and so can't gain a terminal by opening it.
int detach()
{
    const broken_pipe_held_back guard;
    std::fflush(nullptr); // or each of the processes would write out what is buffered here
    if (const int failure = start_session(); failure != 0)
        return failure;
    const pid_t grandchild = fork();
    if (grandchild < 0) {
        log_error_errno("Error, cannot fork second time, %s\n", std::strerror(errno));
        return -3;
    }
    if (grandchild > 0)
        std::exit(0);
    return 0;
}

/// Closes all descriptors in one call, which doesn't grow with the limit, where the kernel has it (5.9). The C library
/// may be older than the kernel or lack the wrapper, as musl does.
bool close_range_of_all()
{
#ifdef SYS_close_range
    return syscall(SYS_close_range, 0U, ~0U, 0U) == 0;
#else
    return false;
#endif
}

void close_descriptors()
{
    closelog(); // or a later record would go to whatever has got the number of the log's descriptor by then
    if (close_range_of_all())
        return;
    for (int fd = getdtablesize(); fd >= 0; --fd)
        close(fd);
}

void open_standard_descriptors()
{
    const int fd = open(null_device, O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(fd, standard);
    if (fd > STDERR_FILENO)
        close(fd);
}

} // namespace

int vd_set_process_uid_and_gid_by_names(const char *user, const char *group, bool keep_supplementary_groups)
{
    if (group) {
        if (const int failure = change_group(user, group, keep_supplementary_groups); failure != 0)
            return failure;
    }
    return user ? change_user(user) : 0;
}

int vd_daemonize(const daemonize_options *options)
{
    if (options) {
        if (const int failure = change_ids(*options); failure != 0)
            return failure;
        if (const int failure = reduce_capabilities(*options); failure != 0)
            return failure;
    }
    if (const int failure = detach(); failure != 0)
        return failure;

    close_descriptors();
    open_standard_descriptors();
    umask(options ? options->umask : default_umask);
    if (chdir("/") != 0) {
        log_error("Error, cannot change directory into /");
        return -4;
    }
    return 0;
}
