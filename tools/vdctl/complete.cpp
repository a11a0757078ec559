#include "complete.hpp"

#include "command.hpp"
#include "reading.hpp"
#include "served.hpp"

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <string_view>

namespace vdctl {

namespace {

using candidates = std::set<std::string>;

/// Whether a shell takes the name as it stands.
bool is_plain(std::string_view name)
{
    return name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") ==
           std::string::npos;
}

bool is_option(std::string_view word)
{
    return word.size() > 1 && word.starts_with('-');
}

/// Whether the next word is the option's value.
bool wants_value(std::string_view word)
{
    return is_option(word) && std::ranges::any_of(options, [=](const option &o) {
               const bool is_long = word.starts_with("--");
               return o.value && (is_long ? word.substr(2) == o.name : word.back() == o.letter);
           });
}

/// The words that are neither options nor their values.
std::vector<std::string> plain_words(std::span<const char *const> words)
{
    std::vector<std::string> plain;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (wants_value(words[i]))
            ++i;
        else if (!is_option(words[i]))
            plain.emplace_back(words[i]);
    }
    return plain;
}

/// The first and, where it has one, the second word of a command's name.
std::vector<std::string> name_of(const command &row)
{
    const char *second = std::strchr(row.name, ' ');
    if (!second)
        return {row.name};
    return {std::string{row.name, second}, second + 1};
}

/// The next word of the commands that begin with the words.
candidates next_words(const std::vector<std::string> &words)
{
    candidates found;
    for (const command &row : commands) {
        const std::vector<std::string> name = name_of(row);
        if (words.size() < name.size() && std::equal(words.begin(), words.end(), name.begin()))
            found.insert(name[words.size()]);
    }
    return found;
}

const command *command_of(const std::vector<std::string> &words)
{
    const auto found = std::ranges::find_if(commands, [&](const command &row) {
        const std::vector<std::string> name = name_of(row);
        return name.size() <= words.size() && std::equal(name.begin(), name.end(), words.begin());
    });
    return found == commands.end() ? nullptr : &*found;
}

candidates option_names(const command *row)
{
    candidates found;
    for (const option &o : options) {
        if (common_options.find(o.letter) != std::string_view::npos || (row && std::strchr(row->options, o.letter)))
            found.insert(std::string{"--"} + o.name);
    }
    return found;
}

candidates members_of_live_file(bool with_ports)
{
    candidates found;
    for (const zone_entry &zone : read_zones(parse(read_zone_text(live_file)))) {
        for (const member_entry &member : zone.members) {
            const auto type = member.record ? member.record->type : ZONE_MEMBER_INVALID;
            if (type == ZONE_MEMBER_SERIALIZATION || (with_ports && type == ZONE_MEMBER_PORT))
                found.insert(member.key);
        }
    }
    return found;
}

candidates serving_daemons()
{
    candidates found;
    for (const served_name &served : served_names()) {
        if (served.by != serving::nobody)
            found.insert(served.name);
    }
    return found;
}

/// What may stand for a word of the usage, as "NAME" in "NAME [TYPE [DATA]]".
candidates values_of(std::string_view usage, std::size_t index)
{
    for (; index > 0 && !usage.empty(); --index)
        usage.remove_prefix(std::min(usage.find(' '), usage.size() - 1) + 1);
    const std::size_t begin = std::min(usage.find_first_not_of('['), usage.size());
    const std::string_view word = usage.substr(begin, usage.find_first_of(" ]", begin) - begin);
    if (word == "PEER" || word == "TARGET")
        return members_of_live_file(word == "TARGET");
    return word == "NAME" ? serving_daemons() : candidates{};
}

candidates all_that_fits(std::span<const char *const> before, std::string_view current)
{
    if (!before.empty() && wants_value(before.back()))
        return {};
    const std::vector<std::string> words = plain_words(before);
    const command *row = command_of(words);
    if (current.starts_with('-'))
        return option_names(row);
    return row ? values_of(row->words, words.size() - name_of(*row).size()) : next_words(words);
}

} // namespace

int complete(std::span<const char *const> words)
{
    const std::string_view current = words.empty() ? "" : words.back();
    try {
        for (const std::string &word : all_that_fits(words.first(words.empty() ? 0 : words.size() - 1), current)) {
            if (word.starts_with(current) && is_plain(word))
                print(text::of(word));
        }
    } catch (const failure &) { // an unreadable file has no names
    }
    return status_yes;
}

} // namespace vdctl
