// Each case starts a process that calls vd_daemonize and looks from outside, through /proc, at the process in which the
// call returned: it stops right there. The test adopts what is orphaned, so it sees every process end.
#include "daemon_tools.h"

#include "device_test.hpp"
#include "logging.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using text = std::string;
using step = std::function<void()>;
namespace fs = std::filesystem;

const step nothing = [] {};
constexpr cap_value_t chown_only[] = {CAP_CHOWN};
// real, effective, saved and file system ids, as /proc/PID/status has them
const text root = "0\t0\t0\t0", agent = "1001\t1001\t1001\t1001", agents = "1002\t1002\t1002\t1002";

/// From here on the process, and what it starts, gets err instead of the system call.
step deny(unsigned number, unsigned err)
{
    return [=] {
        sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0), // the number stands first in seccomp_data
                                 BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
                                 BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | err),
                                 BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
        const sock_fprog filter{std::size(program), program};
        prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
    };
}

/// Cuts the process down to these capabilities, in the form of cap_from_text.
step hold(const char *capabilities)
{
    return [=] {
        static const cap_t state = cap_from_text(capabilities); // not given back: each process does this once
        cap_set_proc(state);
    };
}

/// What a line of /proc/PID/status says.
text status(pid_t pid, const text &name)
{
    const text all = "\n" + read_file("/proc/" + std::to_string(pid) + "/status");
    const std::size_t begin = all.find("\n" + name + ":") + name.size() + 3;
    return all.substr(begin, all.find('\n', begin) - begin);
}

class daemon_tools_test : public device_test {
protected:
    daemon_tools_test()
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nagent:x:1001:1002::/:/bin/false\n");
        write_file("/etc/group", "root:x:0:\nagent:x:1002:\nextra:x:1003:agent\n");
    }
    ~daemon_tools_test() override { end(); }

    /// Gives the process that the call returned in, once all before it have ended; it is called "RESULT,SECUREBITS" and
    /// takes the last step when it is ended with SIGCONT.
    pid_t start(const daemonize_options *options, const step &before, const step &last = nothing)
    {
        end();
        std::fflush(nullptr);
        if (fork() == 0) {
            before();
            const text result = std::to_string(vd_daemonize(options)) + ",";
            prctl(PR_SET_NAME, (result + std::to_string(prctl(PR_GET_SECUREBITS))).c_str());
            raise(SIGSTOP);
            last();
            _exit(0);
        }
        forks = 0;
        pid_t pid;
        for (int state; (pid = waitpid(-1, &state, WUNTRACED | (pid_ ? WNOHANG : 0))) > 0;) {
            pid_ = WIFSTOPPED(state) ? pid : pid_;
            forks += state == 0;
        }
        return pid_;
    }

    void end(int signal = SIGKILL)
    {
        if (pid_ > 0)
            kill(std::exchange(pid_, 0), signal);
        while (wait(nullptr) > 0) {}
    }

    int forks = 0; // after each of them a process ended well

private:
    pid_t pid_ = 0;
};

TEST_F(daemon_tools_test, daemon_is_detached_and_its_log_goes_on)
{
    const int terminal = posix_openpt(O_RDWR);
    ASSERT_EQ(grantpt(terminal) | unlockpt(terminal), 0);
    const daemonize_options options{nullptr, nullptr, 0123, nullptr, 0, false};
    const auto note = [](int line) { vd_logging_log(libvandrel_logcontext, LOG_INFO, "x.c", line, -1, "note"); };
    for (const bool plain_sweep : {false, true}) {
        const auto before = [&] {
            note(1);  // so that the log has a descriptor
            setsid(); // the terminal becomes the controlling one, and the end of this process hangs it up
            if (ioctl(ioctl(terminal, TIOCGPTPEER, O_RDWR), TIOCSCTTY, 0) == 0 && freopen("/tmp/output", "w", stdout))
                std::fputs(chdir("/tmp") == 0 ? "once" : "", stdout);
            static pid_t parent = 0; // each child goes on when it has no parent any more
            const auto wait = [] {
                while (getppid() == parent)
                    sched_yield();
            };
            pthread_atfork([] { parent = getpid(); }, nullptr, wait);
            dup2(terminal, 800);
            const rlimit descriptors{801, 801};
            setrlimit(RLIMIT_NOFILE, &descriptors);
            deny(plain_sweep ? SYS_close_range : SYS_sync, ENOSYS)();
        };
        const auto last = [&] {
            int sockets[20]; // one has the number that was the log's
            for (int i = 0; i < 20; i += 2)
                socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets + i);
            note(2);
        };
        const pid_t pid = start(plain_sweep ? &options : nullptr, before, last);
        EXPECT_TRUE(status(pid, "Name") == "0,0" && forks == 2 && read_file("/tmp/output") == "once");
        EXPECT_EQ(status(pid, "Umask"), plain_sweep ? "0123" : "0027");
        const fs::path process = "/proc/" + std::to_string(pid);
        EXPECT_EQ(fs::read_symlink(process / "cwd"), "/");
        std::set<text> descriptors;
        for (const auto &entry : fs::directory_iterator{process / "fd"})
            descriptors.insert(entry.path().filename().string() + fs::read_symlink(entry.path()).string());
        EXPECT_EQ(descriptors, (std::set<text>{"0/dev/null", "1/dev/null", "2/dev/null"}));
        EXPECT_TRUE(getsid(pid) == getpgid(pid) && getsid(pid) != pid);
        end(SIGCONT);
        const text line = raw_log(2).at(1);
        EXPECT_TRUE(line.find(" test[") != text::npos && line.ends_with(": note; filename='x.c:2'")) << line;
    }
}

TEST_F(daemon_tools_test, rights_are_those_asked_for)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    const text all = "00000000000001c1", chown = "0000000000000001", none = "0000000000000000";
    // user, group, whether there is a list; ids, supplementary groups (7 when kept), capabilities and secure bits
    const std::tuple<const char *, const char *, bool, text, text, text, text> cases[] = {
        {nullptr, nullptr, true, root + root, "7 ", chown, "0,0"},
        {nullptr, "agent", false, root + agents, "7 ", all, "0,0"},
        {"agent", nullptr, true, agent + root, "7 ", chown, "0,12"},
        {"agent", "agent", false, agent + agents, "1002 1003 ", none, "0,0"},
        {"agent", "agent", true, agent + agents, "1002 1003 ", chown, "0,12"},
    };
    for (const auto &[user, group, list, ids, groups, capabilities, name] : cases) {
        for (const bool keep : {false, true}) {
            const daemonize_options options{user, group, 027, list ? chown_only : nullptr, 1, keep};
            const pid_t pid = start(&options, [] {
                const gid_t other = 7;
                setgroups(1, &other);
                hold("cap_chown,cap_setgid,cap_setuid,cap_setpcap=eip")();
            });
            EXPECT_EQ(status(pid, "Uid") + status(pid, "Gid"), ids);
            EXPECT_EQ(status(pid, "Groups"), keep ? "7 " : groups);
            EXPECT_EQ(status(pid, "CapPrm") + status(pid, "CapEff"), capabilities + capabilities);
            EXPECT_EQ(status(pid, "CapInh"), list ? none : all);
            EXPECT_TRUE(status(pid, "Name") == name && forks == 2 && log().empty()) << ids;
        }
    }
}

TEST_F(daemon_tools_test, failure_is_logged_and_returned_where_it_happens)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    const auto as = [](const char *user, const char *group, bool keep = false, const cap_value_t *list = nullptr,
                       int count = 1) { return daemonize_options{user, group, 0, list, count, keep}; };
    const auto plain = as("agent", "agent"), list = as("agent", "agent", false, chown_only);
    const auto kept = as("agent", "agent", true), empty = as("agent", "agent", false, chown_only, 0);
    const step no_second_fork = [] { pthread_atfork(nullptr, nullptr, [] { deny(SYS_clone, EAGAIN)(); }); };
    const text again = "Resource temporarily unavailable\n", denied = "Operation not permitted\n";
    const text as_root = root + root, half = root + agents, as_agent = agent + agents;
    // the result and that of the change of ids, how many forks were made, the ids, and what is logged with which error
    const std::tuple<daemonize_options, step, int, int, int, text, text, int> cases[] = {
        {list, hold("cap_setgid,cap_setuid=ep"), -20, 0, 0, as_root, "Setting securebits failed", EPERM},
        {as("agent", "none"), nothing, -21, -8, 0, as_root, "Didn't find group 'none' for setting process group id",
         -1},
        {plain, hold("cap_setuid=ep"), -21, -9, 0, as_root, "initgroups() failed", EPERM},
        {kept, hold("cap_setuid=ep"), -21, -7, 0, as_root, "Unable to set group id to 1002 (name 'agent')", EPERM},
        {as("none", "agent"), nothing, -21, -5, 0, half, "Didn't find user 'none' for setting process user id", -1},
        {plain, hold("cap_setgid=ep"), -21, -6, 0, half, "Unable to set user id to 1001 (name 'agent')", EPERM},
        {list, deny(SYS_capget, EPERM), -22, 0, 0, as_agent, "cap_get_proc() failed", -1},
        {empty, nothing, -23, 0, 0, as_agent, "cap_set_flag() with CAP_PERMITTED failed", -1},
        {list, hold("cap_setgid,cap_setuid,cap_setpcap=ep"), -25, 0, 0, as_agent, "cap_set_proc() failed", EPERM},
        {plain, deny(SYS_clone, EAGAIN), -1, 0, 0, as_agent, "Error, cannot fork, " + again, EAGAIN},
        {plain, deny(SYS_setsid, EPERM), -2, 0, 1, as_agent, "Error, setsid failed, " + denied, EPERM},
        {plain, no_second_fork, -3, 0, 1, as_agent, "Error, cannot fork second time, " + again, EAGAIN},
        {plain, deny(SYS_chdir, EPERM), -4, 0, 2, as_agent, "Error, cannot change directory into /", -1},
    };
    for (const auto &[wanted, before, result, of_ids, ended, ids, message, err] : cases) {
        const pid_t pid = start(&wanted, before);
        records logged{error(message, "daemon_tools.c", err)};
        if (of_ids != 0)
            logged.push_back(error("Failed to change uid and gid, error " + std::to_string(of_ids), "daemon_tools.c"));
        EXPECT_EQ(log(), logged);
        EXPECT_TRUE(status(pid, "Name").starts_with(std::to_string(result) + ",") && forks == ended) << result;
        EXPECT_EQ(status(pid, "Uid") + status(pid, "Gid"), ids) << result;
    }
}

} // namespace
