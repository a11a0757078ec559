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

/// A set of signals, as /proc/PID/status has it.
unsigned long signals(pid_t pid, const text &name)
{
    return std::stoul(status(pid, name), nullptr, 16);
}

unsigned long bit(int signal)
{
    return 1UL << (signal - 1);
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

    void SetUp() override
    {
        if (is_emulated())
            GTEST_SKIP() << "qemu-user has neither a child subreaper nor seccomp";
    }

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
        // the process itself may stop before the last of its parents has ended
        while (read_file("/proc/thread-self/children") != std::to_string(pid_) + " ") {
            int state = 0;
            const pid_t pid = waitpid(-1, &state, WUNTRACED);
            if (pid < 0)
                break;
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
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const daemonize_options narrow{nullptr, nullptr, 0123, nullptr, 0, false};
    const daemonize_options open{nullptr, nullptr, 0, nullptr, 0, false};
    const struct {
        const daemonize_options *options;
        bool plain_sweep; // the kernel lacks close_range
        const char *mask;
    } cases[] = {{nullptr, false, "0027"}, {&narrow, true, "0123"}, {&open, false, "0000"}};
    const auto note = [](int line) { vd_logging_log(libvandrel_logcontext, LOG_INFO, "x.c", line, -1, "note"); };
    for (const auto &[options, plain_sweep, mask] : cases) {
        const auto before = [&, is_denied = plain_sweep] {
            std::signal(SIGHUP, SIG_DFL);
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
            deny(is_denied ? SYS_close_range : SYS_sync, ENOSYS)();
        };
        const auto last = [&] {
            int sockets[20]; // one has the number that was the log's
            for (int i = 0; i < 20; i += 2)
                socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets + i);
            note(2);
        };
        const pid_t pid = start(options, before, last);
        EXPECT_EQ(status(pid, "Name"), "0,0");
        EXPECT_EQ(forks, 2);
        EXPECT_EQ(read_file("/tmp/output"), "once");
        EXPECT_EQ(status(pid, "Umask"), mask);
        EXPECT_EQ(signals(pid, "SigIgn") & bit(SIGHUP), 0U);
        const fs::path process = "/proc/" + std::to_string(pid);
        EXPECT_EQ(fs::read_symlink(process / "cwd"), "/");
        std::set<text> descriptors;
        for (const auto &entry : fs::directory_iterator{process / "fd"})
            descriptors.insert(entry.path().filename().string() + fs::read_symlink(entry.path()).string());
        EXPECT_EQ(descriptors, (std::set<text>{"0/dev/null", "1/dev/null", "2/dev/null"}));
        const text output = read_file((process / "fdinfo/1").string());
        EXPECT_EQ(std::stoi(output.substr(output.find("flags:") + 6), nullptr, 8) & O_ACCMODE, O_RDWR);
        EXPECT_EQ(getsid(pid), getpgid(pid));
        EXPECT_NE(getsid(pid), pid);
        end(SIGCONT);
        const text line = raw_log(2).at(1);
        EXPECT_NE(line.find(" test["), text::npos) << line;
        EXPECT_TRUE(line.ends_with(": note; filename='x.c:2'")) << line;
    }
}

TEST_F(daemon_tools_test, output_that_nobody_reads_ends_no_process_and_leaves_no_signal)
{
    const auto broken_output = [] {
        std::signal(SIGPIPE, SIG_DFL);
        int ends[2];
        if (pipe(ends) == 0) {
            dup2(ends[1], STDOUT_FILENO);
            close(ends[1]);
            close(ends[0]);
        }
        std::fputs("written out when the process ends, at the latest", stdout);
    };
    const auto block = [] {
        sigset_t signal;
        sigemptyset(&signal);
        sigaddset(&signal, SIGPIPE);
        sigprocmask(SIG_BLOCK, &signal, nullptr);
    };
    const step raised = [&] { block(), raise(SIGPIPE); };
    const struct {
        step before, fault;
        int ended; // processes
        bool blocked, pending;
        const char *name;
    } cases[] = {
        {nothing, nothing, 2, false, false, "0,0"},
        {block, nothing, 2, true, false, "0,0"},
        {nothing, deny(SYS_clone, EAGAIN), 0, false, false, "-1,0"},
        {raised, deny(SYS_clone, EAGAIN), 0, true, true, "-1,0"},
        {nothing, deny(SYS_setsid, EPERM), 1, false, false, "-2,0"},
    };
    for (const auto &[before, fault, ended, blocked, pending, name] : cases) {
        const pid_t pid = start(nullptr, [&, &set_up = before, &deny_it = fault] {
            set_up();
            broken_output();
            deny_it();
        });
        ASSERT_GT(pid, 0) << name;
        EXPECT_EQ(status(pid, "Name"), name);
        EXPECT_EQ(forks, ended) << name;
        EXPECT_EQ(signals(pid, "SigBlk") & bit(SIGPIPE), blocked ? bit(SIGPIPE) : 0) << name;
        EXPECT_EQ(signals(pid, "SigPnd") & bit(SIGPIPE), pending ? bit(SIGPIPE) : 0) << name;
        EXPECT_EQ(signals(pid, "SigIgn") & bit(SIGPIPE), 0U) << name;
        EXPECT_EQ(signals(pid, "SigCgt") & bit(SIGPIPE), 0U) << name;
    }
}

TEST_F(daemon_tools_test, rights_are_those_asked_for)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    const text all = "00000000000001c1", chown = "0000000000000001", none = "0000000000000000";
    const struct {
        const char *user, *group;
        bool list; // whether there is one
        text uids, gids;
        text groups; // the supplementary ones; 7 when kept
        text capabilities, name;
    } cases[] = {
        {nullptr, nullptr, true, root, root, "7 ", chown, "0,0"},
        {nullptr, "agent", false, root, agents, "7 ", all, "0,0"},
        {"agent", nullptr, true, agent, root, "7 ", chown, "0,12"},
        {"agent", "agent", false, agent, agents, "1002 1003 ", none, "0,0"},
        {"agent", "agent", true, agent, agents, "1002 1003 ", chown, "0,12"},
    };
    for (const auto &[user, group, list, uids, gids, groups, capabilities, name] : cases) {
        for (const bool keep : {false, true}) {
            const daemonize_options options{user, group, 027, list ? chown_only : nullptr, 1, keep};
            const pid_t pid = start(&options, [] {
                const gid_t other = 7;
                setgroups(1, &other);
                hold("cap_chown,cap_setgid,cap_setuid,cap_setpcap=eip")();
            });
            EXPECT_EQ(status(pid, "Uid"), uids);
            EXPECT_EQ(status(pid, "Gid"), gids);
            EXPECT_EQ(status(pid, "Groups"), keep ? "7 " : groups);
            EXPECT_EQ(status(pid, "CapPrm"), capabilities);
            EXPECT_EQ(status(pid, "CapEff"), capabilities);
            EXPECT_EQ(status(pid, "CapInh"), list ? none : all);
            EXPECT_EQ(status(pid, "Name"), name) << name;
            EXPECT_EQ(log(), records{}) << name;
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
    const struct {
        daemonize_options wanted;
        step before;
        int result, of_ids; // of_ids: of the change of ids
        int ended;          // how many processes
        text uids, gids;
        text message;
        int err;
    } cases[] = {
        {list, hold("cap_setgid,cap_setuid=ep"), -20, 0, 0, root, root, "Setting securebits failed", EPERM},
        {as("agent", "none"), nothing, -21, -8, 0, root, root, "Didn't find group 'none' for setting process group id",
         -1},
        {plain, hold("cap_setuid=ep"), -21, -9, 0, root, root, "initgroups() failed", EPERM},
        {kept, hold("cap_setuid=ep"), -21, -7, 0, root, root, "Unable to set group id to 1002 (name 'agent')", EPERM},
        {as("none", "agent"), nothing, -21, -5, 0, root, agents, "Didn't find user 'none' for setting process user id",
         -1},
        {plain, hold("cap_setgid=ep"), -21, -6, 0, root, agents, "Unable to set user id to 1001 (name 'agent')", EPERM},
        {list, deny(SYS_capget, EPERM), -22, 0, 0, agent, agents, "cap_get_proc() failed", -1},
        {empty, nothing, -23, 0, 0, agent, agents, "cap_set_flag() with CAP_PERMITTED failed", -1},
        {list, hold("cap_setgid,cap_setuid,cap_setpcap=ep"), -25, 0, 0, agent, agents, "cap_set_proc() failed", EPERM},
        {plain, deny(SYS_clone, EAGAIN), -1, 0, 0, agent, agents, "Error, cannot fork, " + again, EAGAIN},
        {plain, deny(SYS_setsid, EPERM), -2, 0, 1, agent, agents, "Error, setsid failed, " + denied, EPERM},
        {plain, no_second_fork, -3, 0, 1, agent, agents, "Error, cannot fork second time, " + again, EAGAIN},
        {plain, deny(SYS_chdir, EPERM), -4, 0, 2, agent, agents, "Error, cannot change directory into /", -1},
    };
    for (const auto &[wanted, before, result, of_ids, ended, uids, gids, message, err] : cases) {
        const pid_t pid = start(&wanted, before);
        records logged{error(message, "daemon_tools.c", err)};
        if (of_ids != 0)
            logged.push_back(error("Failed to change uid and gid, error " + std::to_string(of_ids), "daemon_tools.c"));
        EXPECT_EQ(log(), logged);
        const text name = status(pid, "Name");
        EXPECT_EQ(name.substr(0, name.find(',')), std::to_string(result));
        EXPECT_EQ(forks, ended) << result;
        EXPECT_EQ(status(pid, "Uid"), uids) << result;
        EXPECT_EQ(status(pid, "Gid"), gids) << result;
    }
}

} // namespace
