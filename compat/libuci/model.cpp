#include "model.hpp"

#include <cstdint>
#include <cstdio>
#include <memory>

namespace libuci {

namespace {

void begin_element(uci_element &element, uci_type type, std::string &name) noexcept
{
    make_empty(element.list);
    element.type = type;
    element.name = name.data();
}

/// The lowest 16 bits of the type's hash; part of the generated name.
unsigned type_hash(std::string_view type) noexcept
{
    std::uint32_t hash = 5381;
    for (const char c : type)
        hash = hash * 33 + static_cast<unsigned char>(c);
    return hash & 0xffff;
}

} // namespace

uci_element *find_element(uci_list &head, std::string_view name) noexcept
{
    uci_element *element;
    uci_foreach_element (&head, element) {
        if (name == element->name)
            return element;
    }
    return nullptr;
}

text_element::text_element(uci_type kind, std::string_view content) : uci_element{}, text{content}
{
    begin_element(*this, kind, text);
}

option::option(uci_section &owner, std::string_view name_, std::string value)
    : uci_option{}, name{name_}, text{std::move(value)}
{
    begin_element(e, UCI_TYPE_OPTION, name);
    uci_option::section = &owner;
    type = UCI_TYPE_STRING;
    v.string = text.data();
}

option::~option()
{
    if (type == UCI_TYPE_LIST)
        clear<to_text>(v.list);
}

void option::become_string(std::string &value) noexcept
{
    if (type == UCI_TYPE_LIST)
        clear<to_text>(v.list);
    text.swap(value);
    type = UCI_TYPE_STRING;
    v.string = text.data();
}

void option::become_list() noexcept
{
    type = UCI_TYPE_LIST;
    make_empty(v.list);
}

section::section(uci_package &owner, std::string_view type_, std::string_view name_)
    : uci_section{}, name{name_}, type_text{type_}
{
    begin_element(e, UCI_TYPE_SECTION, name);
    make_empty(uci_section::options);
    uci_section::package = &owner;
    type = type_text.data();
}

section::~section()
{
    clear<to_option>(uci_section::options);
}

option *section::find(std::string_view option_name) noexcept
{
    uci_element *element = find_element(uci_section::options, option_name);
    return element ? &to_option(&element->list) : nullptr;
}

void section::rename(std::string &fresh) noexcept
{
    name.swap(fresh);
    e.name = name.data();
}

void section::retype(std::string &fresh) noexcept
{
    type_text.swap(fresh);
    type = type_text.data();
}

package::package(uci_context &owner, std::string_view name_, std::string_view path_)
    : uci_package{}, name{name_}, path_text{path_}
{
    begin_element(e, UCI_TYPE_PACKAGE, name);
    make_empty(uci_package::sections);
    ctx = &owner;
    path = path_text.data();
}

package::~package()
{
    clear<to_section>(uci_package::sections);
}

section *package::find(std::string_view section_name) noexcept
{
    uci_element *element = find_element(uci_package::sections, section_name);
    return element ? &to_section(&element->list) : nullptr;
}

section &package::append(std::string_view section_type, std::string_view section_name)
{
    note_given(section_name);
    return attach(section_type, section_name);
}

section &package::attach(std::string_view section_type, std::string_view section_name)
{
    auto fresh = std::make_unique<section>(*this, section_type, section_name);
    link_before(uci_package::sections, fresh->e);
    ++sections_made;
    return *fresh.release();
}

section &package::append_anonymous(std::string_view section_type)
{
    const std::string generated = next_name(section_type);
    section &fresh = attach(section_type, generated);
    fresh.anonymous = true;
    return fresh;
}

void package::note_given(std::string_view section_name) noexcept
{
    given_like_generated_ = given_like_generated_ || section_name.starts_with("cfg");
}

std::string package::next_name(std::string_view section_type)
{
    char generated[32];
    do // somebody may have given a section the very name that is due
        std::snprintf(generated, sizeof generated, "cfg%02x%04x", sections_made + 1, type_hash(section_type));
    while (given_like_generated_ && find(generated) && ++sections_made);
    return generated;
}

context::context() : uci_context{}
{
    make_empty(root);
    make_empty(backends);
    make_empty(delta_path);
    flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    conf2dir = conf2dir_text.data();
    set_confdir(UCI_CONFDIR);
    set_savedir(UCI_SAVEDIR);
}

context::~context()
{
    clear<to_package>(root);
    clear<to_text>(delta_path);
}

package *context::find(std::string_view package_name) noexcept
{
    uci_element *element = find_element(root, package_name);
    return element ? &to_package(&element->list) : nullptr;
}

void context::set_confdir(std::string_view directory)
{
    std::string fresh{directory};
    confdir_text.swap(fresh);
    confdir = confdir_text.data();
}

bool context::add_directory(std::string_view directory)
{
    if (find_element(delta_path, directory))
        return false;
    auto fresh = std::make_unique<text_element>(UCI_TYPE_PATH, directory);
    link_before(*delta_path.prev, *fresh.release());
    return true;
}

void context::set_savedir(std::string_view directory)
{
    uci_element *chosen = find_element(delta_path, directory);
    if (chosen)
        unlink(*chosen);
    else
        chosen = new text_element(UCI_TYPE_PATH, directory);
    link_before(delta_path, *chosen);
    savedir = chosen->name;
}

} // namespace libuci
