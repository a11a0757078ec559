// The functions of uci.h: the checks of what a C caller gives, and the end of every exception.
#include "uci.h"

#include "change.hpp"
#include "listing.hpp"
#include "lookup.hpp"
#include "model.hpp"
#include "store.hpp"
#include "text.hpp"

#include <cstdio>
#include <cstdlib>

using namespace libuci;

namespace {

/// Runs the body of a function; how it ends becomes the context's error state and the result.
template <typename Body> int call(uci_context *ctx, Body &&body) noexcept
{
    if (!ctx)
        return UCI_ERR_INVAL;
    context &state = own(*ctx);
    state.error = UCI_OK;
    state.details.reset();
    try {
        body(state);
    } catch (const parse_failure &failed) {
        state.details = failed;
        state.error = failed.code;
    } catch (const failure &failed) {
        state.error = failed.code;
    } catch (...) { // bad_alloc
        state.error = UCI_ERR_MEM;
    }
    return state.error;
}

/// Makes a change; the ptr then leads to what was set.
void make_and_tell(uci_ptr &ptr, const change &what)
{
    const outcome made = make(own(*ptr.p), what);
    ptr.s = made.s;
    ptr.o = made.o;
}

/// What uci_set may be asked for.
void require_settable(const uci_ptr &ptr, const change &what)
{
    require(what.value.has_value());
    require(!what.section.empty());
    // a section that was looked for by its index can't be created: the index is no name
    require(ptr.s || !(ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED));
    // the real library writes a type as it stands, and then can't read the package
    require(!what.option.empty() || what.value->empty() || is_plain_type(*what.value));
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
    char *text = ctx ? error_text(own(*ctx).error, own(*ctx).details, prefix) : error_text(UCI_ERR_INVAL, {}, prefix);
    if (dest) {
        *dest = text;
        return;
    }
    if (text)
        std::fprintf(stderr, "%s\n", text);
    std::free(text);
}

int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    return call(ctx, [&](context &state) {
        require(name);
        uci_package &loaded = load(state, name);
        if (package)
            *package = &loaded;
    });
}

int uci_unload(uci_context *ctx, uci_package *p)
{
    return call(ctx, [&](context &) {
        require(p);
        unlink(p->e);
        delete &own(*p);
    });
}

int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended)
{
    return call(ctx, [&](context &state) {
        require(ptr);
        if (str)
            parse_path(*ptr, str);
        resolve(state, *ptr, extended);
    });
}

int uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name)
{
    return call(ctx, [&](context &) {
        require(e);
        *e = nullptr;
        require(list && name);
        *e = find_element(*list, name);
        if (!*e)
            throw failure{UCI_ERR_NOTFOUND};
    });
}

int uci_set(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) {
        require(ptr);
        const change what = resolve_change(state, *ptr, change_kind::set);
        require_settable(*ptr, what);
        make_and_tell(*ptr, what);
    });
}

int uci_add_section(uci_context *ctx, uci_package *p, const char *type, uci_section **res)
{
    return call(ctx, [&](context &) {
        require(p && type && res);
        require(is_plain_type(type));
        const std::string name = own(*p).next_name(type);
        *res = make(own(*p), {change_kind::add, name, {}, type}).s;
    });
}

int uci_add_list(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) {
        require(ptr);
        const change what = resolve_change(state, *ptr, change_kind::add_item);
        require(what.value.has_value());
        require(!what.option.empty());
        make_and_tell(*ptr, what);
    });
}

int uci_delete(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) {
        require(ptr);
        change what = resolve_change(state, *ptr, change_kind::remove);
        require(ptr->section);
        if (names_item(own(*ptr->p), what)) {
            make(own(*ptr->p), what);
            return;
        }
        what.value.reset();
        make_and_tell(*ptr, what);
    });
}

int uci_save(uci_context *ctx, uci_package *p)
{
    return call(ctx, [&](context &state) {
        require(p);
        save(state, own(*p));
    });
}

int uci_commit(uci_context *ctx, uci_package **p, bool overwrite)
{
    return call(ctx, [&](context &state) {
        require(p && *p);
        commit(state, *p, overwrite);
    });
}

int uci_revert(uci_context *ctx, uci_ptr *ptr)
{
    return call(ctx, [&](context &state) {
        require(ptr);
        const change what = resolve_change(state, *ptr, change_kind::remove);
        const bool is_whole = !ptr->section && !ptr->option;
        require(ptr->p->has_delta);
        require(is_whole || !what.section.empty());
        const std::string section_name{what.section}; // which may lie in the package that goes
        const std::string option_name{what.option};
        uci_package *package = ptr->p;
        *ptr = {};
        ptr->p = package;
        revert(state, ptr->p, section_name, option_name);
        ptr->last = &ptr->p->e;
        ptr->package = ptr->p->e.name;
    });
}

int uci_set_confdir(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) {
        require(dir);
        state.set_confdir(dir);
    });
}

int uci_set_savedir(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) {
        require(dir);
        state.set_savedir(dir);
    });
}

int uci_add_delta_path(uci_context *ctx, const char *dir)
{
    return call(ctx, [&](context &state) {
        require(dir);
        if (!state.add_directory(dir))
            throw failure{UCI_ERR_DUPLICATE};
    });
}

int uci_list_configs(uci_context *ctx, char ***list)
{
    return call(ctx, [&](context &state) {
        require(list);
        *list = to_block(package_names(state.confdir));
    });
}
