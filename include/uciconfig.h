/**
 * Configuration: values of the UCI packages under /etc/config, read and written through libuci.
 *
 * Lookups by path give a new string, which the caller free()s, or NULL. Loaders give 0 or -1. The setters that take a
 * value give 0 written, 1 failed, 2 nothing to do. Failures are logged unless an entry says silent.
 *
 * A plain context sees a package's file and the saved, uncommitted changes in /tmp/.uci. Setting, adding and deleting
 * change only the package in memory; uci_save writes the change file in /tmp/.uci, uci_commit the file in /etc/config.
 *
 * There is no module state and no cache: two calls around a commit see different values. Calls on different contexts
 * may run on different threads; a context, with the packages and sections it holds, is used by one thread at a time.
 */
#ifndef VANDREL_UCICONFIG_H
#define VANDREL_UCICONFIG_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct uci_context; /* libuci's objects; <uci.h> has them */
struct uci_package;
struct uci_section;

/**
 * Looks up one option and returns its text.
 *
 * format  printf format of "package.section.option"; the section may be "@type[index]", as in
 *         "network.@interface[0].proto". The path is cut after 1022 characters. An argument from outside with '.', '=',
 *         '@' or '/' in it changes what is looked up.
 *
 * Returns a new string: the option's text, or a list option's items joined by single spaces (empty items in front add
 * nothing). NULL when no option has that path, which is silent for whatever reason (a broken package, a malformed
 * path, a NULL format); when the option is neither text nor list; or when memory runs out.
 */
char *config_lookup(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * config_lookup of package, section and option; a NULL section is "settings". A NULL package or option gives NULL,
 * silent.
 */
char *config_get_section_setting(const char *package, const char *section, const char *option);

/** config_lookup of an option of the library's own section, "vandrel.settings". */
char *config_get_setting(const char *option);

/** 1 when config_get_setting gives exactly the text "1", else 0. */
int config_get_setting_bool(const char *option);

/**
 * config_lookup that also sees the run-time values in /var/state, which win over saved changes, which win over the
 * file. No context for lack of memory: NULL, silent.
 */
char *state_lookup(const char *format, ...) __attribute__((format(printf, 1, 2)));

/**
 * An option of a section as a number, read by atoi: "12abc" is 12, "abc" is 0.
 *
 * -1 when the section has no string option of that name (a list does not count, nor does anything NULL), so a
 * configured "-1" looks the same. Silent, and allocates nothing, like the two below.
 */
int uci_lookup_option_int(struct uci_context *ctx, struct uci_section *section, const char *option);

/** 1 when uci_lookup_option_int gives more than 0, else 0: "1" and "7x" are true, "yes", "true" and "on" are not. */
int uci_lookup_option_bool(struct uci_context *ctx, struct uci_section *section, const char *option);

/** An option of a section as an IPv4 value: 0 when there is no string option, 0xFFFFFFFF when it does not parse. */
uint32_t uci_lookup_option_ip(struct uci_context *ctx, struct uci_section *section, const char *option);

/**
 * Loads the package "vandrel" and finds its section "settings".
 *
 * ctx      set to a new context, which the caller gives to uci_free_context.
 * package  set to the package, borrowed until the context is freed or the package is committed.
 * section  set to the section, borrowed likewise; NULL when it is not wanted.
 *
 * Returns 0, and so it does when only the section is missing: then that is logged and *section is left as it was, so
 * set it to NULL before. Otherwise -1 with all outputs set to NULL. A NULL ctx or package gives -1, silent.
 */
int config_load(struct uci_context **ctx, struct uci_package **package, struct uci_section **section);

/** Loads the package "network" as config_load does; a NULL section_name looks for none and leaves *section alone. */
int config_load_network(struct uci_context **ctx, struct uci_package **package, const char *section_name,
                        struct uci_section **section);

/**
 * Logs libuci's description of the context's last error, with the formatted text and ": " in front.
 *
 * format  printf format of the text, which is cut after 1022 characters. A NULL format puts nothing in front.
 *
 * A NULL ctx is described as an invalid argument.
 */
void ucierr(struct uci_context *ctx, const char *format, ...) __attribute__((format(printf, 2, 3)));

/**
 * Adds a section to a package in memory.
 *
 * type  the section's type: printable ASCII characters without blanks, quotes, '#', ';' and '\'. libuci checks
 *       little of that and writes the type as it stands; then nobody can read the package again. So it must never
 *       come from outside. An empty one with a name is libuci's way to delete that section; the result is NULL.
 * name  the name of a section that is made, or is given this type if it is there; NULL adds an anonymous one. It
 *       must match [A-Za-z0-9_]+ and never come from outside: others can write to other options and sections.
 *
 * Returns the section, borrowed like the package. NULL on failure, an empty name or anything else NULL included; silent
 * for an anonymous section.
 */
struct uci_section *config_add_section(struct uci_context *ctx, struct uci_package *package, const char *type,
                                       const char *name);

/**
 * Sets a string option of a section; a list of that name is replaced.
 *
 * package  the section's package; looked at only to commit.
 * option   must match [A-Za-z0-9_]+ and never come from outside: others can write to other options and sections.
 * value    the text; libuci deletes the option for an empty one.
 * commit   false: changes the package in memory, and gives 2 when the value is there already. true: sets, saves and
 *          commits even an unchanged value; after a 0 or a failure, package and section are stale and only the context
 *          is still good.
 *
 * Returns 0, 1 (ctx, section, option or value NULL included) or 2.
 */
int config_set_string(struct uci_context *ctx, struct uci_package *package, struct uci_section *section,
                      const char *option, const char *value, bool commit);

/**
 * Sets an option, as config_set_string does, in the first section of section_type whose string option key_option is
 * key_value.
 *
 * Returns the result of config_set_string; 1, silent, when there is no such section or anything is NULL.
 */
int uci_set_section_option(struct uci_context *ctx, struct uci_package *package, const char *section_type,
                           const char *key_option, const char *key_value, const char *option, const char *value,
                           bool commit);

/**
 * Deletes an option, string or list, from a section in memory.
 *
 * report_errors  false: a failure is silent and gives 0, as success does.
 *
 * Returns 0, or -1 on failure; an option that is not there and NULL are failures.
 */
int uci_delete_option(struct uci_section *section, const char *option, bool report_errors);

/**
 * Sets or deletes one option in one go: loads the package, changes the option, saves and commits.
 *
 * section  NULL is "settings". The section must exist.
 * option   must match [A-Za-z0-9_]+ and never come from outside: others can write to other options and sections.
 * value    the text, as in config_set_string; NULL deletes the option.
 *
 * Returns 0 written; 1 failed, a NULL package or option included, and silent when a deletion can't be saved or
 * committed; 2 when there is nothing to delete.
 */
int config_set_section_setting_string(const char *package, const char *section, const char *option, const char *value);

/** config_set_section_setting_string for the library's own section, "vandrel.settings". */
int config_set_vandrel_setting_string(const char *option, const char *value);

/**
 * Asks the device's feature script, /usr/share/vandrel/vd_features.lua, about one feature. Nothing is cached: every
 * call runs the script and waits for its end.
 *
 * Both names become part of a shell command line as they are, unquoted, so they must never come from outside the
 * device. The whole line is cut after 127 characters.
 *
 * output       receives the answer: what the script prints, a newline at the end too, cut to output_size - 1 bytes, and
 *              a NUL.
 * output_size  room in output, in bytes.
 * feature      the script's second argument.
 * scope        the script's first argument; NULL stands for "system".
 *
 * Returns -1, with nothing run and output left as it was, when feature is NULL; else what vd_run_command_simple returns
 * for the command line: 0 for a whole answer of a script that exited with status 0. A script that fails still leaves
 * its answer in output. Silent.
 */
int config_get_feature_string(char *output, size_t output_size, const char *feature, const char *scope);

/**
 * Asks the feature script as config_get_feature_string does and reads its answer as a flag.
 *
 * Returns 1 when the answer begins with "true", else 0. Any result of config_get_feature_string but 0 is logged, a NULL
 * feature and an answer of more than 7 bytes too; what was read of the answer decides all the same.
 */
int config_get_feature_bool(const char *feature, const char *scope);

/** Returns the peer type (util.h) of a common name; PEER_TYPE_UNKNOWN for NULL (logged). */
int config_get_peer_type(const char *common_name);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
