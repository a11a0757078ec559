/**
 * Names of network devices and switch ports.
 *
 * The kernel knows Ethernet devices ("eth0", for a VLAN of a switch "eth0.1"); daemons and the management side speak of
 * ports ("lan1", "lan2"), named after the section of the package "network" that a device belongs to. Nothing is kept
 * between calls; each function may be used from several threads, a package by one thread at a time.
 */
#ifndef VANDREL_NETUTIL_H
#define VANDREL_NETUTIL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

struct uci_package;

typedef struct netutil_ifname_parts {
    char prefix[4]; /* the letters that the name begins with: "eth", "lan", "" */
    int32_t number; /* the number behind them */
    int32_t vlan;   /* the number behind the first "."; -1: the name has none */
} netutil_ifname_parts;

/**
 * Takes a port name such as "lan1" or "lan2.10" apart.
 *
 * parts     left as it was on failure.
 * portname  at most 15 characters: up to three ASCII letters, a number from 0 to 9999, and optionally "." and a VLAN
 *           number from 0 to 4095. The numbers are read as strtonum reads them.
 *
 * Returns 1, or 0 when an argument is NULL or the name is no such name (logged as error).
 */
int netutil_parse_portname(netutil_ifname_parts *parts, const char *portname);

/**
 * Copies the first name of a device list, as the option "ifname" of a network section holds one.
 *
 * dst   gets the text up to the first space; cut to size - 1 characters. Empty when the list begins with a space.
 * list  names separated by spaces; no other character separates.
 *
 * Returns 0, or -1 when dst or list is NULL or size is 0 (logged as error; dst is left as it was).
 */
int netutil_copy_first_ifname(char *dst, const char *list, size_t size);

/**
 * Gives the port name of an Ethernet device: the name of the first section of the package whose "ifname" begins with
 * this device, "lan1" for the section "lan".
 *
 * dst      gets the port name; cut to size - 1 characters. On failure it is empty, or left as it was when an argument
 *          is NULL or the device name has more than 15 characters. With size 0 it is never written.
 * ifname   the whole device name: "eth0.1" is found only under "eth0.1". A section's device is compared by its first
 *          13 characters.
 * network  the package "network", from config_load_network. All its sections count, whatever their type; each one
 *          without a text option "ifname" that comes before the match logs "missing arguments".
 *
 * Returns 1, or 0 when an argument is NULL, the name is not "eth" with a number from 0 to 9999 and optionally a VLAN
 * (logged as error), no section has the device first, or the first that has it has a name of more than 13 characters
 * (logged as warning): a port name that had to be cut might be another port's.
 */
int netutil_ifname_to_portname(char *dst, size_t size, const char *ifname, struct uci_package *network);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
