// What vdctl prints: text and JSON in which nothing from outside can steer a terminal.
#pragma once

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct json_object;

namespace vdctl {

enum class escape_as { text, json };

/// The text without what steers a terminal: control characters, invisible and turning ones, bytes that are no UTF-8.
std::string escaped(std::string_view from_outside, escape_as form);

/// Text that may be shown: made of literals, numbers, and texts from outside that went through escaped().
class text {
public:
    text() = default;
    template <std::size_t Size> text(const char (&literal)[Size]) : shown_{literal} {}
    template <std::size_t Size> text(char (&buffer)[Size]) = delete; // a buffer may hold anything
    template <std::integral Number> explicit text(Number number) : shown_{std::to_string(number)} {}
    static text of(std::string_view from_outside) { return text{escaped(from_outside, escape_as::text), {}}; }

    const std::string &str() const { return shown_; }
    bool empty() const { return shown_.empty(); }
    std::size_t width() const; // in characters
    text &operator+=(const text &more)
    {
        shown_ += more.shown_;
        return *this;
    }
    friend text operator+(text left, const text &right) { return std::move(left += right); }

private:
    struct escaped_already {};
    text(std::string shown, escaped_already) : shown_{std::move(shown)} {}

    std::string shown_;
};

text quoted(std::string_view from_outside);

/// Why there is no answer: ends vdctl with status 2, and this as its error.
struct failure {
    text reason;
};

/// The same with what errno says behind the reason.
[[noreturn]] void fail_with_errno(text reason);

struct output_style {
    bool json = false, quiet = false;
    bool terminal = false, colour = false; // of standard output
};
const output_style &style();
void set_style(bool json, bool quiet);

enum class colour { none, red, green, yellow };

void print(const text &line);                                 // nothing with -q
void print(colour shade, const text &word, const text &rest); // a line whose first word may have a colour
void print_json(json_object *object);                         // takes it; one line
void print_raw(std::string_view made_here);                   // what was escaped by another rule
void flush_output();                                          // a failed write ends vdctl

void warn(const text &reason);  // nothing with -q
void error(const text &reason); // always

json_object *new_string(std::string_view value);

/// JSON text as json-c gives it, without what steers a terminal.
std::string json_text(json_object *object);

/// Columns: padded, below a header, on a terminal; otherwise a tab between them and "-" for what is empty.
class table {
public:
    explicit table(std::vector<text> header) : header_{std::move(header)} {}
    void add(std::vector<text> row);
    void print();

private:
    std::vector<text> header_;
    std::vector<std::vector<text>> rows_;
};

/// A row as it stands in a pipe, and one cell of it.
std::string tabbed(const std::vector<text> &row);
std::string tabbed_cell(const text &cell);

/// How many letters must be changed, added or left out; those that change places count as two.
std::size_t letters_between(std::string_view a, std::string_view b);

/// Whether one was probably meant for the other: another case, or up to two letters.
bool is_near(std::string_view a, std::string_view b);

} // namespace vdctl
