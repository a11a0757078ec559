// vdctl: asks, checks and explains the access zones, the message bus and the set-up of a device. Here are its grammar
// and its help; commands.cpp lists the commands.
#include "command.hpp"
#include "complete.hpp"
#include "output.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

namespace {

using namespace vdctl;

const command *current = nullptr; // whose usage helps, once it is known

text usage(const command *row)
{
    if (!row)
        return "usage: vdctl [-j] [-q] COMMAND [SUBCOMMAND] [OPTION...] [ARGUMENT...]; vdctl -h lists them";
    text line = "usage: vdctl [-j] [-q] " + text::of(row->name);
    for (const option &o : options) {
        if (std::strchr(row->options, o.letter)) {
            line += " [--" + text::of(o.name);
            line += o.value ? " " + text::of(o.value) + "]" : text{"]"};
        }
    }
    return line + (*row->words ? " " + text::of(row->words) : text{});
}

text meant(std::string_view word, const char *nearest)
{
    return quoted(word) + (nearest ? "; did you mean " + quoted(nearest) + "?" : text{});
}

/// The name that was probably meant, or null.
template <typename Rows, typename Name> const char *nearest(std::string_view word, const Rows &rows, Name &&name)
{
    const char *found = nullptr;
    std::size_t least = 3;
    for (const auto &row : rows) {
        const std::string candidate = name(row);
        const std::size_t distance = letters_between(word, candidate);
        if (distance < least && distance < candidate.size()) {
            least = distance;
            found = row.name;
        }
    }
    return found;
}

const option *option_named(std::string_view name)
{
    const auto found = std::ranges::find_if(options, [=](const option &o) { return o.name == name; });
    return found == options.end() ? nullptr : &*found;
}

const option *option_with(char letter)
{
    const auto found = std::ranges::find_if(options, [=](const option &o) { return o.letter == letter; });
    return found == options.end() ? nullptr : &*found;
}

std::string long_name(std::string_view name)
{
    return std::string{"--"}.append(name);
}

std::size_t words_of(const command &row)
{
    return std::strchr(row.name, ' ') ? 2 : 1;
}

std::string joined(std::span<const char *const> words)
{
    std::string line;
    for (const char *word : words)
        line.append(line.empty() ? "" : " ").append(word);
    return line;
}

const command *find_command(std::span<const char *const> words)
{
    for (const command &row : commands) {
        const std::size_t count = words_of(row);
        if (words.size() >= count && joined(words.first(count)) == row.name)
            return &row;
    }
    return nullptr;
}

/// Takes the words of the command line apart, in whatever order options and other words come.
class command_line {
public:
    explicit command_line(std::span<char *> arguments) : left_{arguments}
    {
        while (!left_.empty()) {
            const std::string_view word = next();
            if (word == "--") {
                std::ranges::for_each(left_, [this](const char *one) { take_word(one); });
                return;
            }
            if (word.starts_with("--"))
                take_long(word.substr(2));
            else if (word.starts_with('-') && word != "-")
                take_letters(word);
            else
                take_word(word.data());
        }
    }

    invocation given;

private:
    const char *next()
    {
        const char *word = left_.front();
        left_ = left_.subspan(1);
        return word;
    }

    void take_word(const char *word)
    {
        given.words.push_back(word);
        current = find_command(given.words);
    }

    void take(const option &o, const char *value, const text &name)
    {
        if (o.value && !value && left_.empty())
            throw misuse{name + " needs " + text::of(o.value)};
        given.options[o.letter] = !o.value ? "" : value ? value : next();
    }

    void take_long(std::string_view word)
    {
        const std::size_t equals = word.find('=');
        const std::string_view name = word.substr(0, equals);
        const option *o = option_named(name);
        if (!o) {
            const char *near = nearest(name, options, [](const option &row) { return row.name; });
            throw misuse{"no option " + meant(long_name(name), near ? long_name(near).c_str() : nullptr)};
        }
        if (equals != std::string_view::npos && !o->value)
            throw misuse{"--" + text::of(o->name) + " takes no value"};
        take(*o, equals == std::string_view::npos ? nullptr : word.data() + equals + 1, "--" + text::of(o->name));
    }

    void take_letters(std::string_view word)
    {
        for (std::size_t i = 1; i < word.size(); ++i) {
            const option *o = option_with(word[i]);
            if (!o)
                throw misuse{"no option " + quoted(std::string{'-', word[i]})};
            const char *rest = i + 1 < word.size() ? word.data() + i + 1 : nullptr;
            take(*o, rest, text::of(std::string{'-', o->letter}));
            if (o->value)
                return;
        }
    }

    std::span<char *> left_;
};

bool is_group(std::string_view word)
{
    return std::ranges::any_of(commands, [=](const command &row) {
        return words_of(row) == 2 && std::string_view{row.name}.starts_with(std::string{word} + ' ');
    });
}

[[noreturn]] void refuse_command(std::span<const char *const> words)
{
    if (words.empty())
        throw misuse{"a command is missing"};
    const auto first_word = [](const command &row) { return std::string{row.name, std::strcspn(row.name, " ")}; };
    if (!is_group(words[0])) {
        const char *near = nearest(words[0], commands, first_word);
        const std::string name = near ? std::string{near, std::strcspn(near, " ")} : "";
        throw misuse{"no command " + meant(words[0], near ? name.c_str() : nullptr)};
    }
    if (words.size() == 1)
        throw misuse{quoted(words[0]) + " needs a subcommand"};
    const std::string asked = joined(words.first(2));
    throw misuse{"no command " + meant(asked, nearest(asked, commands, [](const command &row) { return row.name; }))};
}

void check_options(const command &row, const invocation &given)
{
    for (const auto &[letter, value] : given.options) {
        if (common_options.find(letter) == std::string_view::npos && !std::strchr(row.options, letter))
            throw misuse{quoted(row.name) + " takes no --" + text::of(option_with(letter)->name)};
    }
}

void check_words(const command &row, const invocation &given)
{
    if (given.words.size() < row.fewest)
        throw misuse{quoted(row.name) + " needs " + text::of(row.words)};
    if (given.words.size() > row.most)
        throw misuse{"too many words, from " + quoted(given.words[row.most]) + " on"};
}

void print_options(const char *letters)
{
    for (const option &o : options) {
        if (!std::strchr(letters, o.letter))
            continue;
        char line[160];
        const std::string name = std::string{o.name} + (o.value ? std::string{" "} + o.value : "");
        std::snprintf(line, sizeof line, "  -%c, --%-20s %s", o.letter, name.c_str(), o.purpose);
        print(text::of(line));
    }
}

/// The commands that begin with the words; with options where that is one.
int help(std::span<const char *const> words)
{
    const command *row = find_command(words);
    if (!row && !words.empty() && !(words.size() == 1 && is_group(words[0])))
        refuse_command(words);
    print(usage(row));
    if (row) {
        print(text::of(row->purpose));
    } else {
        for (const command &one : commands) {
            const std::string name = std::string{one.name} + ' ' + one.words;
            char line[160];
            std::snprintf(line, sizeof line, "  %-36s %s", name.c_str(), one.purpose);
            if (words.empty() || std::string_view{one.name}.starts_with(std::string{words[0]} + ' '))
                print(text::of(line));
        }
    }
    print_options((std::string{common_options} + (row ? row->options : "")).c_str());
    return status_yes;
}

int run(std::span<char *> arguments)
{
    if (!arguments.empty() && std::strcmp(arguments[0], "--complete") == 0)
        return complete(arguments.subspan(1));
    invocation given = command_line{arguments}.given;
    set_style(given.has('j'), given.has('q') && !given.has('h') && !given.has('V'));
    if (given.has('V')) {
        print("vdctl " VDCTL_VERSION);
        return status_yes;
    }
    if (given.has('h'))
        return help(given.words);
    const command *row = current;
    if (!row)
        refuse_command(given.words);
    check_options(*row, given);
    given.words.erase(given.words.begin(), given.words.begin() + static_cast<std::ptrdiff_t>(words_of(*row)));
    check_words(*row, given);
    return row->run(given);
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const int status = run({argv + (argc > 0 ? 1 : 0), argv + argc});
        flush_output();
        return status;
    } catch (const misuse &wrong) {
        error(wrong.reason);
        std::fprintf(stderr, "%s\n", usage(current).str().c_str());
    } catch (const failure &failed) {
        error(failed.reason);
    } catch (const std::bad_alloc &) {
        error("out of memory");
    } catch (const std::exception &failed) {
        error(text::of(failed.what()));
    }
    return status_unusable;
}
