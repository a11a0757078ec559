// What json-c makes of a text, counted without building it. A daemon can tell so what a text would cost before it is
// parsed, and whether what was parsed is whole: json-c before 0.17 drops a key or a part of a text when it has no
// memory for it, and says nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <json-c/json.h>

namespace vandrel {

/// The values of each kind, and the keys of all objects.
struct json_counts {
    std::size_t objects = 0;
    std::size_t arrays = 0;
    std::size_t texts = 0;
    std::size_t scalars = 0; // numbers and booleans
    std::size_t nulls = 0;   // which json-c needs no memory for
    std::size_t keys = 0;
    std::size_t text_bytes = 0; // of keys and texts, decoded

    void add(json_object *tree);
    void add(const char *key, json_object *tree);
    bool operator==(const json_counts &) const = default;
};

json_counts counts_of(json_object *tree);

/// Counts a text, chunk by chunk, as json-c 0.16 reads it by default: with comments, single quotes, NaN and Infinity,
/// and nothing behind the first whole value. It stops where json-c stops, a little later in a malformed number.
///
/// The counts are those of the parsed tree, unless an object has equal keys (json-c keeps the last value) or a number
/// is so long that json-c could lose a part of it: they are then larger.
class json_census {
public:
    void read(std::string_view chunk);
    const json_counts &counts() const { return counts_; }

    /// The slots of all hash tables that json-c makes for the objects, those that a larger one follows included.
    std::size_t table_slots() const { return table_slots_; }

private:
    static constexpr unsigned max_depth = 32; // of json-c, unless it is told otherwise
    enum class state : uint8_t;

    void skip_plain_text(std::string_view &chunk);
    void take(char c);
    void take_between_tokens(char c);
    void take_after_value(char c);
    void take_in_text(char c);
    void take_escaped(char c);
    void take_hex_digit(char c);
    void take_in_number(char c);
    void take_in_word(char c);
    void take_in_comment(char c);
    void count_key();
    void begin_value(char c);
    void begin_text(char quote, bool is_key);
    void begin_word(const char *rest, std::size_t &count);
    void open(bool is_object);
    void close();
    void end_text();
    void end_code_point();
    void drop_surrogate();
    void add_bytes(std::size_t count);
    bool is_in_object() const { return (is_object_ >> (depth_ - 1) & 1) != 0; }

    struct table {
        std::size_t keys, slots;
    };

    json_counts counts_;
    std::size_t table_slots_ = 0;
    table tables_[max_depth]; // of the open objects
    state state_{};
    state behind_comment_{};
    unsigned depth_ = 0;
    uint32_t is_object_ = 0; // one bit for each open value, an array or an object
    char quote_ = 0;
    bool is_key_ = false;
    bool is_cut_ = false; // a key ends at a NUL that stands in it
    unsigned hex_digits_ = 0;
    uint32_t code_point_ = 0;
    uint32_t high_surrogate_ = 0;
    const char *word_ = nullptr; // what is left of it
    std::size_t number_length_ = 0;
    bool is_negative_ = false, has_fraction_ = false, has_exponent_ = false, may_have_sign_ = false;
};

} // namespace vandrel
