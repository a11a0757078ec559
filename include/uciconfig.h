/**
 * The configuration store: feature flags and the kind of peer that a configured name stands for.
 *
 * Nothing here keeps state.
 */
#ifndef VANDREL_UCICONFIG_H
#define VANDREL_UCICONFIG_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

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
