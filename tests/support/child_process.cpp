#include "child_process.hpp"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int returned = 42; // not what a body that calls exit would choose

/// The test's earlier failures are not the child's.
[[noreturn]] void run(const std::function<void()> &body)
{
    const auto &test = *testing::UnitTest::GetInstance()->current_test_info();
    const int failures_before = test.result()->total_part_count();
    body();
    std::exit(test.result()->total_part_count() > failures_before ? EXIT_FAILURE : returned);
}

} // namespace

child_process::child_process(const std::function<void()> &body)
{
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0)
        run(body);
    if (pid_ < 0)
        ADD_FAILURE() << "fork failed";
}

child_process::~child_process()
{
    join();
}

void child_process::join()
{
    if (pid_ <= 0)
        return;
    const int status = take_status();
    const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    EXPECT_EQ(signal, 0) << "it killed a child";
    const bool ended_well = signal != 0 || WEXITSTATUS(status) == returned;
    EXPECT_TRUE(ended_well) << "a check in a child failed (see above), or it ended early or leaks";
}

void child_process::end_with(int signal)
{
    kill(pid_, signal);
    const int status = take_status();
    EXPECT_EQ(WIFSIGNALED(status) ? WTERMSIG(status) : 0, signal) << "a child ended before it was told to";
}

int child_process::take_status()
{
    int status = -1;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_) << "somebody else has waited for a child";
    pid_ = 0;
    return status;
}

int result_in_child(const std::function<int()> &body)
{
    const pid_t pid = fork();
    if (pid == 0) {
        std::signal(SIGSEGV, SIG_DFL); // a sanitizer would make an exit of it
        _exit(body());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
