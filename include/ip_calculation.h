/**
 * IPv4 addresses, netmasks and networks.
 *
 * An address or netmask is a uint32_t in host order whose most significant byte is the first octet: 192.168.1.1 is
 * 0xC0A80101, so &, | and comparisons work on it as it is. 0 stands for no address. A text is whatever the C library's
 * inet_addr and inet_aton take: one to four parts, each decimal, octal (after a 0) or hexadecimal (after 0x). A buffer
 * for a text has at least 16 bytes.
 *
 * Nothing here allocates memory. Only ip_format_s keeps state; all others may be called from any thread.
 */
#ifndef VANDREL_IP_CALCULATION_H
#define VANDREL_IP_CALCULATION_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Returns the address of a text; 0 for NULL; 0xFFFFFFFF, as for "255.255.255.255", when text is no address. Silent. */
uint32_t ip_parse(const char *text);

/** Does what ip_parse does and then free()s text, whatever it held. */
uint32_t ip_parse_free(char *text);

/**
 * Parses a text and, other than ip_parse, tells 255.255.255.255 from a text that is no address.
 *
 * Returns 1, with the address in *ip; 0, with 0 in *ip, when text is NULL or no address; 0 when ip is NULL. Silent.
 */
int ip_parse_p(uint32_t *ip, const char *text);

/**
 * Parses a netmask, given as a prefix length ("24") or in dotted form ("255.255.255.0"); length alone decides which.
 *
 * length  the length of text: 1 or 2 for a prefix length, 7 to 15 for the dotted form.
 *
 * Returns the netmask; 0 for a prefix length outside 1 to 32, any other length and NULL; what ip_parse gives for a
 * dotted form, which may have gaps between its one bits. Silent.
 */
uint32_t ip_uint32_netmask_from_str(const char *text, size_t length);

/**
 * Tells whether an address lies in a network, as ip_in_network does, all three given as texts.
 *
 * A text that is no address counts as 255.255.255.255. Returns 1 or 0; 0 when an argument is NULL. Silent.
 */
int ip_in_network_str(const char *ip, const char *network, const char *netmask);

/** Writes the dotted text of ip, with its NUL, into buffer. Returns 1, or 0 when buffer is NULL. */
int ip_format(char *buffer, uint32_t ip);

/**
 * Returns the dotted text of ip, borrowed until the next call anywhere in the process: it is the same buffer every
 * time, so two calls in one expression show one text.
 */
char *ip_format_s(uint32_t ip);

/**
 * Checks an address text and writes the same address in its usual form: "10.0.0.1" for "10.1".
 *
 * Returns 0; -1 when an argument is NULL (dst is left as it was), and when src is no address, 0.0.0.0 or
 * 255.255.255.255 (dst is then empty). Both are logged. dst must not overlap src.
 */
int ip_safe(const char *src, char *dst);

/** Returns the netmask with prefix_length leading one bits; 0 for 0 and for more than 32. */
uint32_t ip_netmask(unsigned int prefix_length);

/** Stores the first and the last address of the network of ip, each unless its pointer is NULL. Returns 1. */
int ip_get_network(uint32_t ip, uint32_t mask, uint32_t *network, uint32_t *last);

/** Returns the last address of the network of ip, its broadcast address. */
uint32_t ip_last_ip_from_netmask(uint32_t ip, uint32_t mask);

/** Returns 1 when ip and net agree in every bit of mask, else 0; net may be any address of the network. */
int ip_in_network(uint32_t ip, uint32_t net, uint32_t mask);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
