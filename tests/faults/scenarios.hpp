// What the fault programs do with the library: one exported function each, on real files of an empty device.
#pragma once

#include <span>
#include <string>

/// What a call gave: its result, its outputs and, where it writes files, what is in them.
struct outcome {
    char text[512];

    std::string_view view() const { return text; }
};

outcome say(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// What stands in an outcome where the call failed, or was answered by a call that failed:
enum class after_fault {
    listed,    // one of the failures that the scenario lists
    none_more, // each digit at most what it is without a fault: no access answer allows more than the file says
};

struct scenario {
    const char *name;  // of the function
    void (*prepare)(); // before every call, without a fault
    outcome (*call)(); // with a fault
    void (*release)(); // what stays allocated between calls
    after_fault check;
    const char *failures[4]; // whole outcomes
    bool uses_files = false; // belongs to what is tried on a failing disk
    int untold = 0;          // writes, syncs and renames whose failure may go without a word
};

std::span<const scenario> scenarios();

/// Whether the outcome is right, or what is documented for a failure.
bool is_documented(const scenario &tried, const outcome &right, const outcome &got);
