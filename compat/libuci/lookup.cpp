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
    const auto fits = [&](const section &each) { return wanted.type.empty() || each.type_text == wanted.type; };
    long index = wanted.index;
    if (index < 0) {
        for (const section &each : sections{in.uci_package::sections})
            index += fits(each);
    }
    for (section &each : sections{in.uci_package::sections}) {
        if (fits(each) && index-- == 0)
            return &each;
    }
    return nullptr;
}

int resolve_section(uci_ptr &ptr, bool extended)
{
    if (ptr.s)
        return UCI_OK;
    package &in = own(*ptr.p);
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED)) {
        ptr.s = in.find(ptr.section);
        return UCI_OK;
    }
    const auto wanted = extended ? parse_position(ptr.section) : std::nullopt;
    if (!wanted) {
        ptr = {};
        return UCI_ERR_INVAL;
    }
    ptr.s = find_at(in, *wanted);
    if (ptr.s)
        ptr.section = ptr.s->e.name;
    return UCI_OK;
}

} // namespace

bool parse_path(uci_ptr &ptr, char *text) noexcept
{
    char *value = cut(text, '=');
    char *section = cut(text, '.');
    char *option = cut(section, '.');
    if (!is_printable(text) || (option && !is_name(option)) || (value && !is_value(value)))
        return false;
    ptr.package = text;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    ptr.target = option ? UCI_TYPE_OPTION : section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
    if (section && !is_name(section))
        add_flag(ptr, uci_ptr::UCI_LOOKUP_EXTENDED);
    return true;
}

int resolve(context &ctx, uci_ptr &ptr, bool extended)
{
    if (!ptr.p && !ptr.package)
        return UCI_ERR_INVAL;
    if (ptr.s && !ptr.section)
        ptr.section = ptr.s->e.name;
    if (ptr.o && !ptr.option)
        ptr.option = ptr.o->e.name;
    ptr.flags = static_cast<decltype(ptr.flags)>(ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED);
    add_flag(ptr, uci_ptr::UCI_LOOKUP_DONE);
    if (!ptr.p)
        ptr.p = ctx.find(ptr.package);
    if (!ptr.p)
        ptr.p = &load(ctx, ptr.package);
    ptr.last = &ptr.p->e;
    if (ptr.s || ptr.section) {
        if (const int code = resolve_section(ptr, extended); code != UCI_OK)
            return code;
        ptr.o = nullptr;
        if (!ptr.s)
            return UCI_OK;
        ptr.last = &ptr.s->e;
    }
    if (ptr.s && ptr.option) {
        ptr.o = own(*ptr.s).find(ptr.option);
        if (!ptr.o)
            return UCI_OK;
        ptr.last = &ptr.o->e;
    }
    add_flag(ptr, uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

} // namespace libuci
