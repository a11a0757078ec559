#include "ucistate.h"

#include "loaded_package.hpp"
#include "log.hpp"
#include "uciconfig.h"

#include <cstdarg>
#include <cstdio>

namespace {

using namespace vandrel;

constexpr char log_module[] = "ucistate.c";

constexpr std::size_t value_size = 1024;

/// Loads a package into the outputs of an exported loader.
int load_into(uci_context **ctx, uci_package **package, const char *name)
{
    if (!ctx || !package)
        return -1;
    loaded_package loaded = load_state(name);
    if (!loaded)
        return -1;
    *ctx = loaded.ctx.release();
    *package = loaded.package;
    return 0;
}

} // namespace

namespace vandrel {

loaded_package load_state(const char *name)
{
    loaded_package loaded{new_state_context()};
    if (!loaded.ctx)
        return {};
    if (uci_load(loaded.ctx.get(), name, &loaded.package) != UCI_OK) {
        log_error("Error loading state package %s", name);
        ucierr(loaded.ctx.get(), "uci_load: "); // libuci adds a colon of its own
        return {};
    }
    return loaded;
}

} // namespace vandrel

int state_set_option(uci_section *section, const char *option, const char *format, ...)
{
    if (!section || !option || !format)
        return UCI_ERR_INVAL;
    char value[value_size];
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(value, sizeof value, format, args);
    va_end(args);
    if (length < 0)
        return UCI_ERR_INVAL;
    uci_ptr change = option_change(section, option, value);
    return uci_set(section->package->ctx, &change);
}

int state_load_vandrel(uci_context **ctx, uci_package **package)
{
    return load_into(ctx, package, own_package);
}

int state_load_network(uci_context **ctx, uci_package **package)
{
    return load_into(ctx, package, network_package);
}
