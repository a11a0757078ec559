/**
 * What the device knows of its networks: interface addresses, the default route, its LANs.
 *
 * Unless an entry says otherwise, a function returns 1 for success or yes and 0 for failure or no. Addresses and
 * netmasks are IPv4 values in host order (0xC0A80101 is 192.168.1.1). The one thing kept between calls are the names of
 * netinfo_get_my_lan_ip. Every function may be used from several threads.
 */
#ifndef VANDREL_NETINFO_H
#define VANDREL_NETINFO_H

#include "netmap.h"

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef struct netinfo_lan {
    char name[16];        /* the section of the package "network": "lan", "lan2" */
    char ifname[16];      /* its bridge: "br-lan" */
    char phys_ifname[14]; /* the first device of the bridge: "eth0.1"; "" when it has none */
    char portname[14];    /* that device's port name: "lan1"; "" when it has none */
    uint32_t ip;          /* 0: unknown */
    uint32_t netmask;     /* 0: unknown */
} netinfo_lan;

enum {
    NETINFO_BEARER_UNKNOWN,
    NETINFO_BEARER_ETHERNET, /* "br-wan", "br-lan...", "eth..." */
    NETINFO_BEARER_MOBILE    /* "3g-wan3", "wwan..." */
};

/**
 * Asks the kernel for an interface's IPv4 address and netmask.
 *
 * lan     only ip and netmask are written; when the address is known and the netmask is not, ip alone.
 * ifname  cut to 15 characters for the question.
 *
 * Returns 0 when the kernel does not say (logged as warning) or an argument is NULL (silent).
 */
int netinfo_get_if_info(netinfo_lan *lan, const char *ifname);

/**
 * Finds the default route: the first one with a gateway among the first five routes of /proc/net/route.
 *
 * ifname   at least 16 bytes, or NULL. Empty when the table names an interface of more than 15 characters, which no
 *          kernel does.
 * gateway  may be NULL. 0 when the table has no number there (logged as warning). The kernel prints the four bytes of
 *          the address as one number of its own byte order; that is undone, on machines of either order.
 *
 * Returns 0 when there is none, the table cannot be read, or both outputs are NULL (all silent); the outputs are then
 * left as they were. A line of more than 128 characters counts as several.
 */
int netinfo_get_default_route(char *ifname, uint32_t *gateway);

/**
 * Tells by the interface of the default route what kind of uplink the device has.
 *
 * Returns a NETINFO_BEARER value; NETINFO_BEARER_UNKNOWN also without a default route (logged as warning).
 */
int netinfo_get_bearer_type(void);

/**
 * Gives the network of a LAN, as others see it when a mapping table is given.
 *
 * netmask  may be NULL; gets the LAN's own netmask.
 * table    from netmap_load, or NULL.
 * lan      its ip and netmask are used.
 *
 * Returns 0 when ip or netmask is 0 (logged as warning), or lan or network is NULL (silent); the outputs are then left
 * as they were.
 */
int netinfo_get_route(uint32_t *network, uint32_t *netmask, const netmap_entry *table, const netinfo_lan *lan);

/** The first of count LANs with this port name, borrowed from the array, or NULL; any argument may be NULL or 0. */
netinfo_lan *netinfo_find_by_portname(netinfo_lan *lans, int count, const char *portname);

/** The same by bridge ("br-lan"). */
netinfo_lan *netinfo_find_by_ifname(netinfo_lan *lans, int count, const char *ifname);

/**
 * Lists the LANs: the "interface" sections of the package "network" whose "type" is "bridge" and whose name does not
 * begin with "wan", in package order.
 *
 * A LAN's address is what the kernel says of its bridge, and where it says nothing (logged as warning) what "ipaddr"
 * and "netmask" say, read as by ip_parse. With "proto" "none" neither is asked, and only the two names are filled.
 * Names are cut to their fields.
 *
 * lans   gets a new array, which the caller free()s, or NULL when there is no LAN.
 * count  gets the number of its records.
 *
 * Returns 0 when the package cannot be loaded (logged), memory runs out, or an argument is NULL; the outputs are then
 * left as they were. Each call logs "netinfo_get_lans" at info priority.
 */
int netinfo_get_lans(netinfo_lan **lans, int *count);

/**
 * Writes the device's own LAN address as text.
 *
 * The names in the setting "lan_networks", at most the first five, are tried in order; without that setting "br-lan",
 * then "eth0". The first interface that exists and has an address gives it. Once the setting has given a name, it is
 * never read again by this process; unset, or without a name, it is read by each call.
 *
 * buffer  at least 16 bytes; left as it was on failure. With NULL nothing is found.
 */
int netinfo_get_my_lan_ip(char *buffer);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
