// What a fault is planted in: one exported function each, on real files of an empty device.
#pragma once

#include <span>
#include <string_view>

/// What a call gave: its result, its outputs and, where it writes files, what is in them.
struct outcome {
    char text[2048];

    std::string_view view() const { return text; }
};

outcome say(const char *format, ...) __attribute__((format(printf, 1, 2)));

struct scenario {
    const char *name; // of the function
    outcome (*call)();
    /// The outcomes of a failure, with | between them. Null: answers, a digit each, at most what they are without a
    /// fault, so that no access answer allows more than the file says.
    const char *failures;
    bool uses_files = false; // belongs to what is tried on a failing disk
    int untold = 0;          // writes, syncs and renames whose failure may go without a word
};

extern const std::span<const scenario> scenarios;
void prepare(); // files, packages and connections for one call of a scenario
void release(); // whatever is held between calls
