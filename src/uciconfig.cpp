#include "uciconfig.h"

#include "handles.hpp"
#include "ip_calculation.h"
#include "loaded_package.hpp"
#include "log.hpp"
#include "paths.hpp"
#include "util.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace {

using namespace vandrel;

constexpr char log_module[] = "uciconfig.c";

constexpr char own_section[] = "settings";
constexpr std::size_t text_size = 1023; // a lookup path, or the text in front of libuci's description, and its NUL
constexpr std::size_t feature_command_size = 128; // the script's command line and its NUL
constexpr std::size_t feature_flag_size = 8;      // room for "true" and "false" with a newline

/// The items joined by single spaces; empty ones in front add nothing.
c_string joined_items(const uci_list &items)
{
    const uci_element *item;
    std::size_t room = 1;
    uci_foreach_element (&items, item)
        room += std::strlen(item->name) + 1;
    c_string joined{static_cast<char *>(std::malloc(room))};
    if (!joined)
        return nullptr;
    char *end = joined.get();
    *end = '\0';
    uci_foreach_element (&items, item) {
        if (end != joined.get())
            *end++ = ' ';
        end = stpcpy(end, item->name);
    }
    return joined;
}

/// The option's type as a number, since a value that is no enumerator must not be read as one.
auto type_of(const uci_option &option)
{
    std::underlying_type_t<uci_option_type> type;
    std::memcpy(&type, &option.type, sizeof type);
    return type;
}

/// The option that a lookup path leads to, or null. libuci cuts the path up in place.
const uci_option *find_option(uci_context *ctx, char *path)
{
    uci_ptr found{};
    const bool resolved = uci_lookup_ptr(ctx, &found, path, true) == UCI_OK;
    return resolved && (found.flags & uci_ptr::UCI_LOOKUP_COMPLETE) ? found.o : nullptr;
}

/// The text of an option of either type.
c_string text_of(const uci_option &option)
{
    const auto type = type_of(option);
    if (type != UCI_TYPE_STRING && type != UCI_TYPE_LIST) {
        log_error("config: Unknown option type!");
        return nullptr;
    }
    c_string text = type == UCI_TYPE_STRING ? c_string{strdup(option.v.string)} : joined_items(option.v.list);
    if (!text)
        log_error("config_lookup: Allocating memory failed: %s", std::strerror(errno));
    return text;
}

/// The text at a formatted path, in a context made for this one lookup; null without one.
c_string lookup(const uci_handle &ctx, const char *format, va_list args) __attribute__((format(printf, 2, 0)));
c_string lookup(const uci_handle &ctx, const char *format, va_list args)
{
    char path[text_size];
    if (!ctx || !format || std::vsnprintf(path, sizeof path, format, args) < 0)
        return nullptr;
    const uci_option *option = find_option(ctx.get(), path);
    if (!option || !option->v.string)
        return nullptr;
    return text_of(*option);
}

/// A section by its name; that there is none is logged.
uci_section *find_section(const loaded_package &in, const char *package_name, const char *section_name)
{
    uci_section *found = uci_lookup_section(in.ctx.get(), in.package, section_name);
    if (!found)
        ucierr(in.ctx.get(), "Loading section %s.%s", package_name, section_name);
    return found;
}

/// Loads a package, and a section of it if both its name and its output are given, into the outputs of an exported
/// loader.
int load_into(uci_context **ctx, const char *name, uci_package **package, const char *section_name,
              uci_section **section)
{
    if (ctx)
        *ctx = nullptr;
    if (package)
        *package = nullptr;
    loaded_package loaded = ctx && package ? load_config(name) : loaded_package{};
    if (!loaded) {
        if (section)
            *section = nullptr;
        return -1;
    }
    if (section_name && section) {
        if (uci_section *found = find_section(loaded, name, section_name))
            *section = found;
    }
    *ctx = loaded.ctx.release();
    *package = loaded.package;
    return 0;
}

/// The text of a string option, or null: a list counts as absent.
const char *string_option(uci_context *ctx, uci_section *section, const char *option)
{
    return ctx && section && option ? uci_lookup_option_string(ctx, section, option) : nullptr;
}

/// Writes the package out; tells what failed, or null.
const char *save_and_commit(uci_context *ctx, uci_package *package)
{
    if (uci_save(ctx, package) != UCI_OK)
        return "Save failed";
    return uci_commit(ctx, &package, false) == UCI_OK ? nullptr : "Commit failed";
}

/// Deletes the option, saves and commits; the result is that of the setters.
int delete_setting(const loaded_package &loaded, uci_section *section, const char *option)
{
    if (!section || !uci_lookup_option(loaded.ctx.get(), section, option))
        return 2;
    if (uci_delete_option(section, option, true) != 0)
        return 1;
    return save_and_commit(loaded.ctx.get(), loaded.package) ? 1 : 0;
}

} // namespace

namespace vandrel {

loaded_package load_config(const char *name)
{
    loaded_package loaded{uci_handle{uci_alloc_context()}};
    if (!loaded.ctx) {
        log_error("Failed initializing uci context");
        return {};
    }
    if (uci_load(loaded.ctx.get(), name, &loaded.package) != UCI_OK) {
        ucierr(loaded.ctx.get(), "Failed loading package %s", name);
        return {};
    }
    return loaded;
}

uci_handle new_state_context()
{
    uci_handle ctx{uci_alloc_context()};
    if (!ctx)
        return nullptr;
    uci_add_delta_path(ctx.get(), ctx->savedir); // "duplicate" where libuci has it in the list from the start
    if (uci_set_savedir(ctx.get(), state_directory) != UCI_OK)
        return nullptr; // it would save run-time values where they count as configuration
    return ctx;
}

uci_ptr option_change(uci_section *section, const char *option, const char *value)
{
    uci_ptr change{};
    change.target = UCI_TYPE_OPTION;
    change.p = section->package;
    change.s = section;
    change.option = option;
    change.value = value;
    return change;
}

} // namespace vandrel

char *config_lookup(const char *format, ...)
{
    const uci_handle ctx{uci_alloc_context()};
    if (!ctx)
        log_error("Failed to allocate UCI context");
    va_list args;
    va_start(args, format);
    c_string text = lookup(ctx, format, args);
    va_end(args);
    return text.release();
}

char *config_get_section_setting(const char *package, const char *section, const char *option)
{
    if (!package || !option)
        return nullptr;
    return config_lookup("%s.%s.%s", package, section ? section : own_section, option);
}

char *config_get_setting(const char *option)
{
    return config_get_section_setting(own_package, nullptr, option);
}

int config_get_setting_bool(const char *option)
{
    const c_string text{config_get_setting(option)};
    return safestrcmp(text.get(), "1") == 0;
}

char *state_lookup(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    c_string text = lookup(new_state_context(), format, args);
    va_end(args);
    return text.release();
}

int uci_lookup_option_int(uci_context *ctx, uci_section *section, const char *option)
{
    const char *text = string_option(ctx, section, option);
    return text ? std::atoi(text) : -1;
}

int uci_lookup_option_bool(uci_context *ctx, uci_section *section, const char *option)
{
    return uci_lookup_option_int(ctx, section, option) > 0;
}

uint32_t uci_lookup_option_ip(uci_context *ctx, uci_section *section, const char *option)
{
    const char *text = string_option(ctx, section, option);
    return text ? ip_parse(text) : 0;
}

int config_load(uci_context **ctx, uci_package **package, uci_section **section)
{
    return load_into(ctx, own_package, package, own_section, section);
}

int config_load_network(uci_context **ctx, uci_package **package, const char *section_name, uci_section **section)
{
    return load_into(ctx, network_package, package, section_name, section);
}

void ucierr(uci_context *ctx, const char *format, ...)
{
    char prefix[text_size];
    va_list args;
    va_start(args, format);
    const bool formatted = format && std::vsnprintf(prefix, sizeof prefix, format, args) >= 0;
    va_end(args);
    char *combined = nullptr;
    uci_get_errorstr(ctx, &combined, formatted ? prefix : nullptr);
    const c_string text{combined};
    if (text)
        log_error("%s", text.get());
    else if (formatted)
        log_error("%s", prefix); // no memory for libuci's words
}

uci_section *config_add_section(uci_context *ctx, uci_package *package, const char *type, const char *name)
{
    const bool complete = ctx && package && type && (!name || *name); // libuci crashes on some of these
    if (!name) {
        uci_section *added = nullptr;
        return complete && uci_add_section(ctx, package, type, &added) == UCI_OK ? added : nullptr;
    }
    uci_ptr change{};
    change.target = UCI_TYPE_SECTION;
    change.p = package;
    change.section = name;
    change.value = type;
    if (!complete || uci_set(ctx, &change) != UCI_OK) {
        ucierr(complete ? ctx : nullptr, "Couldn't set section");
        return nullptr;
    }
    return change.s;
}

int config_set_string(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
                      const char *value, bool commit)
{
    if (!ctx || !section || !option || !value) {
        log_error("missing some arguments");
        return 1;
    }
    if (!commit && safestrcmp(uci_lookup_option_string(ctx, section, option), value) == 0)
        return 2;
    uci_ptr change = option_change(section, option, value);
    if (uci_set(ctx, &change) != UCI_OK) {
        log_error("Failed setting %s", option);
        log_error("failed");
        return 1;
    }
    if (!commit)
        return 0;
    if (const char *failure = save_and_commit(ctx, package)) {
        ucierr(ctx, "%s", failure);
        log_error("failed");
        return 1;
    }
    return 0;
}

int uci_set_section_option(uci_context *ctx, uci_package *package, const char *section_type, const char *key_option,
                           const char *key_value, const char *option, const char *value, bool commit)
{
    if (!package || !section_type || !key_option || !key_value || !option || !value)
        return 1;
    uci_element *element;
    uci_foreach_element (&package->sections, element) {
        uci_section *section = uci_to_section(element);
        if (std::strcmp(section->type, section_type) == 0 &&
            safestrcmp(string_option(ctx, section, key_option), key_value) == 0)
            return config_set_string(ctx, package, section, option, value, commit);
    }
    return 1;
}

int uci_delete_option(uci_section *section, const char *option, bool report_errors)
{
    uci_context *ctx = nullptr;
    if (section && option) { // without an option libuci would delete the section
        ctx = section->package->ctx;
        uci_ptr change = option_change(section, option, nullptr);
        if (uci_delete(ctx, &change) == UCI_OK)
            return 0;
    }
    if (!report_errors)
        return 0;
    ucierr(ctx, "%s", option ? option : "");
    return -1;
}

int config_set_section_setting_string(const char *package, const char *section, const char *option, const char *value)
{
    if (!package || !option) {
        log_error("Invalid input to config_set_config_setting_string()");
        return 1;
    }
    if (!section)
        section = own_section;
    const loaded_package loaded = load_config(package);
    if (!loaded) {
        log_error("loading %s.%s failed", package, section);
        return 1;
    }
    uci_section *found = find_section(loaded, package, section);
    return value ? config_set_string(loaded.ctx.get(), loaded.package, found, option, value, true)
                 : delete_setting(loaded, found, option);
}

int config_set_vandrel_setting_string(const char *option, const char *value)
{
    return config_set_section_setting_string(own_package, nullptr, option, value);
}

int config_get_feature_string(char *output, size_t output_size, const char *feature, const char *scope)
{
    if (!feature)
        return -1;
    char command[feature_command_size];
    std::snprintf(command, sizeof command, feature_command_format, scope ? scope : "system", feature);
    return vd_run_command_simple(command, output, output_size);
}

int config_get_feature_bool(const char *feature, const char *scope)
{
    char answer[feature_flag_size] = "";
    const int result = config_get_feature_string(answer, sizeof answer, feature, scope);
    if (result != 0)
        log_error("config_get_feature_string() failed with value %d", result);
    return std::strncmp(answer, "true", 4) == 0;
}

int config_get_peer_type(const char *common_name)
{
    if (!common_name) {
        log_error("Missing common name");
        return PEER_TYPE_UNKNOWN;
    }
    return vpn_type_get_by_common_name(common_name);
}
