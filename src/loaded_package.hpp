// Packages of the configuration, each with the context that it was loaded in, and what their readers and writers share.
#pragma once

#include "handles.hpp"

#include <uci.h>

namespace vandrel {

inline constexpr char own_package[] = "vandrel", network_package[] = "network";

/// A package, borrowed from its context, which goes with this; neither is there when it could not be loaded.
struct loaded_package {
    uci_handle ctx;
    uci_package *package = nullptr;

    explicit operator bool() const noexcept { return package != nullptr; }
};

/// Loads a package of the configuration; a failure is logged.
loaded_package load_config(const char *name);

/// Loads a package with its run-time values; a failure is logged, but silent when there is no memory for a context.
loaded_package load_state(const char *name);

/// A context that also reads the run-time values and saves there, or null.
uci_handle new_state_context();

/// How libuci is told of an option to set or, with a null value, to delete.
uci_ptr option_change(uci_section *section, const char *option, const char *value);

} // namespace vandrel
