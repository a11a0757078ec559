// Package and change files of any bytes. What can be loaded is the same package after a save, a commit and another
// load; and whatever a path may name, a change to it leaves a package that can be read.
//
// An input is the package file and, after a line "%%", the change file.
#include "device.hpp"

#include <uci.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

namespace {

struct deleter {
    void operator()(uci_context *ctx) const { uci_free_context(ctx); }
    void operator()(char *text) const { std::free(text); }
};
using context = std::unique_ptr<uci_context, deleter>;

void expect(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

void write_file(const char *path, std::string_view content)
{
    std::ofstream{path} << content;
}

void add(std::string &text, const char *part)
{
    text += std::to_string(std::string_view{part}.size()) + ':' + part;
}

std::string option_text(uci_option *o)
{
    std::string text;
    if (o->type == UCI_TYPE_STRING) {
        add(text += "option ", o->e.name);
        add(text, o->v.string);
        return text;
    }
    uci_element *item;
    uci_foreach_element (&o->v.list, item) {
        add(text += "list ", o->e.name);
        add(text, item->name);
    }
    return text;
}

/// The package as far as a file can hold it: without generated names and empty lists.
std::string package_text(uci_package *p)
{
    std::string text;
    uci_element *e;
    uci_foreach_element (&p->sections, e) {
        const uci_section *s = uci_to_section(e);
        add(text += "config ", s->type);
        add(text, s->anonymous ? "" : e->name);
        uci_element *o;
        uci_foreach_element (&s->options, o)
            text += option_text(uci_to_option(o));
    }
    return text;
}

uci_package *load(const context &ctx)
{
    uci_package *p = nullptr;
    const int code = uci_load(ctx.get(), "t", &p);
    expect(code == UCI_OK || code == UCI_ERR_PARSE, "a load gives a package or a parse error");
    char *made = nullptr;
    uci_get_errorstr(ctx.get(), &made, "t");
    const std::unique_ptr<char, deleter> text{made};
    expect(std::string_view{made}.starts_with(code == UCI_OK ? "t: Success" : "t: Parse error ("), made);
    return p;
}

void set(const context &ctx, uci_package *p, const char *section, const char *option, const char *value)
{
    uci_ptr ptr{};
    ptr.p = p;
    ptr.section = section;
    ptr.option = option;
    ptr.value = value;
    expect(uci_set(ctx.get(), &ptr) == UCI_OK, "a section and an option can be set");
}

/// Makes every kind of change to what the path names.
void change_by_path(const std::string &path)
{
    const context ctx{uci_alloc_context()};
    for (const auto call : {uci_set, uci_add_list, uci_delete, uci_revert}) {
        std::string pieces = path;
        uci_ptr ptr{};
        if (uci_lookup_ptr(ctx.get(), &ptr, pieces.data(), true) == UCI_OK)
            call(ctx.get(), &ptr);
    }
    if (uci_package *p = uci_lookup_package(ctx.get(), "t"))
        expect(uci_commit(ctx.get(), &p, path.size() % 2 == 0) == UCI_OK, "whatever was changed can be committed");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_device();
    std::filesystem::create_directories("/tmp/.uci");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view input{reinterpret_cast<const char *>(data), size};
    const auto split = input.find("\n%%\n");
    const std::string_view changes = split == std::string_view::npos ? "" : input.substr(split + 4);
    write_file("/etc/config/t", split == std::string_view::npos ? input : input.substr(0, split + 1));
    write_file("/tmp/.uci/t", changes);

    const context ctx{uci_alloc_context()};
    uci_package *p = load(ctx);
    if (!p)
        return 0;
    set(ctx, p, "fuzz_section", nullptr, "fuzz");
    set(ctx, p, "fuzz_section", "option", "it's\n\"this\"\\");
    const std::string before = package_text(p);
    expect(uci_save(ctx.get(), p) == UCI_OK, "a package can be saved");
    expect(uci_commit(ctx.get(), &p, false) == UCI_OK, "a package can be committed");
    expect(package_text(p) == before, "the committed package is the one that was loaded");

    const context other{uci_alloc_context()};
    p = load(other);
    expect(p && package_text(p) == before, "the package loaded again is the one that was committed");

    change_by_path(std::string{changes.substr(0, changes.find('\0'))});
    expect(load(context{uci_alloc_context()}) != nullptr, "a changed package can be read");
    return 0;
}
