// A program, run by a shell: its exit status and all that it prints.
#pragma once

#include <string>

struct outcome {
    int status; // or minus the signal that ended it
    std::string output, errors;
};

/// Runs a shell command, after prepare in its process.
outcome run(
    const std::string &command, void (*prepare)() = [] {});

/// The same on a terminal, where both outputs meet.
std::string run_on_terminal(const std::string &command);
