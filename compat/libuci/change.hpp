// Changes: what the functions of uci.h do to a package in memory, and the lines of the change files, which say the
// same.
#pragma once

#include "model.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace libuci {

/// What happens; the value is the character that begins the line, '=' standing for none.
enum class change_kind : char {
    set = '=',         // an option, or the type of a section
    add = '+',         // an anonymous section
    remove = '-',      // an option, a section, or with a value one item of a list
    add_item = '|',    // to a list
    remove_item = '~', // those equal to the value
    rename = '@',
    move = '^', // a section
};

/// One change; the texts are borrowed.
struct change {
    change_kind kind;
    std::string_view section;
    std::string_view option; // empty: the section is meant
    std::optional<std::string_view> value;
};

/// What became of a change.
struct outcome {
    bool changed = false;         // the package is another than before
    libuci::section *s = nullptr; // what was set
    libuci::option *o = nullptr;
};

/// Makes the change in memory: all of it or, when that fails or memory runs out, nothing.
outcome apply(package &to, const change &what);

/// Makes the change and takes it into the package's unsaved lines.
outcome make(package &to, const change &what);

/// Whether the change is about one item of a list.
bool names_item(package &in, const change &what) noexcept;

std::string change_line(std::string_view package_name, const change &what);

/// Applies the lines of a change file that fit, and gives their number.
std::size_t apply_lines(package &to, std::string_view content);

/// How much of a change file to keep before lines are appended, and what has to come between. A last line whose quote
/// is open, as a process leaves it that is killed while it writes, would swallow them.
struct line_end {
    std::size_t length = 0;
    const char *separator = "";
};
line_end end_of_lines(std::string_view content);

/// How far a change file goes up to the last line that is exactly this comment, itself included; 0 without any.
std::size_t end_of_comment(std::string_view content, std::string_view comment);

/// The lines of a change file without those about the section, or its option; without all if section is empty.
std::string lines_without(std::string_view package_name, std::string_view content, std::string_view section,
                          std::string_view option);

option &set_option(section &in, std::string_view name, std::string_view value);
option &add_item(section &in, std::string_view name, std::string_view value);

} // namespace libuci
