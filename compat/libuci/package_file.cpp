#include "package_file.hpp"

#include "change.hpp"
#include "text.hpp"

namespace libuci {

namespace {

class package_parser {
public:
    package_parser(package &into, std::string_view content) : package_{into}, reader_{content} {}

    void read()
    {
        while (reader_.next_line()) {
            reader_.skip_space();
            if (!reader_.at_end())
                while (command())
                    ;
        }
    }

private:
    /// Whether another command follows on the same line.
    bool command()
    {
        const std::string_view keyword = reader_.keyword();
        if (keyword.empty())
            return false;
        if (keyword == "package" || keyword == "p")
            return package_command();
        if (keyword == "config" || keyword == "c")
            return config_command();
        if (keyword == "option" || keyword == "o")
            return option_command(change_kind::set);
        if (keyword == "list" || keyword == "l")
            return option_command(change_kind::add_item);
        reader_.fail_at_keyword("invalid command");
    }

    std::string required(const char *reason_without)
    {
        if (reader_.at_end())
            reader_.fail_at_keyword(reason_without);
        std::string text = reader_.argument();
        if (text.empty())
            reader_.fail_at_argument("insufficient arguments");
        return text;
    }

    bool package_command()
    {
        if (!is_declared_name(required("package without name")))
            reader_.fail_at_argument("invalid character in name field");
        return reader_.end_of_command(); // the package is named after its file
    }

    bool config_command()
    {
        const std::string type = required("config without name");
        if (!is_printable(type))
            reader_.fail_at_argument("invalid character in type field");
        const std::string name = reader_.argument();
        if (!name.empty() && !is_name(name))
            reader_.fail_at_argument("invalid character in name field");
        const bool more = reader_.end_of_command();

        section_ = name.empty() ? nullptr : package_.find(name);
        if (section_ && section_->type_text != type)
            reader_.fail_at_argument("section of different type overwrites prior section with same name");
        if (!section_)
            section_ = &(name.empty() ? package_.append_anonymous(type) : package_.append(type, name));
        return more;
    }

    bool option_command(change_kind kind)
    {
        if (!section_)
            reader_.fail_at_keyword("option/list command found before the first section");
        const std::string name = required("option without name");
        if (!is_name(name))
            reader_.fail_at_argument("invalid character in name field");
        const std::string value = reader_.argument();
        const bool more = reader_.end_of_command();

        if (kind == change_kind::add_item)
            add_item(*section_, name, value);
        else if (!value.empty()) // an empty one would delete; in a file it is as if it weren't there
            set_option(*section_, name, value);
        return more;
    }

    package &package_;
    command_reader reader_;
    section *section_ = nullptr;
};

void write_line(std::string &text, const char *keyword, const std::string &name, std::string_view value)
{
    text += keyword;
    text += name;
    text += ' ';
    text += quoted(value);
    text += '\n';
}

void write_option(std::string &text, option &from)
{
    if (!is_name(from.name))
        return;
    if (from.type == UCI_TYPE_STRING)
        return write_line(text, "\toption ", from.name, from.text);
    for (text_element &item : items{from.v.list})
        write_line(text, "\tlist ", from.name, item.text);
}

} // namespace

void read_package(package &into, std::string_view content)
{
    package_parser{into, content}.read();
}

std::string package_text(package &from)
{
    std::string text;
    for (section &each : sections{from.uci_package::sections}) {
        if (!each.anonymous && !is_name(each.name))
            continue;
        text += "\nconfig ";
        text += escaped(each.type_text);
        if (!each.anonymous) {
            text += ' ';
            text += quoted(each.name);
        }
        text += '\n';
        for (option &one : options{each.uci_section::options})
            write_option(text, one);
    }
    return text += '\n';
}

} // namespace libuci
