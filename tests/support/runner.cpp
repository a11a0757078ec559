// M_test [PATTERN...]: runs each test (those whose full name matches a shell pattern, or all) in a process of its own
// on an empty device, as many at a time as there are processors; shows what failed and closes with "N passed, N
// failed".
#include "device.hpp"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

// Known one-time allocations of libraries; nothing of ours is named here.
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions()
{
    return "leak:libglib-2.0.so\n";
}

namespace {

constexpr unsigned time_limit = 180; // seconds for one test; a busy machine must not fail it
constexpr int skipped_status = 77;

struct running_test {
    std::string name;
    int output;
};

struct {
    std::map<pid_t, running_test> running;
    int passed = 0, failed = 0, skipped = 0;
} run;

[[noreturn]] void run_test(const std::string &name)
{
    GTEST_FLAG_SET(filter, name);
    const int failed = RUN_ALL_TESTS();
    const auto &unit = *testing::UnitTest::GetInstance();
    std::exit(failed != 0 || unit.test_to_run_count() != 1 ? 1 : unit.skipped_test_count() != 0 ? skipped_status : 0);
}

/// Process 1 of the test's device, so that the test itself is a process like any other. All of them end with it.
[[noreturn]] void run_on_device(const std::string &name)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const pid_t test = fork();
    if (test == 0)
        run_test(name);
    std::signal(SIGALRM, [](int) {
        std::fputs("hung, killed\n", stderr); // nothing but waitpid is ever interrupted
        _exit(1);
    });
    alarm(time_limit);
    int status = 0;
    while (waitpid(-1, &status, 0) != test) {}
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "killed by signal %d (%s)\n", WTERMSIG(status), strsignal(WTERMSIG(status)));
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

void start(const std::string &name)
{
    const int output = memfd_create("output", MFD_CLOEXEC);
    std::fflush(nullptr);
    const pid_t pid = fork_into_device();
    if (pid == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        close(output);
        run_on_device(name);
    }
    run.running[pid] = {name, output};
}

void show(int output)
{
    char buffer[4096];
    lseek(output, 0, SEEK_SET);
    for (ssize_t size; (size = read(output, buffer, sizeof buffer)) > 0;)
        std::fwrite(buffer, 1, static_cast<std::size_t>(size), stdout);
}

void wait_for_one()
{
    int status = 0;
    const running_test test = run.running.extract(waitpid(-1, &status, 0)).mapped();
    const bool passed = status == 0;
    const bool skipped = WIFEXITED(status) && WEXITSTATUS(status) == skipped_status;
    ++(passed ? run.passed : skipped ? run.skipped : run.failed);
    if (!passed) {
        show(test.output);
        std::printf("%s: %s\n", skipped ? "SKIPPED" : "FAILED", test.name.c_str());
    }
    close(test.output);
}

bool is_wanted(const std::string &name, int argc, char **argv)
{
    bool matches = argc < 2;
    for (int i = 1; i < argc; ++i)
        matches = matches || fnmatch(argv[i], name.c_str(), 0) == 0;
    return matches;
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const auto jobs = static_cast<std::size_t>(sysconf(_SC_NPROCESSORS_ONLN));
    const auto &unit = *testing::UnitTest::GetInstance();
    for (int s = 0; s < unit.total_test_suite_count(); ++s) {
        const auto &suite = *unit.GetTestSuite(s);
        for (int t = 0; t < suite.total_test_count(); ++t) {
            const std::string name = std::string{suite.name()} + "." + suite.GetTestInfo(t)->name();
            if (!is_wanted(name, argc, argv))
                continue;
            while (run.running.size() >= jobs)
                wait_for_one();
            start(name);
        }
    }
    while (!run.running.empty())
        wait_for_one();
    std::printf("%d passed, %d failed", run.passed, run.failed);
    std::printf(run.skipped != 0 ? ", %d skipped\n" : "\n", run.skipped);
    return run.failed == 0 && run.passed + run.skipped > 0 ? 0 : 1;
}
