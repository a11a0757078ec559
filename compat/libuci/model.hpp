// Contexts, packages, sections and options: the structures of uci.h with what belongs to them.
//
// Each is linked into its owner's list and deleted with the owner. The pointers that C sees lead into the strings here.
#pragma once

#include "failure.hpp"
#include "uci.h"

#include <optional>
#include <string>
#include <string_view>

namespace libuci {

inline void make_empty(uci_list &head) noexcept
{
    head.next = head.prev = &head;
}

inline void link_before(uci_list &position, uci_element &element) noexcept
{
    element.list.next = &position;
    element.list.prev = position.prev;
    position.prev->next = &element.list;
    position.prev = &element.list;
}

inline void unlink(uci_element &element) noexcept
{
    element.list.prev->next = element.list.next;
    element.list.next->prev = element.list.prev;
    make_empty(element.list);
}

/// A list item or a directory: an element that is only a text.
struct text_element final : uci_element {
    text_element(uci_type kind, std::string_view content);

    std::string text;
};

struct option final : uci_option {
    option(uci_section &owner, std::string_view name_, std::string value); // a string option
    ~option();
    option(const option &) = delete;
    option &operator=(const option &) = delete;

    void become_string(std::string &value) noexcept; // takes value
    void become_list() noexcept;                     // an empty one

    std::string name;
    std::string text;
};

struct section final : uci_section {
    section(uci_package &owner, std::string_view type_, std::string_view name_);
    ~section();
    section(const section &) = delete;
    section &operator=(const section &) = delete;

    libuci::option *find(std::string_view option_name) noexcept;
    void rename(std::string &fresh) noexcept; // takes fresh
    void retype(std::string &fresh) noexcept;

    std::string name;
    std::string type_text;
};

struct package final : uci_package {
    package(uci_context &owner, std::string_view name_, std::string_view path_);
    ~package();
    package(const package &) = delete;
    package &operator=(const package &) = delete;

    section *find(std::string_view section_name) noexcept;
    section &append(std::string_view section_type, std::string_view section_name);
    section &append_anonymous(std::string_view section_type);
    void note_given(std::string_view section_name) noexcept; // what is not named by next_name
    std::string next_name(std::string_view section_type);    // of the anonymous section that is appended next

    std::string name;
    std::string path_text;
    std::string unsaved; // the lines that a save appends to the change file
    unsigned sections_made = 0;

private:
    section &attach(std::string_view section_type, std::string_view section_name);

    bool given_like_generated_ = false; // a section has a name that may come to be due for another
};

struct context final : uci_context {
    context();
    ~context();
    context(const context &) = delete;
    context &operator=(const context &) = delete;

    package *find(std::string_view package_name) noexcept;
    void set_confdir(std::string_view directory);
    bool add_directory(std::string_view directory); // before the save directory; false if it is in the list
    void set_savedir(std::string_view directory);

    std::string confdir_text;
    std::string conf2dir_text = UCI_CONF2DIR;
    int error = UCI_OK;                   // the code of the last call
    std::optional<parse_failure> details; // and what was wrong with a file
};

// What C hands back to us is always one of ours.
inline option &own(uci_option &object) noexcept
{
    return static_cast<option &>(object);
}
inline section &own(uci_section &object) noexcept
{
    return static_cast<section &>(object);
}
inline package &own(uci_package &object) noexcept
{
    return static_cast<package &>(object);
}
inline context &own(uci_context &object) noexcept
{
    return static_cast<context &>(object);
}

inline text_element &to_text(uci_list *link) noexcept
{
    return static_cast<text_element &>(*list_to_element(link));
}
inline option &to_option(uci_list *link) noexcept
{
    return own(*uci_to_option(list_to_element(link)));
}
inline section &to_section(uci_list *link) noexcept
{
    return own(*uci_to_section(list_to_element(link)));
}
inline package &to_package(uci_list *link) noexcept
{
    return own(*uci_to_package(list_to_element(link)));
}

/// The objects of a list, for a range-based loop whose body leaves the list alone.
template <auto Object> class objects {
public:
    explicit objects(uci_list &head) noexcept : head_{head} {}

    struct iterator {
        uci_list *link;
        auto &operator*() const noexcept { return Object(link); }
        iterator &operator++() noexcept
        {
            link = link->next;
            return *this;
        }
        bool operator!=(const iterator &other) const noexcept { return link != other.link; }
    };
    iterator begin() const noexcept { return {head_.next}; }
    iterator end() const noexcept { return {&head_}; }

private:
    uci_list &head_;
};
using items = objects<to_text>;
using options = objects<to_option>;
using sections = objects<to_section>;
using packages = objects<to_package>;

/// Deletes every object of a list.
template <auto Object> void clear(uci_list &head) noexcept
{
    while (head.next != &head) {
        auto *object = &Object(head.next);
        uci_list *next = head.next->next;
        delete object;
        head.next = next;
    }
    make_empty(head);
}

uci_element *find_element(uci_list &head, std::string_view name) noexcept;

} // namespace libuci
