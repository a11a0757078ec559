#include "output.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include <json-c/json.h>
#include <strings.h>
#include <unistd.h>

namespace vdctl {

namespace {

output_style current;

constexpr char32_t no_character = 0xFFFFFFFF;

struct decoded {
    char32_t character; // no_character where a byte is no UTF-8
    std::size_t bytes;
};

/// The first character of the bytes, of which there is at least one. The shortest form alone counts, RFC 3629.
decoded decode(std::string_view bytes)
{
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char first = at(0);
    const std::size_t length = first < 0x80   ? 1
                               : first < 0xC2 ? 0
                               : first < 0xE0 ? 2
                               : first < 0xF0 ? 3
                               : first < 0xF5 ? 4
                                              : 0;
    if (length == 0 || length > bytes.size())
        return {no_character, 1};
    char32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0) != 0x80)
            return {no_character, 1};
        character = character << 6 | (at(i) & 0x3F);
    }
    constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool is_surrogate = character >= 0xD800 && character <= 0xDFFF;
    if (character < least[length] || is_surrogate || character > 0x10FFFF)
        return {no_character, 1};
    return {character, length};
}

/// Whether the character steers a terminal, can't be seen, or turns the direction of others.
bool is_hidden(char32_t character)
{
    constexpr struct {
        char32_t first, last;
    } ranges[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},
                  {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x2069}, {0xFEFF, 0xFEFF}};
    return std::ranges::any_of(ranges, [=](auto range) { return range.first <= character && character <= range.last; });
}

std::string hexadecimal(const char *format, unsigned value)
{
    char digits[16];
    std::snprintf(digits, sizeof digits, format, value);
    return digits;
}

/// Ends vdctl after a failed write to standard output: silently where nobody reads any more.
[[noreturn]] void end_output()
{
    const int err = errno;
    if (err == EPIPE) {
        std::signal(SIGPIPE, SIG_DFL);
        std::raise(SIGPIPE);
    }
    std::fprintf(stderr, "vdctl: cannot write: %s\n", std::strerror(err));
    _exit(2);
}

std::string padded(const std::vector<text> &row, const std::vector<std::size_t> &widths)
{
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        line += row[i].str();
        if (i + 1 < row.size())
            line.append(widths[i] - row[i].width() + 2, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + '\n';
}

} // namespace

std::string escaped(std::string_view from_outside, escape_as form)
{
    std::string result;
    result.reserve(from_outside.size());
    while (!from_outside.empty()) {
        const auto [character, bytes] = decode(from_outside);
        const auto byte = static_cast<unsigned char>(from_outside[0]);
        if (character == no_character)
            result += form == escape_as::json ? "\\ufffd" : hexadecimal("\\x%02x", byte);
        else if (form == escape_as::text && character == '\\')
            result += "\\\\";
        else if (!is_hidden(character))
            result += from_outside.substr(0, bytes);
        else
            result += hexadecimal(form == escape_as::text && character <= 0xFF ? "\\x%02x" : "\\u%04x",
                                  static_cast<unsigned>(character));
        from_outside.remove_prefix(bytes);
    }
    return result;
}

std::size_t text::width() const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(shown_, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

text quoted(std::string_view from_outside)
{
    return "\"" + text::of(from_outside) + "\"";
}

void fail_with_errno(text reason)
{
    const char *why = std::strerror(errno);
    throw failure{std::move(reason) + ": " + text::of(why)};
}

const output_style &style()
{
    return current;
}

void set_style(bool json, bool quiet)
{
    const char *no_colour = std::getenv("NO_COLOR"), *terminal = std::getenv("TERM");
    current.json = json;
    current.quiet = quiet;
    current.terminal = isatty(STDOUT_FILENO) != 0;
    current.colour =
        current.terminal && !(no_colour && *no_colour) && !(terminal && std::strcmp(terminal, "dumb") == 0);
}

void print_raw(std::string_view made_here)
{
    if (!current.quiet && std::fwrite(made_here.data(), 1, made_here.size(), stdout) != made_here.size())
        end_output();
}

void print(const text &line)
{
    print_raw(line.str() + '\n');
}

void print(colour shade, const text &word, const text &rest)
{
    constexpr const char *codes[] = {"", "\033[31m", "\033[32m", "\033[33m"};
    const bool is_coloured = current.colour && shade != colour::none;
    print_raw((is_coloured ? codes[static_cast<int>(shade)] + word.str() + "\033[0m" : word.str()) + rest.str() + '\n');
}

json_object *new_string(std::string_view value)
{
    return json_object_new_string_len(value.data(), static_cast<int>(value.size()));
}

std::string json_text(json_object *object)
{
    const char *json = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (!json)
        throw std::bad_alloc{};
    std::string spaced;
    bool is_in_string = false;
    for (const char *at = json; *at; ++at) {
        spaced += *at;
        if (is_in_string && *at == '\\')
            spaced += *++at;
        else if (*at == '"')
            is_in_string = !is_in_string;
        else if (!is_in_string && (*at == ':' || *at == ','))
            spaced += ' ';
    }
    return escaped(spaced, escape_as::json);
}

void print_json(json_object *object)
{
    print_raw(json_text(object) + '\n');
    json_object_put(object);
}

void flush_output()
{
    if (std::fflush(stdout) != 0)
        end_output();
}

void warn(const text &reason)
{
    if (!current.quiet)
        error(reason);
}

void error(const text &reason)
{
    std::fflush(stdout);
    std::fprintf(stderr, "vdctl: %s\n", reason.str().c_str());
}

std::string tabbed_cell(const text &cell)
{
    return (cell.empty() ? "-" : cell.str()) + '\t';
}

std::string tabbed(const std::vector<text> &row)
{
    std::string line;
    for (const text &cell : row)
        line += tabbed_cell(cell);
    line.back() = '\n';
    return line;
}

void table::add(std::vector<text> row)
{
    if (current.terminal)
        rows_.push_back(std::move(row));
    else
        print_raw(tabbed(row));
}

void table::print()
{
    if (rows_.empty())
        return;
    std::vector<std::size_t> widths(rows_.front().size());
    if (!header_.empty())
        rows_.insert(rows_.begin(), header_);
    for (const auto &row : rows_) {
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].width());
    }
    for (const auto &row : rows_)
        print_raw(padded(row, widths));
    rows_.clear();
}

std::size_t letters_between(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1); // of the table of distances between the beginnings of both
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

bool is_near(std::string_view a, std::string_view b)
{
    constexpr std::size_t longest = 64, most = 2; // what nobody mistypes needs no table
    const std::size_t longer = std::max(a.size(), b.size()), shorter = std::min(a.size(), b.size());
    if (longer > longest || longer - shorter > most)
        return false;
    const bool same_letters = a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
    return same_letters || (longer > most && letters_between(a, b) <= most);
}

} // namespace vdctl
