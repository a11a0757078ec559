// A program, run by a shell: its exit status and all that it prints.
#pragma once

#include <initializer_list>
#include <string>

struct outcome {
    int status; // or minus the signal that ended it
    std::string output, errors;
};

outcome run(const std::string &command);

struct command_row {
    std::string words;
    int status;
    std::string output = "", errors = "";
};

/// Runs each of the rows, with begin before its words, and compares what it gives.
void expect_outcomes(const std::string &begin, std::initializer_list<command_row> rows);

/// What a shell command prints on a terminal, where both outputs meet.
std::string run_on_terminal(const std::string &command);
