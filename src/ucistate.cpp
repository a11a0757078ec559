#include "ucistate.h"

#include "handles.hpp"
#include "log.hpp"
#include "uciconfig.h"
#include "uciconfig.hpp"

#include <cstdarg>
#include <cstdio>

namespace {

using namespace vandrel;

constexpr char log_module[] = "ucistate.c";

constexpr std::size_t value_size = 1024;

int state_load_package(uci_context **ctx, uci_package **package, const char *name)
{
    uci_handle loading = ctx && package ? new_state_context() : nullptr;
    if (!loading)
        return -1;
    if (uci_load(loading.get(), name, package) != UCI_OK) {
        log_error("Error loading state package %s", name);
        ucierr(loading.get(), "uci_load: "); // libuci adds a colon of its own
        return -1;
    }
    *ctx = loading.release();
    return 0;
}

} // namespace

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
    return state_load_package(ctx, package, own_package);
}

int state_load_network(uci_context **ctx, uci_package **package)
{
    return state_load_package(ctx, package, network_package);
}
