#include "change.hpp"

#include "text.hpp"

#include <memory>

namespace libuci {

namespace {

template <typename Object> void remove_object(Object *object) noexcept
{
    unlink(object->e);
    delete object;
}

void remove_text(text_element *object) noexcept
{
    unlink(*object);
    delete object;
}

bool is_found(const change &what, const section *at, const option *old) noexcept
{
    return at && (what.option.empty() || old);
}

void require_found(const change &what, const section *at, const option *old)
{
    if (!is_found(what, at, old))
        throw failure{UCI_ERR_NOTFOUND};
}

outcome set(package &to, const change &what, section *at)
{
    const std::string_view value = *what.value;
    if (!what.option.empty()) {
        require(at);
        option *old = at->find(what.option);
        if (old && old->type == UCI_TYPE_STRING && old->text == value)
            return {false, at, old};
        return {true, at, &set_option(*at, what.option, value)};
    }
    require(is_printable(value));
    const bool same = at && at->type_text == value;
    if (!at) {
        at = &to.append(value, what.section);
    } else if (!same) {
        std::string fresh{value};
        at->retype(fresh);
    }
    if (what.kind == change_kind::add)
        at->anonymous = true;
    return {!same, at, nullptr};
}

outcome remove_numbered(option &from, std::string_view text)
{
    const auto number = to_number(text);
    require(number.has_value());
    long index = 0;
    for (text_element &item : items{from.v.list}) {
        if (index++ == *number) {
            remove_text(&item);
            return {true};
        }
    }
    return {};
}

outcome remove(const change &what, section *at, option *old)
{
    require_found(what, at, old);
    if (!old)
        remove_object(at);
    else if (old->type == UCI_TYPE_LIST && !what.value.value_or("").empty())
        return remove_numbered(*old, *what.value);
    else
        remove_object(old);
    return {true, what.option.empty() ? nullptr : at, nullptr};
}

outcome remove_equal(option *from, std::string_view value)
{
    if (!from || from->type != UCI_TYPE_LIST)
        throw failure{UCI_ERR_NOTFOUND};
    outcome result;
    uci_element *item;
    uci_element *next;
    uci_foreach_element_safe (&from->v.list, next, item) {
        if (value == item->name) {
            remove_text(&to_text(&item->list));
            result.changed = true;
        }
    }
    return result;
}

outcome rename(package &to, const change &what, section *at, option *old)
{
    std::string fresh{*what.value};
    require_found(what, at, old);
    require(is_name(fresh));
    if (old ? at->find(fresh) != nullptr : to.find(fresh) != nullptr)
        throw failure{UCI_ERR_DUPLICATE};
    if (old) {
        old->name.swap(fresh);
        old->e.name = old->name.data();
    } else {
        to.note_given(fresh);
        at->rename(fresh);
        at->anonymous = false;
    }
    return {true};
}

outcome move(package &to, const change &what, section *at)
{
    if (!at || !what.option.empty())
        throw failure{UCI_ERR_NOTFOUND};
    const auto index = to_number(*what.value);
    require(index && *index >= 0);
    unlink(at->e);
    uci_list &all = to.uci_package::sections;
    uci_list *position = all.next;
    for (long passed = 0; passed < *index && position != &all; ++passed)
        position = position->next;
    link_before(*position, at->e);
    return {true};
}

/// The change that a line's argument describes, or nothing if it describes none of this package.
std::optional<change> parse_change(std::string_view package_name, change_kind kind, std::string_view text)
{
    if (!text.starts_with(package_name) || text.substr(package_name.size(), 1) != ".")
        return std::nullopt;
    std::string_view path = text.substr(package_name.size() + 1);
    change result{kind, {}, {}, {}};
    if (const auto equals = path.find('='); equals != std::string_view::npos) {
        result.value = path.substr(equals + 1);
        path = path.substr(0, equals);
    }
    const auto dot = path.find('.');
    result.section = path.substr(0, dot);
    const bool has_option = dot != std::string_view::npos;
    if (has_option)
        result.option = path.substr(dot + 1);

    const bool needs_value = kind != change_kind::remove;
    const bool needs_option = kind == change_kind::add_item || kind == change_kind::remove_item;
    if (!is_name(result.section) || (has_option && !is_name(result.option)) || (needs_value && !result.value) ||
        (needs_option && !has_option) || !is_value(result.value.value_or("")))
        return std::nullopt;
    return result;
}

/// Calls body with each change that a change file has for the package, skipping lines that are none.
template <typename Body> void for_each_change(std::string_view package_name, std::string_view content, Body &&body)
{
    command_reader reader{content};
    while (reader.next_line()) {
        reader.skip_space();
        change_kind kind = change_kind::set;
        for (const change_kind other : {change_kind::add, change_kind::remove, change_kind::add_item,
                                        change_kind::remove_item, change_kind::rename, change_kind::move}) {
            if (kind == change_kind::set && reader.take(static_cast<char>(other)))
                kind = other;
        }
        std::string text;
        try {
            text = reader.word();
        } catch (const parse_failure &) { // the text has ended within it
            return;
        }
        if (!reader.ended_line())
            continue;
        if (const auto found = parse_change(package_name, kind, text))
            body(*found);
    }
}

} // namespace

option &set_option(section &in, std::string_view name, std::string_view value)
{
    std::string fresh{value};
    if (option *old = in.find(name)) {
        old->become_string(fresh);
        return *old;
    }
    auto added = std::make_unique<option>(in, name, std::move(fresh));
    link_before(in.uci_section::options, added->e);
    return *added.release();
}

option &add_item(section &in, std::string_view name, std::string_view value)
{
    auto item = std::make_unique<text_element>(UCI_TYPE_ITEM, value);
    option *list = in.find(name);
    if (!list) {
        auto added = std::make_unique<option>(in, name, std::string{});
        added->become_list();
        link_before(in.uci_section::options, added->e);
        list = added.release();
    } else if (list->type == UCI_TYPE_STRING) {
        auto first = std::make_unique<text_element>(UCI_TYPE_ITEM, list->text);
        list->become_list();
        link_before(list->v.list, *first.release());
    }
    link_before(list->v.list, *item.release());
    return *list;
}

outcome apply(package &to, const change &what)
{
    section *at = to.find(what.section);
    option *old = at && !what.option.empty() ? at->find(what.option) : nullptr;
    switch (what.kind) {
    case change_kind::set:
    case change_kind::add:
        if (!what.value->empty())
            return set(to, what, at);
        require(at || what.option.empty()); // an empty value deletes, if there is something
        return is_found(what, at, old) ? remove(what, at, old) : outcome{false, at, nullptr};
    case change_kind::remove:
        return remove(what, at, old);
    case change_kind::add_item:
        require(at);
        return {true, at, &add_item(*at, what.option, *what.value)};
    case change_kind::remove_item:
        return remove_equal(old, *what.value);
    case change_kind::rename:
        return rename(to, what, at, old);
    case change_kind::move:
        return move(to, what, at);
    }
    throw failure{UCI_ERR_INVAL};
}

outcome make(package &to, const change &what)
{
    // room first: after the change nothing may fail any more
    const std::string line = change_line(to.name, what);
    if (to.has_delta)
        to.unsaved.reserve(to.unsaved.size() + line.size());
    const outcome result = apply(to, what);
    if (result.changed && to.has_delta)
        to.unsaved += line;
    return result;
}

bool names_item(package &in, const change &what) noexcept
{
    section *at = in.find(what.section);
    const option *of = at ? at->find(what.option) : nullptr;
    return of && of->type == UCI_TYPE_LIST && !what.value.value_or("").empty();
}

std::string change_line(std::string_view package_name, const change &what)
{
    const bool deletes = what.kind == change_kind::set && what.value->empty();
    const change_kind kind = deletes ? change_kind::remove : what.kind;
    std::string line;
    if (kind != change_kind::set)
        line += static_cast<char>(kind);
    line += escaped(package_name);
    line += '.';
    line += masked(what.section);
    if (!what.option.empty()) {
        line += '.';
        line += masked(what.option);
    }
    if (what.value && !deletes) {
        line += '=';
        line += quoted(*what.value);
    }
    return line += '\n';
}

std::size_t apply_lines(package &to, std::string_view content)
{
    std::size_t applied = 0;
    for_each_change(to.name, content, [&](const change &what) {
        try {
            apply(to, what);
            ++applied;
        } catch (const failure &) { // it does not fit the package any more
        }
    });
    return applied;
}

std::size_t end_of_comment(std::string_view content, std::string_view comment)
{
    std::size_t end = 0;
    if (content.rfind(comment) == std::string_view::npos) // most often
        return end;
    command_reader reader{content};
    while (reader.next_line()) {
        if (content.substr(reader.line_begin()).starts_with(comment))
            end = reader.line_begin() + comment.size();
        try { // a value may hold the same text
            reader.skip_space();
            reader.word();
        } catch (const parse_failure &) {
            break;
        }
    }
    return end;
}

line_end end_of_lines(std::string_view content)
{
    command_reader reader{content};
    while (reader.next_line()) {
        reader.skip_space();
        try {
            reader.word();
        } catch (const parse_failure &) {
            return {reader.line_begin(), ""};
        }
    }
    // after a backslash, a line feed only continues the line
    bool continued = false;
    for (const char *end : {"\\", "\\\n", "\\\r\n"})
        continued = continued || content.ends_with(end);
    if (content.ends_with("\\\r")) // so the carriage return stays one, and the line can end
        return {content.size(), "''\n"};
    const bool ended = content.empty() || content.ends_with('\n');
    return {content.size(), continued ? "\n\n" : ended ? "" : "\n"};
}

std::string lines_without(std::string_view package_name, std::string_view content, std::string_view section,
                          std::string_view option)
{
    std::string rest;
    for_each_change(package_name, content, [&](const change &what) {
        const bool about = section.empty() || (what.section == section && (option.empty() || what.option == option));
        if (!about)
            rest += change_line(package_name, what);
    });
    return rest;
}

} // namespace libuci
