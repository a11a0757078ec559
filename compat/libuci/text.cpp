#include "text.hpp"

#include <algorithm>
#include <cstdlib>

namespace libuci {

namespace {

constexpr std::string_view special_characters = "'\"\\#;"; // outside of quotes

// Not the functions of ctype.h: names are ASCII whatever the locale.
bool is_space(char c) noexcept
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_name_character(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool is_value_character(char c) noexcept
{
    return static_cast<unsigned char>(c) >= ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

bool is_name(std::string_view text) noexcept
{
    return !text.empty() && std::all_of(text.begin(), text.end(), is_name_character);
}

bool is_declared_name(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(), [](char c) { return is_name_character(c) || c == '-'; });
}

bool is_printable(std::string_view text) noexcept
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

bool is_plain_type(std::string_view text) noexcept
{
    return is_printable(text) && text.find_first_of(special_characters) == std::string_view::npos;
}

bool is_value(std::string_view text) noexcept
{
    return std::all_of(text.begin(), text.end(), is_value_character);
}

std::optional<long> to_number(std::string_view text)
{
    const std::string digits{text};
    char *end;
    const long number = std::strtol(digits.c_str(), &end, 10);
    if (*end != '\0')
        return std::nullopt;
    return number;
}

std::string quoted(std::string_view text)
{
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result += '\'';
}

std::string escaped(std::string_view text)
{
    std::string result;
    for (const char c : text) {
        if (special_characters.find(c) != std::string_view::npos)
            result += '\\';
        result += c;
    }
    return result;
}

std::string masked(std::string_view name)
{
    std::string result{name};
    for (char &c : result) {
        if (static_cast<unsigned char>(c) <= ' ' || std::string_view{".='\"\\#;"}.find(c) != std::string_view::npos)
            c = '?';
    }
    return result;
}

bool command_reader::next_line() noexcept
{
    if (end_ == content_.size())
        return false;
    at_ = begin_ = end_;
    vanished_ = 0;
    return join_line();
}

bool command_reader::join_line() noexcept
{
    if (end_ == content_.size())
        return false;
    const std::size_t newline = content_.find('\n', end_);
    end_ = newline == std::string_view::npos ? content_.size() : newline + 1;
    return true;
}

void command_reader::fail(const char *reason, std::size_t at) const
{
    const auto lines = std::count(content_.begin(), content_.begin() + static_cast<std::ptrdiff_t>(end_), '\n');
    throw parse_failure{reason, static_cast<std::size_t>(lines), at - begin_ - vanished_};
}

void command_reader::skip_space() noexcept
{
    while (!at_end() && is_space(content_[at_]))
        ++at_;
    keyword_at_ = at_;
}

bool command_reader::take(char c) noexcept
{
    const bool there = !at_end() && content_[at_] == c;
    at_ += there;
    return there;
}

std::string_view command_reader::keyword() noexcept
{
    while (take(' ') || take('\t'))
        ;
    if (at_end() || content_[at_] == '#')
        return {};
    const std::size_t begin = at_;
    at_ = std::min(content_.find_first_of(" \t", at_), end_);
    return content_.substr(begin, at_ - begin);
}

bool command_reader::end_of_command()
{
    do {
        if (!argument().empty())
            fail_at_argument("too many arguments");
    } while (!separated_ && !at_end() && content_[at_] != '#');
    keyword_at_ = at_;
    return separated_;
}

std::string command_reader::argument()
{
    while (!at_end() && is_space(content_[at_]))
        ++at_;
    stop_ = at_;
    separated_ = take(';');
    if (separated_)
        return {};
    std::string text = word();
    if (text.find('\0') != std::string::npos) // the calls that give out values couldn't give this one
        fail_at_argument("NUL character");
    return text;
}

std::string command_reader::word()
{
    std::string text;
    bool is_plain = true;
    while (!at_end() && content_[at_] != '#') {
        const char c = content_[at_];
        ended_by_ = c;
        if (is_space(c)) {
            stop_ = ++at_;
            return text;
        }
        if (c == ';') {
            stop_ = at_;
            if (is_plain)
                at_ = end_;
            return text;
        }
        if (c == '\'')
            single_quoted(text);
        else if (c == '"')
            double_quoted(text);
        else if (c == '\\')
            escape(text);
        else
            text += content_[at_++];
        is_plain = is_plain && c != '\'' && c != '"' && c != '\\';
    }
    stop_ = at_;
    ended_by_ = at_end() ? '\0' : '#';
    return text;
}

void command_reader::single_quoted(std::string &text)
{
    for (++at_; !take('\'');) {
        if (!at_end())
            text += content_[at_++];
        else if (!join_line())
            fail("EOF with unterminated '", at_);
    }
}

void command_reader::double_quoted(std::string &text)
{
    for (++at_; !take('"');) {
        if (at_end()) {
            if (!join_line())
                fail("EOF with unterminated \"", at_);
        } else if (content_[at_] == '\\') {
            escape(text);
        } else {
            text += content_[at_++];
        }
    }
}

void command_reader::escape(std::string &text)
{
    ++at_;
    const std::string_view rest = content_.substr(at_, end_ - at_);
    if (rest == "\n" || rest == "\r\n") { // the lines become one
        vanished_ += rest.size();
        at_ = end_;
        join_line();
    } else if (!at_end()) {
        text += content_[at_++];
    }
}

} // namespace libuci
