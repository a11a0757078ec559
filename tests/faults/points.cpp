#include "points.hpp"

#include "inject.hpp"
#include "logging.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <dlfcn.h>
#include <execinfo.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr unsigned time_limit = 20; // seconds for one point

/// What the process of one point tells; in shared memory, so that it stays when the process is killed.
struct report {
    long points;
    bool happened, finished;
    char where[32];
    outcome right, got, again;
    char leaked_by[64], refused[64];
    char crashed_in[128];
};

report *shared;

template <std::size_t Size> void copy(char (&to)[Size], const char *text)
{
    std::snprintf(to, Size, "%s", text);
}

/// The library whose code crashed, or called the C library's that did.
void note_crash(int signal)
{
    void *frames[32];
    const int depth = backtrace(frames, 32);
    for (int i = 1; i < depth && shared->crashed_in[0] == '\0'; ++i) {
        Dl_info info;
        if (dladdr(frames[i], &info) != 0 && std::strstr(info.dli_fname, ".so") &&
            !std::strstr(info.dli_fname, "libc.so"))
            std::snprintf(shared->crashed_in, sizeof shared->crashed_in, "%s", std::strrchr(info.dli_fname, '/') + 1);
    }
    _exit(128 + signal);
}

outcome prepared_call(const scenario &tried)
{
    tried.prepare();
    return tried.call();
}

void run_point(const scenario &tried, const fault_kind &kind, long n)
{
    void *warm[1];
    backtrace(warm, 1); // loads what it needs
    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL})
        std::signal(signal, note_crash);
    alarm(time_limit);
    vd_logging_log(libvandrel_logcontext, LOG_INFO, "points.cpp", 1, ENOENT, "the first record"); // allocates for good
    prepared_call(tried);
    shared->right = prepared_call(tried);
    tried.release();
    inject::note_blocks();
    tried.prepare();
    kind.arm(n);
    shared->got = tried.call();
    shared->happened = kind.happened();
    shared->points = kind.points();
    copy(shared->refused, inject::refused_library());
    kind.arm(0);
    if (const char *where = kind.where())
        copy(shared->where, where);
    shared->again = prepared_call(tried);
    tried.release();
    if (const char *library = inject::leaking_library())
        copy(shared->leaked_by, *library ? library : "the program");
    shared->finished = true;
}

const char *fault_of(const scenario &tried, int status)
{
    if (!shared->finished)
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "hung" : "crashed";
    if (!is_documented(tried, shared->right, shared->got))
        return "undocumented outcome";
    if (shared->again.view() != shared->right.view())
        return "the next call is wrong";
    return shared->leaked_by[0] != '\0' ? "leaked" : nullptr;
}

bool is_ours(const char *library)
{
    return library[0] == '\0' || std::strstr(library, "libvandrel") || std::strstr(library, "libuci");
}

/// Whether a call of that name puts something on the disk, so that somebody has to hear of its failure.
bool is_change(const char *call)
{
    return std::strcmp(call, "write") == 0 || std::strcmp(call, "fsync") == 0 || std::strcmp(call, "rename") == 0;
}

/// Adds one point to the sum.
void judge(const scenario &tried, const fault_kind &kind, long n, int status, tally &sum, int &untold)
{
    ++sum.points;
    const char *fault = fault_of(tried, status);
    if (!fault && kind.is_lasting && is_change(shared->where) && shared->got.view() == shared->right.view())
        fault = ++untold > tried.untold ? "not told" : nullptr;
    if (!fault) {
        ++(shared->got.view() == shared->right.view() ? sum.right : sum.documented);
        return;
    }
    const bool crashed_below = !shared->finished && !is_ours(shared->crashed_in);
    const bool leaked_below =
        std::strcmp(fault, "leaked") == 0 && !is_ours(shared->leaked_by) && !is_ours(shared->refused);
    if (crashed_below || leaked_below) {
        ++(crashed_below ? sum.crashed_below : sum.leaked_below);
        std::printf("       %s: %s %ld: %s inside %s\n", tried.name, kind.name, n, fault,
                    crashed_below ? shared->crashed_in : shared->leaked_by);
        return;
    }
    ++sum.wrong;
    std::printf("WRONG  %s: %s %ld %s: %s: \"%s\" for \"%s\", then \"%s\"; crash in %s, leak by %s, refused to %s\n",
                tried.name, kind.name, n, shared->where, fault, shared->got.text, shared->right.text,
                shared->again.text, shared->crashed_in, shared->leaked_by, shared->refused);
}

} // namespace

tally &tally::operator+=(const tally &other)
{
    points += other.points;
    right += other.right;
    documented += other.documented;
    crashed_below += other.crashed_below;
    leaked_below += other.leaked_below;
    wrong += other.wrong;
    return *this;
}

tally try_all_points(const scenario &tried, const fault_kind &kind)
{
    if (!shared)
        shared = static_cast<report *>(
            mmap(nullptr, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    tally sum;
    int untold = 0;
    for (long n = 1;; ++n) {
        *shared = {};
        std::fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            run_point(tried, kind, n);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (shared->finished && !shared->happened)
            break;
        judge(tried, kind, n, status, sum, untold);
    }
    std::printf("%5ld points  %s: %s\n", sum.points, kind.name, tried.name);
    return sum;
}

int conclude(const char *what, const tally &sum, long wanted_points)
{
    std::printf("%s: %ld points: %ld right all the same, %ld failed as documented, %ld crashed and %ld leaked inside a "
                "library below, %ld wrong\n",
                what, sum.points, sum.right, sum.documented, sum.crashed_below, sum.leaked_below, sum.wrong);
    if (sum.points < wanted_points)
        std::printf("%s: fewer than the %ld points that there should be\n", what, wanted_points);
    return sum.wrong == 0 && sum.points >= wanted_points ? 0 : 1;
}
