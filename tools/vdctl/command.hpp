// What a command of vdctl is, and what it is given.
#pragma once

#include "output.hpp"

#include <map>
#include <span>
#include <string_view>
#include <vector>

namespace vdctl {

/// Exit status.
enum status {
    status_yes = 0,
    status_no = 1,
    status_unusable = 2, // wrong usage, or no answer is to be had; nothing was printed to standard output
    status_closed = 3,
    status_late = 4,
    status_disagreement = 70
};

/// A command's words and options, checked against its row.
struct invocation {
    std::vector<const char *> words;      // behind the command's name
    std::map<char, const char *> options; // by letter; "" where the option has no value

    bool has(char letter) const { return options.contains(letter); }
    const char *value(char letter) const // null without the option
    {
        const auto found = options.find(letter);
        return found == options.end() ? nullptr : found->second;
    }
};

struct command {
    const char *name;    // one word, or two
    const char *words;   // as the usage shows them
    unsigned fewest;     // words
    unsigned most;       // words
    const char *options; // letters, besides those that every command has
    const char *purpose;
    int (*run)(const invocation &given); // gives the exit status, or throws a failure
};

/// Wrong usage: ends vdctl with status 2, what is wrong and a usage.
struct misuse {
    text reason;
};

struct option {
    char letter;
    const char *name;
    const char *value; // as the usage shows it, null if the option has none
    const char *purpose;
};

inline constexpr std::string_view common_options = "jqhV"; // which every command has
extern const std::span<const command> commands;
extern const std::span<const option> options;

} // namespace vdctl
