/**
 * Access zones: who may reach what, as the zone file /etc/vandrel/zones.json says. docs/zones.md explains the file.
 *
 * Every function gives 1 for yes or success and 0 for no or failure. The process holds one zone model. Each function
 * but zones_ip_netmask_to_range first looks whether the file's modification time has changed and then reads the file
 * again. When that fails, the function gives 0 and writes none of its outputs. A file that is missing (a warning), no
 * JSON or without "zones" (both silent) leaves no model, so the next call tries again. Where "zones" is no object, or a
 * zone has no "members", only the call that reads the file fails: later ones are answered from the model that it left.
 *
 * A zone has no identity but its place in the file: ids may repeat, as the keys "7" and "007" both give 7.
 *
 * Everything here is for one thread of the process.
 */
#ifndef VANDREL_ZONES_H
#define VANDREL_ZONES_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What a member of a zone is. */
typedef enum zone_member_type {
    ZONE_MEMBER_SERIALIZATION, /* a VPN peer; start.name is its common name */
    ZONE_MEMBER_PORT,          /* a port; start.name is its name */
    ZONE_MEMBER_IP_RANGE,      /* start.ip to end.ip, both included */
    ZONE_MEMBER_IP_NETWORK,    /* start.ip, any address of the network, with the netmask end.ip */
    ZONE_MEMBER_MAC_RANGE,     /* start.mac to end.mac, both included, packed as by mac_bytes_to_long */
    ZONE_MEMBER_INVALID        /* never in the model */
} zone_member_type;

/** Whether a member's own access is decided (in), it may be reached (out), or both. */
typedef enum zone_direction {
    ZONE_DIRECTION_IN,
    ZONE_DIRECTION_OUT,
    ZONE_DIRECTION_BOTH,
    ZONE_DIRECTION_INVALID /* the file gives none: neither */
} zone_direction;

/** One end of a member. Addresses are in host order and stand at the start of the field; other bytes are 0. */
typedef union zone_value {
    char name[32]; /* ends in NUL: at most 26 characters of a common name, 13 of a port */
    uint32_t ip;
    uint64_t mac;
} zone_value;

/** One member of a zone, in the order of the file. */
typedef struct zone_member {
    int32_t type;                    /* zone_member_type */
    int32_t direction;               /* zone_direction */
    zone_value start, end;           /* end is all 0 for a name */
    struct zone_member *next, *prev; /* in its zone; NULL at the ends */
} zone_member;

/**
 * Reads the zone file now, whether or not it has changed.
 *
 * Returns 1 when the whole file was loaded. Otherwise 0: a file that is missing, no JSON, or without "zones" leaves
 * the model as it was; "zones" that is no object leaves an empty model; a zone without "members" is kept without
 * members and all others are loaded; when memory runs out, while parsing too, the old model is gone as well, and the
 * next query tries again.
 */
int zones_load(void);

/** Frees the model; the next query loads it again. Without a model, does nothing. */
void zones_free(void);

/**
 * Whether a peer may reach an address, a port, a MAC address or another peer.
 *
 * common_name  the peer that asks; NULL is in no zone. Compared whole, so a name over 26 characters is in none.
 * ip           host order.
 * port         a port's name; NULL is in no zone.
 * mac          6 bytes in transmission order; NULL is in no zone.
 * other        the peer to be reached, of which only the first 26 characters count; NULL is in no zone. When it equals
 *              common_name, a warning is logged and the question is answered like any other.
 * sched        NULL, or where the schedule is answered: 1 when a zone that lets the peer through is open now, else 0.
 *              Left as it was when the zone file cannot be loaded.
 *
 * The result does not depend on the schedule: 1 says that some zone lets the peer through, even where *sched is 0.
 * A daemon that wants the schedule kept must look at both, and the forms without sched never ask it.
 *
 * Zones are asked in the order of the file. The first that holds the peer and its target decides when sched is NULL;
 * otherwise the first such zone that is open. For another peer, a zone on the way that denies the pair decides 0.
 */
int zones_is_ip_allowed_sched(const char *common_name, uint32_t ip, uint8_t *sched);
int zones_is_ip_allowed(const char *common_name, uint32_t ip);
int zones_is_port_allowed_sched(const char *common_name, const char *port, uint8_t *sched);
int zones_is_port_allowed(const char *common_name, const char *port);
int zones_is_mac_allowed_sched(const char *common_name, const uint8_t *mac, uint8_t *sched);
int zones_is_mac_allowed(const char *common_name, const uint8_t *mac);
int zones_is_device_allowed_sched(const char *common_name, const char *other, uint8_t *sched);
int zones_is_device_allowed(const char *common_name, const char *other);

/**
 * Finds the bridge of a peer: the first port of the first of its zones that has one, whatever the directions.
 *
 * bridge  at least 14 bytes; left as it was on failure.
 *
 * Returns 0 for a NULL argument and for a peer without a bridge too; both are logged.
 */
int zones_get_client_options(char *bridge, const char *common_name);

/**
 * Lists the members that are related to a peer, in the order of the file.
 *
 * members    receives a new array of *count pointers, which the caller free()s, also when *count is 0. The records are
 *            borrowed until the next call of a zone function.
 * direction  ZONE_DIRECTION_OUT: what the peer may reach; ZONE_DIRECTION_IN: what may reach the peer;
 *            ZONE_DIRECTION_BOTH: all members of its zones, those without a valid direction too.
 *
 * Peers that a zone keeps apart from common_name are not listed. Who is in several of the peer's zones, or in a zone
 * that holds the peer several times, is listed as often.
 *
 * Returns 0, with both outputs left as they were, also for a NULL argument or any other direction (both logged), and
 * when memory runs out (silent).
 */
int zones_get_allowed_members(zone_member ***members, uint32_t *count, const char *common_name, int direction);

/**
 * Turns a network, a ZONE_MEMBER_IP_NETWORK as in the model, into the range from its network address to its broadcast
 * address. A netmask with gaps counts up to its first gap.
 *
 * out  receives type, start.ip and end.ip, everything else is left as it was; may be in.
 *
 * Returns 0 only for a NULL argument, which is logged.
 */
int zones_ip_netmask_to_range(zone_member *out, const zone_member *in);

/**
 * Asks the script /usr/share/vandrel/check_zone_scheduled_access.lua, zone by zone, whether the zone's schedule is open
 * now, and keeps the answers until the model is loaded again, which opens every zone. The library never calls this
 * itself. Waits for each script to end.
 *
 * A script that does not answer "true", or cannot be run by the shell, closes its zone; where not even the shell can
 * be started, the zone is open and an error is logged.
 *
 * Returns 1 when the last zone is open, or there is no zone; 0 when it is closed, or the zone file cannot be loaded.
 */
int zones_update_schedule_access(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
