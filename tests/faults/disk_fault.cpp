// Fails every call on files once, with each error, on the way of a load, a save and a commit.
#include "device.hpp"
#include "inject.hpp"
#include "logging.h"
#include "points.hpp"

#include <cerrno>

namespace {

template <int Error> fault_kind failing(const char *name)
{
    return {name,
            [](long n) { inject::fail_file_call(n, Error); },
            inject::file_call_failed,
            inject::file_calls,
            inject::failed_call,
            Error == EIO || Error == ENOSPC};
}

} // namespace

int main()
{
    enter_device();
    logging_init("disk_fault", 0);
    const fault_kind kinds[] = {failing<EIO>("EIO"), failing<ENOSPC>("ENOSPC"), failing<EMFILE>("EMFILE"),
                                failing<EINTR>("EINTR"), failing<inject::short_count>("short")};
    tally sum;
    for (const scenario &tried : scenarios()) {
        if (!tried.uses_files)
            continue;
        for (const fault_kind &kind : kinds)
            sum += try_all_points(tried, kind);
    }
    return conclude("disk", sum, 300);
}
