// Each case starts a process that calls vd_daemonize and looks from outside, through /proc, at the process in which the
// call returned: it stops right there. The test adopts what is orphaned, so it sees every process end.
#include "daemon_tools.h"

#include "device_test.hpp"
#include "logging.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
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

constexpr cap_value_t chown_only[] = {CAP_CHOWN};

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

void limit(int resource, rlim_t value)
{
    const rlimit both{value, value};
    setrlimit(resource, &both);
}

/// The words of a line of /proc/PID/status, a word that repeats only once.
text status(pid_t pid, const text &name)
{
    const text all = read_file("/proc/" + std::to_string(pid) + "/status");
    const std::size_t begin = all.find("\n" + name + ":") + name.size() + 2;
    std::istringstream line{all.substr(begin, all.find('\n', begin) - begin)};
    text result, last;
    for (text word; line >> word; last = word)
        result += word == last ? "" : result.empty() ? word : " " + word;
    return result;
}

struct daemon_answer {
    int result, secure_bits;
};
daemon_answer *shared; // by the test and the processes that it starts

class daemon_tools_test : public device_test {
protected:
    daemon_tools_test()
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        void *page = mmap(nullptr, sizeof(daemon_answer), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        shared = static_cast<daemon_answer *>(page);
        write_file("/etc/passwd", "root:x:0:0::/:/bin/sh\nagent:x:1001:1002::/:/bin/false\n");
        write_file("/etc/group", "root:x:0:\nagent:x:1002:\nextra:x:1003:agent\n");
    }
    ~daemon_tools_test() override { end(); }

    /// Gives the process that the call returned in, once all before it have ended. It takes the last step when it is
    /// ended with SIGCONT.
    pid_t start(const daemonize_options *options, const step &before, const step &last = nullptr)
    {
        end();
        std::fflush(nullptr);
        if (fork() == 0) {
            if (before)
                before();
            shared->result = vd_daemonize(options);
            shared->secure_bits = prctl(PR_GET_SECUREBITS);
            raise(SIGSTOP);
            if (last)
                last();
            _exit(0);
        }
        forks = 0;
        pid_t pid;
        for (int state; (pid = waitpid(-1, &state, WUNTRACED | (pid_ ? WNOHANG : 0))) > 0;) {
            if (WIFSTOPPED(state)) {
                pid_ = pid;
            } else {
                EXPECT_EQ(state, 0);
                ++forks;
            }
        }
        return pid_;
    }

    void end(int signal = SIGKILL)
    {
        if (pid_ > 0)
            kill(std::exchange(pid_, 0), signal);
        while (wait(nullptr) > 0) {}
    }

    int forks = 0; // after each of them a process ended

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
            limit(RLIMIT_NOFILE, plain_sweep ? 801 : 100);
            if (plain_sweep)
                deny(SYS_close_range, ENOSYS)();
        };
        const auto last = [&] {
            int sockets[20]; // one has the number that was the log's
            for (int i = 0; i < 20; i += 2)
                socketpair(AF_UNIX, SOCK_DGRAM, 0, sockets + i);
            note(2);
        };
        const pid_t pid = start(plain_sweep ? &options : nullptr, before, last);
        EXPECT_TRUE(shared->result == 0 && forks == 2 && read_file("/tmp/output") == "once");
        EXPECT_EQ(status(pid, "Umask"), plain_sweep ? "0123" : "0027");
        const fs::path process = "/proc/" + std::to_string(pid);
        EXPECT_EQ(fs::read_symlink(process / "cwd"), "/");
        std::set<text> descriptors;
        for (const auto &entry : fs::directory_iterator{process / "fd"})
            descriptors.insert(entry.path().filename().string() + fs::read_symlink(entry.path()).string());
        EXPECT_EQ(descriptors, (std::set<text>{"0/dev/null", "1/dev/null", "2/dev/null"}));
        text name, state;
        int id = 0, parent = 0, group = 0, session = 0, daemon_terminal = -1;
        std::ifstream{process / "stat"} >> id >> name >> state >> parent >> group >> session >> daemon_terminal;
        EXPECT_TRUE(session == group && session != pid && daemon_terminal == 0) << session << " " << group;
        end(SIGCONT);
        const auto lines = raw_log(2);
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_TRUE(lines[1].find(" test[") != text::npos && lines[1].ends_with(": note; filename='x.c:2'"))
            << lines[1];
    }
}

TEST_F(daemon_tools_test, rights_are_those_asked_for)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    const text all = "00000000000001c1", chown = "0000000000000001", none = "0000000000000000";
    // user, group, whether there is a list; ids, supplementary groups (7 when kept), capabilities and secure bits
    const std::tuple<const char *, const char *, bool, text, text, text, int> cases[] = {
        {nullptr, nullptr, true, "0 0", "7", chown, 0},
        {nullptr, "agent", false, "0 1002", "7", all, 0},
        {"agent", nullptr, true, "1001 0", "7", chown, 12},
        {"agent", "agent", false, "1001 1002", "1002 1003", none, 0},
        {"agent", "agent", true, "1001 1002", "1002 1003", chown, 12},
    };
    for (const auto &[user, group, list, ids, groups, capabilities, secure_bits] : cases) {
        for (const bool keep : {false, true}) {
            const daemonize_options options{user, group, 027, list ? chown_only : nullptr, 1, keep};
            const pid_t pid = start(&options, [] {
                const gid_t other = 7;
                setgroups(1, &other);
                hold("cap_chown,cap_setgid,cap_setuid,cap_setpcap=eip")();
            });
            EXPECT_EQ(status(pid, "Uid") + " " + status(pid, "Gid"), ids);
            EXPECT_EQ(status(pid, "Groups"), keep ? "7" : groups);
            EXPECT_EQ(status(pid, "CapPrm") + status(pid, "CapEff"), capabilities + capabilities);
            EXPECT_EQ(status(pid, "CapInh"), list ? none : all);
            EXPECT_TRUE(shared->result == 0 && forks == 2 && shared->secure_bits == secure_bits) << ids;
            EXPECT_EQ(log(), records{});
        }
    }
    EXPECT_EQ(vd_set_process_uid_and_gid_by_names(nullptr, nullptr, false), 0);
}

TEST_F(daemon_tools_test, failure_is_logged_and_returned_where_it_happens)
{
    if (!several_ids())
        GTEST_SKIP() << "needs several ids";
    const auto as = [](const char *user, const char *group, bool keep = false, const cap_value_t *list = nullptr,
                       int count = 1) { return daemonize_options{user, group, 0, list, count, keep}; };
    const auto plain = as("agent", "agent"), list = as("agent", "agent", false, chown_only);
    const auto kept = as("agent", "agent", true), empty = as("agent", "agent", false, chown_only, 0);
    const step no_process = [] { limit(RLIMIT_NPROC, 0); };
    const step no_second_process = [&] { pthread_atfork(nullptr, nullptr, [] { limit(RLIMIT_NPROC, 0); }); };
    const text again = "Resource temporarily unavailable\n", denied = "Operation not permitted\n";
    const text root = "0 0", half = "0 1002", agent = "1001 1002";
    // the result and that of the change of ids, how many forks were made, the ids, and what is logged with which error
    const std::tuple<daemonize_options, step, int, int, int, text, text, int> cases[] = {
        {list, hold("cap_setgid,cap_setuid=ep"), -20, 0, 0, root, "Setting securebits failed", EPERM},
        {as("agent", "none"), {}, -21, -8, 0, root, "Didn't find group 'none' for setting process group id", -1},
        {plain, hold("cap_setuid=ep"), -21, -9, 0, root, "initgroups() failed", EPERM},
        {kept, hold("cap_setuid=ep"), -21, -7, 0, root, "Unable to set group id to 1002 (name 'agent')", EPERM},
        {as("none", "agent"), {}, -21, -5, 0, half, "Didn't find user 'none' for setting process user id", -1},
        {as("", nullptr), {}, -21, -5, 0, root, "Didn't find user '' for setting process user id", -1},
        {plain, hold("cap_setgid=ep"), -21, -6, 0, half, "Unable to set user id to 1001 (name 'agent')", EPERM},
        {list, deny(SYS_capget, EPERM), -22, 0, 0, agent, "cap_get_proc() failed", -1},
        {empty, {}, -23, 0, 0, agent, "cap_set_flag() with CAP_PERMITTED failed", -1},
        {list, hold("cap_setgid,cap_setuid,cap_setpcap=ep"), -25, 0, 0, agent, "cap_set_proc() failed", EPERM},
        {plain, no_process, -1, 0, 0, agent, "Error, cannot fork, " + again, EAGAIN},
        {plain, deny(SYS_setsid, EPERM), -2, 0, 1, agent, "Error, setsid failed, " + denied, EPERM},
        {plain, no_second_process, -3, 0, 1, agent, "Error, cannot fork second time, " + again, EAGAIN},
        {plain, deny(SYS_chdir, EPERM), -4, 0, 2, agent, "Error, cannot change directory into /", -1},
    };
    for (const auto &[wanted, before, result, of_ids, ended, ids, message, err] : cases) {
        const pid_t pid = start(&wanted, before);
        records logged{error(message, "daemon_tools.c", err)};
        if (of_ids != 0)
            logged.push_back(error("Failed to change uid and gid, error " + std::to_string(of_ids), "daemon_tools.c"));
        EXPECT_EQ(log(), logged);
        EXPECT_TRUE(shared->result == result && forks == ended) << result;
        EXPECT_EQ(status(pid, "Uid") + " " + status(pid, "Gid"), ids) << result;
    }
}

} // namespace
