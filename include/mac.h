/**
 * Ethernet MAC addresses in their three forms.
 *
 * Bytes are an array of 6 in the order of transmission. Text is six pairs of hexadecimal digits between colons, 17
 * characters; a buffer for it has at least 18 bytes. A packed value is a uint64_t with the address in its low 48 bits,
 * the first byte highest, so that packed values order as texts do. Six zero bytes are the null MAC.
 *
 * Nothing here keeps state or allocates memory; every function may be called from any thread.
 */
#ifndef VANDREL_MAC_H
#define VANDREL_MAC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Parses a MAC text, with digits of either case.
 *
 * out  receives 6 bytes. NULL gives 0.
 * str  NULL stands for the null MAC.
 *
 * Returns 1; 0 when str has not exactly 17 characters (out is left as it was) or is no MAC (bytes before the fault may
 * be in out). Silent. It is lenient inside the 17 characters: sscanf's "%hhx" reads each pair, which takes blanks,
 * signs and more or fewer digits too.
 */
int mac_to_bytes_network(uint8_t *out, const char *str);

/** Writes the text of mac, in lower case, into dst. Returns 1, or 0 when an argument is NULL. */
int mac_bytes_to_mac(char *dst, const uint8_t *mac);

/** Returns the packed value of mac; 0, the null MAC's, for NULL. */
uint64_t mac_bytes_to_long(const uint8_t *mac);

/** Returns 1 for the null MAC and for NULL, else 0. */
int mac_is_null(const uint8_t *mac);

/** Returns 1 when both are the same MAC, else 0. NULL counts as the null MAC. */
int mac_equals(const uint8_t *a, const uint8_t *b);

/**
 * Tells whether a MAC text is that of a temporary address: one that begins with 00:ff, or one that is administered
 * locally and of a single station (second digit 2, 6, a or e).
 *
 * Only those digits are looked at, and letters only in lower case: "0A:…" is not temporary.
 *
 * Returns 1 or 0; 1 for a text of less than 17 characters and for NULL (logged).
 */
int mac_is_temporary(const char *mac);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
