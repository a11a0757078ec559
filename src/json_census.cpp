#include "json_census.hpp"

#include "digit.hpp"

#include <algorithm>
#include <cstring>

namespace vandrel {

namespace {

constexpr std::size_t first_table_slots = 16;  // of an object
constexpr std::size_t fullest_table = 66;      // per cent; a further key then doubles it
constexpr std::size_t safe_number_length = 31; // which fits into json-c's buffer as it is at first

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

int hex_value(char c)
{
    if (is_digit(c))
        return c - '0';
    const char letter = lower(c);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

bool is_high_surrogate(uint32_t code_point)
{
    return (code_point & 0xFC00) == 0xD800;
}

bool is_low_surrogate(uint32_t code_point)
{
    return (code_point & 0xFC00) == 0xDC00;
}

std::size_t utf8_length(uint32_t code_point)
{
    return code_point < 0x80 ? 1 : code_point < 0x800 ? 2 : code_point < 0x10000 ? 3 : 4;
}

constexpr std::size_t replacement_length = 3; // of what stands for half a surrogate pair

} // namespace

void json_counts::add(json_object *tree)
{
    switch (json_object_get_type(tree)) {
    case json_type_object: {
        ++objects;
        json_object_object_foreach(tree, name, value) add(name, value);
        break;
    }
    case json_type_array:
        ++arrays;
        for (std::size_t i = 0; i < json_object_array_length(tree); ++i)
            add(json_object_array_get_idx(tree, i));
        break;
    case json_type_string:
        ++texts;
        text_bytes += static_cast<std::size_t>(json_object_get_string_len(tree));
        break;
    case json_type_null:
        ++nulls;
        break;
    default:
        ++scalars;
    }
}

void json_counts::add(const char *key, json_object *tree)
{
    ++keys;
    text_bytes += std::strlen(key);
    add(tree);
}

json_counts counts_of(json_object *tree)
{
    json_counts counts;
    counts.add(tree);
    return counts;
}

enum class json_census::state : uint8_t {
    before_value, // between two tokens, where blanks and comments may stand
    before_element,
    before_key,
    before_colon,
    after_value,
    in_text,
    escaped,
    in_code_point,
    in_pair,         // a high surrogate wants a backslash
    in_pair_escaped, // and then a u
    in_number,
    null_or_nan,
    in_word,
    comment_begun,
    in_comment,
    in_comment_after_star,
    in_line_comment,
    stopped
};

void json_census::read(std::string_view chunk)
{
    while (!chunk.empty() && state_ != state::stopped) {
        if (state_ == state::in_text)
            skip_plain_text(chunk);
        if (!chunk.empty()) {
            take(chunk.front());
            chunk.remove_prefix(1);
        }
    }
}

/// Takes what needs no look at each character; take_in_text would do the same.
void json_census::skip_plain_text(std::string_view &chunk)
{
    const auto end =
        std::ranges::find_if(chunk, [quote = quote_](char c) { return c == quote || c == '\\' || c == 0; });
    const auto length = static_cast<std::size_t>(end - chunk.begin());
    add_bytes(length);
    chunk.remove_prefix(length);
}

void json_census::take(char c)
{
    switch (state_) {
    case state::before_value:
    case state::before_element:
    case state::before_key:
    case state::before_colon:
    case state::after_value:
        return take_between_tokens(c);
    case state::in_text:
        return take_in_text(c);
    case state::escaped:
    case state::in_pair:
    case state::in_pair_escaped:
        return take_escaped(c);
    case state::in_code_point:
        return take_hex_digit(c);
    case state::in_number:
        return take_in_number(c);
    case state::null_or_nan:
    case state::in_word:
        return take_in_word(c);
    case state::comment_begun:
    case state::in_comment:
    case state::in_comment_after_star:
    case state::in_line_comment:
        return take_in_comment(c);
    case state::stopped:
        return;
    }
}

void json_census::take_between_tokens(char c)
{
    if (is_blank(c))
        return;
    if (c == '/') {
        behind_comment_ = state_;
        state_ = state::comment_begun;
        return;
    }
    switch (state_) {
    case state::before_element:
        return c == ']' ? close() : begin_value(c);
    case state::before_value:
        return begin_value(c);
    case state::before_key:
        if (c == '}')
            return close();
        return c == '"' || c == '\'' ? begin_text(c, true) : void(state_ = state::stopped);
    case state::before_colon:
        state_ = c == ':' ? state::before_value : state::stopped;
        return;
    default:
        return take_after_value(c);
    }
}

void json_census::take_after_value(char c)
{
    if (depth_ > 0 && c == ',')
        state_ = is_in_object() ? state::before_key : state::before_element; // which may turn out to be the end
    else if (depth_ > 0 && c == (is_in_object() ? '}' : ']'))
        close();
    else
        state_ = state::stopped;
}

void json_census::begin_value(char c)
{
    if (depth_ == max_depth) {
        state_ = state::stopped;
        return;
    }
    switch (lower(c)) {
    case '{':
        ++counts_.objects;
        return open(true);
    case '[':
        ++counts_.arrays;
        return open(false);
    case '"':
    case '\'':
        return begin_text(c, false);
    case 't':
        return begin_word("rue", counts_.scalars);
    case 'f':
        return begin_word("alse", counts_.scalars);
    case 'i':
        return begin_word("nfinity", counts_.scalars);
    case 'n':
        state_ = state::null_or_nan;
        return;
    default:
        break;
    }
    if (!is_digit(c) && c != '-') {
        state_ = state::stopped;
        return;
    }
    ++counts_.scalars;
    state_ = state::in_number;
    number_length_ = 1;
    is_negative_ = c == '-';
    has_fraction_ = has_exponent_ = may_have_sign_ = false;
}

void json_census::open(bool is_object)
{
    is_object_ = (is_object_ & ~(1U << depth_)) | (is_object ? 1U : 0U) << depth_;
    tables_[depth_] = {0, first_table_slots};
    table_slots_ += is_object ? first_table_slots : 0;
    ++depth_;
    state_ = is_object ? state::before_key : state::before_element;
}

void json_census::close()
{
    --depth_;
    state_ = state::after_value;
}

void json_census::begin_text(char quote, bool is_key)
{
    quote_ = quote;
    is_key_ = is_key;
    is_cut_ = false;
    state_ = state::in_text;
}

void json_census::take_in_text(char c)
{
    if (c == quote_)
        end_text();
    else if (c == '\\')
        state_ = state::escaped;
    else if (c == '\0')
        state_ = state::stopped;
    else
        add_bytes(1);
}

void json_census::end_text()
{
    is_key_ ? count_key() : void(++counts_.texts);
    state_ = is_key_ ? state::before_colon : state::after_value;
}

void json_census::count_key()
{
    ++counts_.keys;
    table &own = tables_[depth_ - 1];
    if (own.keys++ * 100 < own.slots * fullest_table)
        return;
    own.slots *= 2;
    table_slots_ += own.slots;
}

void json_census::add_bytes(std::size_t count)
{
    counts_.text_bytes += is_cut_ ? 0 : count;
}

void json_census::take_escaped(char c)
{
    if (state_ == state::in_pair && c == '\\') {
        state_ = state::in_pair_escaped;
    } else if (c == 'u' && state_ != state::in_pair) {
        state_ = state::in_code_point;
        hex_digits_ = 0;
        code_point_ = 0;
    } else if (high_surrogate_ != 0) {
        drop_surrogate();
        state_ = state_ == state::in_pair ? state::in_text : state::escaped;
        take(c);
    } else if (c != '\0' && std::strchr("\"\\/bnrtf", c)) {
        add_bytes(1);
        state_ = state::in_text;
    } else {
        state_ = state::stopped;
    }
}

void json_census::drop_surrogate()
{
    high_surrogate_ = 0;
    add_bytes(replacement_length);
}

void json_census::take_hex_digit(char c)
{
    const int value = hex_value(c);
    if (value < 0) {
        state_ = state::stopped;
        return;
    }
    code_point_ = code_point_ << 4 | static_cast<uint32_t>(value);
    if (++hex_digits_ == 4)
        end_code_point();
}

void json_census::end_code_point()
{
    if (high_surrogate_ != 0 && is_low_surrogate(code_point_)) {
        code_point_ = 0x10000; // or above, all of the same length
        high_surrogate_ = 0;
    } else if (high_surrogate_ != 0) {
        drop_surrogate();
    }
    if (is_high_surrogate(code_point_)) {
        high_surrogate_ = code_point_;
        state_ = state::in_pair;
        return;
    }
    is_cut_ |= is_key_ && code_point_ == 0;
    add_bytes(is_low_surrogate(code_point_) ? replacement_length : utf8_length(code_point_));
    state_ = state::in_text;
}

void json_census::take_in_number(char c)
{
    const bool is_exponent = (c == 'e' || c == 'E') && !has_exponent_;
    const bool is_point = c == '.' && !has_fraction_;
    if (is_digit(c) || is_exponent || is_point || ((c == '-' || c == '+') && may_have_sign_)) {
        has_exponent_ |= is_exponent;
        has_fraction_ |= is_exponent || is_point;
        may_have_sign_ = is_exponent || is_point;
        counts_.text_bytes += ++number_length_ > safe_number_length ? 1 : 0;
    } else if (is_negative_ && number_length_ == 1 && lower(c) == 'i') {
        word_ = "nfinity";
        state_ = state::in_word;
    } else {
        state_ = state::after_value;
        take(c);
    }
}

void json_census::begin_word(const char *rest, std::size_t &count)
{
    ++count;
    word_ = rest;
    state_ = state::in_word;
}

void json_census::take_in_word(char c)
{
    const char letter = lower(c);
    if (state_ == state::null_or_nan && letter == 'u')
        begin_word("ll", counts_.nulls);
    else if (state_ == state::null_or_nan && letter == 'a')
        begin_word("n", counts_.scalars);
    else if (state_ == state::null_or_nan || letter != *word_++)
        state_ = state::stopped;
    else if (*word_ == '\0')
        state_ = state::after_value;
}

void json_census::take_in_comment(char c)
{
    if (c == '\0')
        state_ = state::stopped;
    else if (state_ == state::comment_begun)
        state_ = c == '*' ? state::in_comment : c == '/' ? state::in_line_comment : state::stopped;
    else if (state_ == state::in_line_comment)
        state_ = c == '\n' ? behind_comment_ : state_;
    else if (state_ == state::in_comment)
        state_ = c == '*' ? state::in_comment_after_star : state_;
    else
        state_ = c == '/' ? behind_comment_ : state::in_comment; // json-c looks no further at a second star
}

} // namespace vandrel
