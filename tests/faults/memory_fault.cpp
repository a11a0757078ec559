// Refuses every allocation of the library, and of what it calls, once.
#include "device.hpp"
#include "inject.hpp"
#include "logging.h"
#include "points.hpp"

int main()
{
    enter_device();
    logging_init("memory_fault", 0);
    const fault_kind refusal{"allocation",
                             inject::refuse_allocation,
                             inject::allocation_refused,
                             inject::allocations,
                             [] { return static_cast<const char *>(nullptr); },
                             false};
    tally sum;
    for (const scenario &tried : scenarios())
        sum += try_all_points(tried, refusal);
    return conclude("memory", sum, 1000);
}
