/**
 * VPN state files: what the daemons that run the VPN connections tell about them.
 *
 * Each connection has one JSON file in /var/run/vandrel/vpnstate, named after the common name of its peer with ".json"
 * appended. The files are only read here. Their daemons may rewrite them at any time: one that is caught half-written
 * counts as unreadable. Only a regular file, or a link to one, is read; a FIFO, socket, device or directory in its
 * place counts as unreadable too and never blocks. Walks over the directory know a regular file by the type that its
 * entry has there: on a file system that reports none (DT_UNKNOWN) they see no file at all.
 *
 * Nothing here keeps state, no descriptor stays open after a call, and every function may be called from any thread.
 */
#ifndef VANDREL_VPNSTATE_H
#define VANDREL_VPNSTATE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * One VPN connection. Each field has the name of its key in the file; the value in brackets is what a missing key
 * gives. A number that cannot be read becomes -1 or 0, see docs/vpn-state.md. Addresses are in host order
 * (ip_calculation.h); one that cannot be read becomes 0xFFFFFFFF. Texts belong to the record.
 */
typedef struct vpn_state {
    int32_t state;                /* 0 to 3; 3 also for any other number (0) */
    int32_t connection_id;        /* (-1) */
    int32_t vpn_client_id;        /* (-1) */
    int32_t vpn_server_id;        /* (-1) */
    char *proto;                  /* (NULL) */
    char *remote_ip;              /* a text as it stands in the file, not checked (NULL) */
    int32_t local_port;           /* (0) */
    int32_t remote_port;          /* never negative, but -1 when it cannot be read (0) */
    int32_t management_port;      /* (0) */
    char *management_path;        /* (NULL) */
    int32_t reserved_11;          /* no key (-1) */
    int32_t openvpn_pid;          /* (-1) */
    int32_t reserved_13;          /* no key (0) */
    int32_t relayed;              /* a flag (-1) */
    char *relay_uuid;             /* (NULL) */
    int32_t reserved_16;          /* no key (0) */
    char *dev;                    /* the tunnel interface; without one the connection is not active (NULL) */
    char *common_name;            /* (NULL) */
    char *connection_common_name; /* (NULL) */
    int32_t offline_connection;   /* a flag (0) */
    int32_t firewall;             /* (-1) */
    int32_t connection_type;      /* 0 or 1 (0) */
    int32_t peer_type;            /* PEER_TYPE_... of util.h (0, which is PEER_TYPE_TOKEN) */
    uint32_t tun_server_ip;       /* (0) */
    uint32_t tun_client_ip;       /* (0) */
    uint32_t tun_my_ip;           /* (0) */
    uint32_t tun_peer_ip;         /* (0) */
    uint32_t peer_virtual_ip;     /* (0) */
    uint32_t peer_public_ip;      /* (0) */
} vpn_state;

/** Receives one common name, borrowed until it returns. Not 0 ends the walk. */
typedef int (*vpnstate_cn_callback)(const char *common_name);

/**
 * Loads the state file of one peer.
 *
 * common_name  at most 26 characters; the path of a longer one is cut after 57 and may so name another file. NULL, and
 *              a name with a slash in it, have no file.
 *
 * Returns a new record, which the caller gives to vpn_free(). NULL when there is no file, when it cannot be read or is
 * not a JSON object, when one of its values is null, or when memory runs out (all logged). An unknown key, and a value
 * that is out of its range, are logged and do no more.
 */
vpn_state *vpnstate_load(const char *common_name);

/** Frees a record and its texts. NULL does nothing. */
void vpn_free(vpn_state *state);

/**
 * Calls callback for each peer that has a state file, in no particular order: for each regular file with ".json" at its
 * end and something before it. Links are left out, and no file is opened.
 *
 * Returns 0 when all were visited or callback ended the walk; -1 when callback is NULL or the directory cannot be
 * opened or read. Silent.
 */
int vpnstate_foreach_cn(vpnstate_cn_callback callback);

/**
 * Tells whether any connection is up: whether there is a peer whose state file loads and has a dev.
 *
 * Returns 1 or 0. A file that does not load is logged as by vpnstate_load and counts as a connection that is down.
 */
int vpnstate_is_any_active(void);

/**
 * Finds the peer at the other end of a tunnel interface: the common_name in the first state file whose dev is that
 * interface. Any regular file in the directory counts, whatever its name ends in, and of a name only the first 31
 * characters. Of the file's keys only these two are looked at.
 *
 * cn   at least 27 bytes; receives the common name, cut to 26 characters. Left as it was unless 0 is returned.
 * dev  the interface.
 *
 * Returns 0 when found; 1 when dev begins with neither "tap" nor "tun" or is NULL (no file is looked at), and when no
 * file names it; -1 when the file that names it has no common_name, when cn is NULL, or when the directory cannot be
 * opened or read (silent). A file that cannot be read is logged and passed over.
 */
int vpnstate_get_common_name(char *cn, const char *dev);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
