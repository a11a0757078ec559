// Tries each scenario once per point of failure, each in a process of its own, and tells what came out.
#pragma once

#include "scenarios.hpp"

/// A kind of fault: how the n-th point is armed, and what is known of it afterwards.
struct fault_kind {
    const char *name;
    void (*arm)(long n); // 0: none
    bool (*happened)();
    long (*points)();        // counted since armed
    const char *(*where)();  // name of the point, or null
    bool is_lasting = false; // nothing is done and trying again is no help
};

struct tally {
    long points = 0, right = 0, documented = 0, wrong = 0;
    long crashed_below = 0, leaked_below = 0; // inside a library that ours calls

    tally &operator+=(const tally &other);
};

/// Prints a line for each point that is wrong, and one for the scenario.
tally try_all_points(const scenario &tried, const fault_kind &kind);

/// Prints the sum; gives the program's exit status: at least that many points, none wrong.
int conclude(const char *what, const tally &sum, long wanted_points);
