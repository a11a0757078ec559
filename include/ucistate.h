/**
 * Run-time state: values that are set while the device runs and vanish when it restarts, kept as UCI changes in
 * /var/state. (uciconfig.h has state_lookup, which reads one.)
 *
 * A package loaded here is the file in /etc/config with the saved changes of /tmp/.uci and then the run-time values
 * applied. uci_save writes what was set to /var/state; uci_commit would write the run-time values into the file.
 *
 * There is no module state; a context, with the packages and sections it holds, is used by one thread at a time.
 */
#ifndef VANDREL_UCISTATE_H
#define VANDREL_UCISTATE_H

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct uci_context; /* libuci's objects; <uci.h> has them */
struct uci_package;
struct uci_section;

/**
 * Sets an option of a section in memory; uci_save of its package then writes it to /var/state.
 *
 * section  a section of a package that state_load_vandrel or state_load_network gave.
 * option   must match [A-Za-z0-9_]+ and never come from outside: others can write to other options and sections.
 * format   printf format of the value, which is cut after 1023 characters; libuci deletes the option for an empty one.
 *
 * Returns 0, or libuci's error code; UCI_ERR_INVAL for anything NULL. Silent.
 */
int state_set_option(struct uci_section *section, const char *option, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/**
 * Loads the package "vandrel" with its run-time values.
 *
 * ctx      set to a new context, which the caller gives to uci_free_context.
 * package  set to the package, borrowed until the context is freed or the package is committed.
 *
 * Returns 0, or -1 with the outputs left as they were: logged when the package can't be loaded, silent when there is no
 * memory for a context or an argument is NULL.
 */
int state_load_vandrel(struct uci_context **ctx, struct uci_package **package);

/** Loads the package "network" as state_load_vandrel does. */
int state_load_network(struct uci_context **ctx, struct uci_package **package);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
