// The text of package and change files: which names are valid, how a command line is taken apart, how it is written.
#pragma once

#include "failure.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace libuci {

bool is_name(std::string_view text) noexcept;          // of a section or option
bool is_declared_name(std::string_view text) noexcept; // of a package in a "package" line
bool is_printable(std::string_view text) noexcept;     // a section type, or the name of a package
bool is_plain_type(std::string_view text) noexcept;    // a section type that needs no escape
bool is_value(std::string_view text) noexcept;         // in a path or a change line; in a package file anything goes

/// A whole decimal number, as strtol reads it; nothing at all is 0.
std::optional<long> to_number(std::string_view text);

std::string quoted(std::string_view text);
std::string escaped(std::string_view text); // reads as one argument without quotes

/// A section's or option's name for a change line. One that is no name stays none, but with nothing in it that could
/// make the line mean something else or go on into the next.
std::string masked(std::string_view name);

/// Takes a file apart into command lines and those into arguments. Fails with parse_failure.
///
/// A command line is a physical line and those that a quote or a backslash at the end join to it.
class command_reader {
public:
    explicit command_reader(std::string_view content) noexcept : content_{content} {}

    bool next_line() noexcept; // false at the end of the file
    void skip_space() noexcept;
    bool take(char c) noexcept; // takes c if it comes next
    bool at_end() const noexcept { return at_ == end_; }
    std::size_t line_begin() const noexcept { return begin_; }
    /// Whether the last word ended its line, perhaps before a comment.
    bool ended_line() const noexcept { return ended_by_ == '\n' || ended_by_ == '#' || ended_by_ == '\0'; }

    std::string_view keyword() noexcept; // empty when there is none
    bool end_of_command();               // checks that there are no more arguments; true when a new command follows
    std::string argument();              // empty when there is none
    std::string word();                  // the argument that begins right here; it may hold NUL characters

    [[noreturn]] void fail_at_keyword(const char *reason) const { fail(reason, keyword_at_); }
    [[noreturn]] void fail_at_argument(const char *reason) const { fail(reason, stop_); }

private:
    void single_quoted(std::string &text);
    void double_quoted(std::string &text);
    void escape(std::string &text);
    bool join_line() noexcept;
    [[noreturn]] void fail(const char *reason, std::size_t at) const;

    std::string_view content_;
    std::size_t at_ = 0;
    std::size_t begin_ = 0;      // of the command line
    std::size_t end_ = 0;        // of the last physical line that was joined to it, its newline included
    std::size_t vanished_ = 0;   // characters since begin_ that joining lines took out
    std::size_t keyword_at_ = 0; // where the last keyword was looked for
    std::size_t stop_ = 0;       // where the last argument ended
    bool separated_ = false;     // the last argument was a semicolon
    char ended_by_ = '\0';       // what the last word ended at; NUL: the end of the file
};

} // namespace libuci
