// The functions of uci.h.
#include "uci.h"

#include "change.hpp"
#include "lookup.hpp"
#include "model.hpp"
#include "store.hpp"
#include "text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>

using namespace libuci;

namespace {

const char *const error_texts[] = {"Success",   "Out of memory", "Invalid argument", "Entry not found",
                                   "I/O error", "Parse error",   "Duplicate entry",  "Unknown error"};

/// Runs the body of a function with the context's error state; nothing that is thrown leaves here.
template <typename Body> int call(uci_context *ctx, Body &&body) noexcept
{
    if (!ctx)
        return UCI_ERR_INVAL;
    context &state = own(*ctx);
    state.details.reset();
    try {
        state.error = body(state);
    } catch (const failure &failed) {
        state.error = failed.code;
    } catch (const parse_failure &failed) {
        state.details = failed;
        state.error = UCI_ERR_PARSE;
    } catch (...) { // bad_alloc
        state.error = UCI_ERR_MEM;
    }
    return state.error;
}

/// The text for the context's error as a new string; null when memory runs out.
char *error_text(const uci_context *ctx, const char *prefix, const char *end) noexcept
{
    const auto *state = static_cast<const context *>(ctx);
    char details[160] = "";
    if (state && state->details)
        std::snprintf(details, sizeof details, " (%s) at line %zu, byte %zu", state->details->reason,
                      state->details->line, state->details->byte);
    char *text = nullptr;
    const int length = asprintf(&text, "%s%s%s%s%s", prefix ? prefix : "", prefix ? ": " : "",
                                error_texts[state ? state->error : UCI_ERR_INVAL], details, end);
    return length < 0 ? nullptr : text;
}

/// The change that ptr describes, once it is resolved.
struct request {
    int code;
    change what;
};

/// Resolves a ptr that was filled by hand, and fills in the names that are missing.
request resolve_change(context &ctx, uci_ptr &ptr, change_kind kind)
{
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_DONE)) {
        if (const int code = resolve(ctx, ptr, true); code != UCI_OK)
            return {code, {}};
    }
    if (!ptr.p)
        return {UCI_ERR_INVAL, {}};
    if (ptr.s && !ptr.section)
        ptr.section = ptr.s->e.name;
    if (ptr.o && !ptr.option)
        ptr.option = ptr.o->e.name;
    request result{UCI_OK, {kind, {}, {}, {}}};
    if (ptr.section)
        result.what.section = ptr.s ? ptr.s->e.name : ptr.section;
    if (ptr.option)
        result.what.option = ptr.option;
    if (ptr.value)
        result.what.value = ptr.value;
    if (ptr.option && !*ptr.option)
        result.code = UCI_ERR_INVAL;
    return result;
}

int store_outcome(uci_ptr &ptr, const outcome &result) noexcept
{
    if (result.code == UCI_OK) {
        ptr.s = result.s;
        ptr.o = result.o;
    }
    return result.code;
}

bool is_package_name(std::string_view name) noexcept
{
    return is_printable(name) && name.find('.') == std::string_view::npos;
}

struct closes_folder {
    void operator()(DIR *folder) const noexcept { ::closedir(folder); }
};

/// Whether the folder has anything in it; the names of its packages, sorted.
std::pair<bool, std::vector<std::string>> package_names(const char *folder)
{
    std::pair<bool, std::vector<std::string>> result{};
    const std::unique_ptr<DIR, closes_folder> entries{::opendir(folder)};
    if (!entries && errno != ENOENT && errno != ENOTDIR)
        throw failure{errno == ENOMEM ? UCI_ERR_MEM : UCI_ERR_IO};
    if (!entries)
        return result;
    for (;;) {
        errno = 0;
        const dirent *entry = ::readdir(entries.get());
        if (!entry && errno != 0)
            throw failure{UCI_ERR_IO};
        if (!entry)
            break;
        struct stat status;
        result.first = result.first || entry->d_name[0] != '.';
        if (is_package_name(entry->d_name) && ::fstatat(::dirfd(entries.get()), entry->d_name, &status, 0) == 0 &&
            !S_ISDIR(status.st_mode))
            result.second.emplace_back(entry->d_name);
    }
    std::sort(result.second.begin(), result.second.end());
    return result;
}

/// A null-terminated array of the names, which lie behind it in the same block.
char **to_block(const std::vector<std::string> &names)
{
    std::size_t size = (names.size() + 1) * sizeof(char *);
    for (const std::string &name : names)
        size += name.size() + 1;
    auto **block = static_cast<char **>(std::malloc(size));
    if (!block)
        throw std::bad_alloc{};
    char *text = reinterpret_cast<char *>(block + names.size() + 1);
    char **entry = block;
    for (const std::string &name : names) {
        *entry++ = text;
        text = std::copy_n(name.c_str(), name.size() + 1, text);
    }
    *entry = nullptr;
    return block;
}

} // namespace

uci_context *uci_alloc_context()
{
    try {
        return new context;
    } catch (...) {
        return nullptr;
    }
}

void uci_free_context(uci_context *ctx)
{
    if (ctx)
        delete &own(*ctx);
}

void uci_perror(uci_context *ctx, const char *prefix)
{
    uci_get_errorstr(ctx, nullptr, prefix);
}

void uci_get_errorstr(uci_context *ctx, char **dest, const char *prefix)
{
    char *text = error_text(ctx, prefix, dest ? "" : "\n");
    if (dest) {
        *dest = text;
        return;
    }
    if (text)
        std::fputs(text, stderr);
    std::free(text);
}

int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    return call(ctx, [&](context &state) -> int {
        if (!name)
            return UCI_ERR_INVAL;
        uci_package &loaded = load(state, name);
        if (package)
            *package = &loaded;
        return UCI_OK;
    });
}

int uci_unload(uci_context *ctx, uci_package *p)
{
    return call(ctx, [&](context &) -> int {
        if (!p)
            return UCI_ERR_INVAL;
        unlink(p->e);
        delete &own(*p);
        return UCI_OK;
    });
}

int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended)
{
    return call(ctx, [&](context &state) -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        if (!str)
            return resolve(state, *ptr, extended);
        *ptr = {};
        if (!parse_path(*ptr, str))
            return UCI_ERR_PARSE;
        return resolve(state, *ptr, extended);
    });
}

int uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name)
{
    return call(ctx, [&](context &) -> int {
        if (e)
            *e = list && name ? find_element(*list, name) : nullptr;
        if (!e || !list || !name)
            return UCI_ERR_INVAL;
        return *e ? UCI_OK : UCI_ERR_NOTFOUND;
    });
}

int uci_set(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        const auto [code, what] = resolve_change(state, *ptr, change_kind::set);
        if (code != UCI_OK)
            return code;
        // a section that was looked for by its index can't be created: the index is no name
        const bool by_index = !ptr->s && (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED);
        if (!what.value || what.section.empty() || by_index)
            return UCI_ERR_INVAL;
        // the real library writes a type as it stands, and then can't read the package
        if (what.option.empty() && !what.value->empty() && !is_plain_type(*what.value))
            return UCI_ERR_INVAL;
        return store_outcome(*ptr, make(own(*ptr->p), what));
    });
}

int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res)
{
    return call(ctx, [&](context &) -> int {
        if (!p || !type || !res || !is_plain_type(type))
            return UCI_ERR_INVAL;
        const std::string name = own(*p).next_name(type);
        const outcome added = make(own(*p), {change_kind::add, name, {}, type});
        *res = added.s;
        return added.code;
    });
}

int uci_add_list(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        const auto [code, what] = resolve_change(state, *ptr, change_kind::add_item);
        if (code != UCI_OK)
            return code;
        if (!what.value || what.option.empty())
            return UCI_ERR_INVAL;
        return store_outcome(*ptr, make(own(*ptr->p), what));
    });
}

int uci_delete(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        auto [code, what] = resolve_change(state, *ptr, change_kind::remove);
        if (code != UCI_OK)
            return code;
        if (!ptr->section)
            return UCI_ERR_INVAL;
        section *at = own(*ptr->p).find(what.section);
        const option *old = at ? at->find(what.option) : nullptr;
        if (old && old->type == UCI_TYPE_LIST && !what.value.value_or("").empty())
            return make(own(*ptr->p), what).code;
        what.value.reset();
        return store_outcome(*ptr, make(own(*ptr->p), what));
    });
}

int uci_save(uci_context *ctx, uci_package *p)
{
    return call(ctx, [&](context &state) -> int {
        if (!p)
            return UCI_ERR_INVAL;
        save(state, own(*p));
        return UCI_OK;
    });
}

int uci_commit(uci_context *ctx, uci_package **p, bool overwrite)
{
    if (!p || !*p)
        return call(ctx, [](context &) { return UCI_ERR_INVAL; });
    if (!ctx)
        return UCI_ERR_INVAL;
    package *at = &own(**p);
    const int code = call(ctx, [&](context &state) -> int {
        commit(state, at, overwrite);
        return UCI_OK;
    });
    *p = at;
    return code;
}

int uci_revert(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) -> int {
        if (!ptr)
            return UCI_ERR_INVAL;
        const auto [code, what] = resolve_change(state, *ptr, change_kind::remove);
        if (code != UCI_OK)
            return code;
        const bool whole = !ptr->section && !ptr->option;
        if (!ptr->p->has_delta || (!whole && what.section.empty()))
            return UCI_ERR_INVAL;
        const std::string section_name{what.section};
        const std::string option_name{what.option};
        package *at = &own(*ptr->p);
        *ptr = {};
        const auto follow = [&] { ptr->p = at; };
        try {
            revert(state, at, section_name, option_name);
        } catch (...) {
            follow();
            throw;
        }
        follow();
        ptr->last = &at->e;
        ptr->package = at->e.name;
        return UCI_OK;
    });
}

int uci_set_confdir(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) -> int {
        if (!dir)
            return UCI_ERR_INVAL;
        state.set_confdir(dir);
        return UCI_OK;
    });
}

int uci_set_savedir(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) -> int {
        if (!dir)
            return UCI_ERR_INVAL;
        state.set_savedir(dir);
        return UCI_OK;
    });
}

int uci_add_delta_path(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) -> int {
        if (!dir)
            return UCI_ERR_INVAL;
        return state.add_directory(dir) ? UCI_OK : UCI_ERR_DUPLICATE;
    });
}

int uci_list_configs(uci_context *ctx, char ***list)
{
    return call(ctx, [&](context &state) -> int {
        if (!list)
            return UCI_ERR_INVAL;
        const auto [anything, names] = package_names(state.confdir);
        if (!anything)
            return UCI_ERR_NOTFOUND;
        *list = to_block(names);
        return UCI_OK;
    });
}
