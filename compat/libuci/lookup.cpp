#include "lookup.hpp"

#include "store.hpp"
#include "text.hpp"

#include <cstring>

namespace libuci {

namespace {

void add_flag(uci_ptr &ptr, int flag) noexcept
{
    ptr.flags = static_cast<decltype(ptr.flags)>(ptr.flags | flag);
}

/// Cuts text at the first separator; what comes after it, or null.
char *cut(char *text, char separator) noexcept
{
    char *at = text ? std::strchr(text, separator) : nullptr;
    if (!at)
        return nullptr;
    *at = '\0';
    return at + 1;
}

/// The "@type[index]" of a section.
struct position {
    std::string_view type; // empty: any
    long index;            // negative: from the end
};

std::optional<position> parse_position(std::string_view text)
{
    const auto bracket = text.find('[');
    if (!text.starts_with('@') || bracket == std::string_view::npos || text.find(']') != text.size() - 1 ||
        text.back() != ']')
        return std::nullopt;
    const auto index = to_number(text.substr(bracket + 1, text.size() - bracket - 2));
    if (!index)
        return std::nullopt;
    return position{text.substr(1, bracket - 1), *index};
}

section *find_at(package &in, const position &wanted) noexcept
{
    const auto counts = [&](const section &each) { return wanted.type.empty() || each.type_text == wanted.type; };
    long index = wanted.index;
    if (index < 0) {
        for (const section &each : sections{in.uci_package::sections})
            index += counts(each);
    }
    for (section &each : sections{in.uci_package::sections}) {
        if (counts(each) && index-- == 0)
            return &each;
    }
    return nullptr;
}

/// The names of what a ptr has only as an object.
void fill_names(uci_ptr &ptr) noexcept
{
    if (ptr.s && !ptr.section)
        ptr.section = ptr.s->e.name;
    if (ptr.o && !ptr.option)
        ptr.option = ptr.o->e.name;
}

void find_package(context &ctx, uci_ptr &ptr)
{
    if (!ptr.p)
        ptr.p = ctx.find(ptr.package);
    if (!ptr.p)
        ptr.p = &load(ctx, ptr.package);
    ptr.last = &ptr.p->e;
}

section *find_by_position(uci_ptr &ptr, bool extended)
{
    const auto wanted = extended ? parse_position(ptr.section) : std::nullopt;
    if (!wanted) {
        ptr = {};
        throw failure{UCI_ERR_INVAL};
    }
    section *found = find_at(own(*ptr.p), *wanted);
    if (found)
        ptr.section = found->e.name;
    return found;
}

/// False if the section that is wanted is not there.
bool find_section(uci_ptr &ptr, bool extended)
{
    if (!ptr.section)
        return true;
    ptr.o = nullptr;
    if (!ptr.s) {
        const bool by_position = ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED;
        ptr.s = by_position ? find_by_position(ptr, extended) : own(*ptr.p).find(ptr.section);
    }
    if (ptr.s)
        ptr.last = &ptr.s->e;
    return ptr.s != nullptr;
}

/// False if the option that is wanted is not there.
bool find_option(uci_ptr &ptr)
{
    if (!ptr.s || !ptr.option)
        return true;
    ptr.o = own(*ptr.s).find(ptr.option);
    if (ptr.o)
        ptr.last = &ptr.o->e;
    return ptr.o != nullptr;
}

} // namespace

void parse_path(uci_ptr &ptr, char *text)
{
    ptr = {};
    char *value = cut(text, '=');
    char *section = cut(text, '.');
    char *option = cut(section, '.');
    if (!is_printable(text) || (option && !is_name(option)) || (value && !is_value(value)))
        throw failure{UCI_ERR_PARSE};
    ptr.package = text;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    ptr.target = option ? UCI_TYPE_OPTION : section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    if (section && !is_name(section))
        add_flag(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
}

void resolve(context &ctx, uci_ptr &ptr, bool extended)
{
    require(ptr.p || ptr.package);
    fill_names(ptr);
    ptr.flags = static_cast<decltype(ptr.flags)>(ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED);
    add_flag(ptr, uci_ptr::UCI_LOOKUP_DONE);
    find_package(ctx, ptr);
    if (find_section(ptr, extended) && find_option(ptr))
        add_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
}

change resolve_change(context &ctx, uci_ptr &ptr, change_kind kind)
{
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_DONE))
        resolve(ctx, ptr, true);
    require(ptr.p);
    fill_names(ptr);
    require(!ptr.option || *ptr.option);
    change result{kind, {}, {}, {}};
    if (ptr.section)
        result.section = ptr.s ? ptr.s->e.name : ptr.section;
    if (ptr.option)
        result.option = ptr.option;
    if (ptr.value)
        result.value = ptr.value;
    return result;
}

} // namespace libuci
