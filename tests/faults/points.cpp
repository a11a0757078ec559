// points memory|disk: tries each scenario once per point of failure, each in a process of its own, and tells what came
// out. Of memory, every allocation of the library and of what it calls is refused once; of the disk, every call on
// files fails once with each error, on the way of a load, a save and a commit.
#include "device.hpp"
#include "inject.hpp"
#include "logging.h"
#include "processes.hpp"
#include "scenarios.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>

#include <execinfo.h>
#include <sys/wait.h>
#include <syslog.h>

namespace {

constexpr unsigned time_limit = 20; // seconds for one point

struct fault_kind {
    const char *name;
    int error;

    bool is_lasting() const { return error == EIO || error == ENOSPC; } // trying again is no help
};
constexpr fault_kind memory_faults[] = {{"allocation", ENOMEM}};
constexpr fault_kind disk_faults[] = {
    {"EIO", EIO}, {"ENOSPC", ENOSPC}, {"EMFILE", EMFILE}, {"EINTR", EINTR}, {"short", inject::short_count}};
inject::calls failing;

/// What the process of one point tells.
struct report {
    bool has_failed, is_finished;
    outcome right, got, again;
    outcome refused, leaked_by, crashed_in; // libraries; refused is the name of the call on files that failed
};
report &told = shared_with_children<report>();

struct {
    long points = 0, right = 0, documented = 0, wrong = 0;
    std::map<std::string, long> below; // crashed and leaked inside a library that ours calls
} sum;

void note_crash(int signal)
{
    told.crashed_in = say("%s", inject::calling_library());
    _exit(128 + signal);
}

int run_point(const scenario &tried, const fault_kind &kind, long n)
{
    void *warm[1];
    backtrace(warm, 1); // loads what it needs
    for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL})
        std::signal(signal, note_crash);
    alarm(time_limit);
    vd_logging_log(libvandrel_logcontext, LOG_INFO, "points.cpp", 1, ENOENT, "the first record"); // allocates for good
    for (int warming = 0; warming < 2; ++warming) {
        prepare();
        told.right = tried.call();
    }
    release();
    inject::note_blocks();
    prepare();
    inject::armed = {failing, n, kind.error};
    told.got = tried.call();
    inject::armed.left = 0;
    told.has_failed = inject::armed.failed != nullptr;
    told.refused = say("%s", told.has_failed ? inject::armed.failed : "");
    prepare();
    told.again = tried.call();
    release();
    if (const char *library = inject::leaking_library())
        told.leaked_by = say("%s", *library ? library : "the program");
    told.is_finished = true;
    return 0;
}

bool is_documented(const char *failures)
{
    const std::string_view right = told.right.view(), got = told.got.view();
    if (right == got)
        return true;
    if (failures)
        return ('|' + std::string{failures} + '|').find('|' + std::string{got} + '|') != std::string::npos;
    return std::ranges::equal(got, right, std::ranges::less_equal{});
}

const char *fault_of(const scenario &tried, int status)
{
    if (!told.is_finished)
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "hung" : "crashed";
    if (!is_documented(tried.failures))
        return "undocumented outcome";
    if (told.again.view() != told.right.view())
        return "the next call is wrong";
    return told.leaked_by.text[0] != '\0' ? "leaked" : nullptr;
}

/// The library below ours whose own fault it is, or null.
const char *culprit_below(std::string_view fault)
{
    if (fault == "crashed" && !inject::is_ours(told.crashed_in.text))
        return told.crashed_in.text;
    const bool refused_below = failing == inject::calls::allocations && !inject::is_ours(told.refused.text);
    return fault == "leaked" && refused_below && !inject::is_ours(told.leaked_by.text) ? told.leaked_by.text : nullptr;
}

void judge(const scenario &tried, const fault_kind &kind, long n, int status, int &untold)
{
    ++sum.points;
    const bool is_right = told.got.view() == told.right.view();
    const char *fault = fault_of(tried, status);
    const std::string_view call = told.refused.view();
    const bool is_change = call == "write" || call == "fsync" || call == "rename"; // of the disk: somebody has to hear
    if (!fault && kind.is_lasting() && is_change && is_right && ++untold > tried.untold)
        fault = "not told";
    if (!fault) {
        ++(is_right ? sum.right : sum.documented);
    } else if (const char *library = culprit_below(fault)) {
        ++sum.below[fault + std::string{" inside "} + library];
    } else {
        ++sum.wrong;
        std::printf("WRONG  %s: %s %ld (%s): %s: \"%s\" for \"%s\", then \"%s\"; crash in %s, leak by %s\n", tried.name,
                    kind.name, n, told.refused.text, fault, told.got.text, told.right.text, told.again.text,
                    told.crashed_in.text, told.leaked_by.text);
    }
}

void try_all_points(const scenario &tried, const fault_kind &kind)
{
    const long before = sum.points;
    int untold = 0;
    for (long n = 1;; ++n) {
        told = {};
        int status = 0;
        waitpid(start([&] { return run_point(tried, kind, n); }), &status, 0);
        if (told.is_finished && !told.has_failed)
            break;
        judge(tried, kind, n, status, untold);
    }
    std::printf("%5ld points  %s: %s, else \"%.40s\"\n", sum.points - before, kind.name, tried.name, told.right.text);
}

} // namespace

int main(int argc, char **argv)
{
    const bool on_disk = argc > 1 && std::strcmp(argv[1], "disk") == 0;
    const long wanted_points = on_disk ? 300 : 1000;
    failing = on_disk ? inject::calls::on_files : inject::calls::allocations;
    enter_device();
    logging_init("points", 0);
    for (const scenario &tried : scenarios) {
        for (const fault_kind &kind : on_disk ? std::span<const fault_kind>{disk_faults} : memory_faults) {
            if (tried.uses_files || !on_disk)
                try_all_points(tried, kind);
        }
    }
    for (const auto &[fault, count] : sum.below)
        std::printf("%5ld %s\n", count, fault.c_str());
    std::printf("%ld points: %ld right all the same, %ld failed as documented, %ld wrong; at least %ld wanted\n",
                sum.points, sum.right, sum.documented, sum.wrong, wanted_points);
    return sum.wrong == 0 && sum.points >= wanted_points ? 0 : 1;
}
