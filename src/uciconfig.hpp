// What uciconfig shares with ucistate.
#pragma once

#include "handles.hpp"

#include <cstdarg>

#include <uci.h>

namespace vandrel {

inline constexpr char own_package[] = "vandrel", network_package[] = "network";

/// The text of the option at the formatted path, as config_lookup gives it.
c_string config_vlookup(uci_context *ctx, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

/// Loads a package and finds one of its sections, as config_load does for its own.
int config_load_package(uci_context **ctx, const char *package_name, uci_package **package, const char *section_name,
                        uci_section **section);

/// A context that also reads the run-time values and saves there, or null.
uci_handle new_state_context();

/// How libuci is told of an option to set or, with a null value, to delete.
uci_ptr option_change(uci_section *section, const char *option, const char *value);

} // namespace vandrel
