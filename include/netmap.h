/**
 * Mapped networks: a LAN whose addresses appear elsewhere under those of a second network, host part unchanged.
 *
 * Addresses and netmasks are IPv4 values in host order (0xC0A80101 is 192.168.1.1). Nothing is kept between calls;
 * each function may be used from several threads, a UCI context by one thread at a time.
 */
#ifndef VANDREL_NETMAP_H
#define VANDREL_NETMAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct uci_context;
struct uci_section;

/** One rule. A table is an array of rules that ends with a rule whose network is 0. */
typedef struct netmap_entry {
    uint32_t network;        /* the LAN's network address, host bits 0 */
    uint32_t mapped_network; /* the network that it appears as, host bits 0 */
    uint32_t netmask;        /* of both */
} netmap_entry;

/**
 * Translates an address by the first rule whose network holds it.
 *
 * table  NULL is an empty table.
 *
 * Returns the address with its network bits replaced, or unchanged when no rule holds it. Silent.
 */
uint32_t netmap_translate(const netmap_entry *table, uint32_t ip);

/**
 * Builds the table from the package "network" together with its run-time state.
 *
 * An "interface" section makes a rule when "netmap" is a number above 0 and "ipaddr", "netmask" and "netmapaddr" are
 * addresses of at least 7 characters whose network is not 0; other sections are passed over silently.
 *
 * Returns a new table in package order, which the caller free()s; it may be empty. NULL when the state cannot be loaded
 * (logged) or memory runs out. Each call logs "state_load_network" at info priority.
 */
netmap_entry *netmap_load(void);

/**
 * Writes an interface's own address as others see it: the configured one, or its counterpart in the mapped network.
 *
 * buffer   at least 16 bytes; left as it was on failure. Without mapping it gets the text of "ipaddr" as it stands, cut
 *          to 15 characters.
 * ctx      the context that the section was loaded in.
 * section  an "interface" section of the package "network".
 *
 * Returns buffer, or NULL when an option that is needed is missing, shorter than 7 characters or no address (logged as
 * warning), or when an argument is NULL (silent).
 */
char *get_network_ip(char *buffer, struct uci_context *ctx, struct uci_section *section);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
