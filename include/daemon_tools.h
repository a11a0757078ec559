/**
 * Process control: turning a process into a daemon that holds exactly the rights it needs.
 *
 * Results are 0 for success or a negative code that names the failed step. Every failure is logged as an error, nothing
 * is retried, and nothing done before the failure is undone: a changed user stays changed. The family keeps no state.
 * Ids, capabilities and umask belong to the whole process, and fork carries only the calling thread along, so both
 * calls are for a process that has started no thread yet.
 */
#ifndef VANDREL_DAEMON_TOOLS_H
#define VANDREL_DAEMON_TOOLS_H

#include <stdbool.h>

#include <sys/capability.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What a daemon wants to be. The library only reads it, and only during the call. */
typedef struct daemonize_options {
    const char *user;                /* name of the user to run as; NULL keeps the user ids */
    const char *group;               /* name of the group to run as; NULL keeps the group ids, supplementary too */
    mode_t umask;                    /* file creation mask of the daemon */
    const cap_value_t *capabilities; /* the capabilities to keep; NULL leaves the capability sets alone */
    int capability_count;            /* number of entries in capabilities, 1 to 63 */
    bool keep_supplementary_groups;  /* true: the supplementary groups are not rebuilt from the user's groups */
} daemonize_options;

/**
 * Changes the group, then the user, of the process.
 *
 * user                       its name; NULL changes no user id.
 * group                      its name; NULL changes no group id, and no supplementary group either.
 * keep_supplementary_groups  false: with both names given, the supplementary groups become the user's, as the group
 *                            file has them, and the group itself. With one name they stay as they are.
 *
 * Real, effective and saved ids change when the process has the right to change them all (CAP_SETUID, CAP_SETGID), else
 * only the effective ones, as setuid and setgid have it.
 *
 * Returns 0 on success and when both names are NULL. Otherwise one record is logged, and the result says what failed:
 * -8 the group is unknown, -9 initgroups, -7 setgid, -5 the user is unknown (the group has then changed already),
 * -6 setuid.
 */
int vd_set_process_uid_and_gid_by_names(const char *user, const char *group, bool keep_supplementary_groups);

/**
 * Reduces the process to the wanted user, group and capabilities, and turns it into a daemon: without controlling
 * terminal, in a session that it doesn't lead, in "/", with /dev/null as descriptors 0, 1 and 2 and no other one open.
 *
 * options  NULL changes neither ids nor capabilities and takes the umask 027.
 *
 * Called once at start, before the daemon opens anything that it needs later. It forks twice. The calling process and
 * the first child end inside the call with exit(0), each as soon as its child exists: whoever waits for the start
 * command sees success before the daemon has come up, and what fails after the first fork shows only in the log.
 *
 * Returns 0 in the daemon, the grandchild of the caller. A failure is returned, once its record is logged, in the
 * process that noticed it. In the caller, before any fork:
 *
 *   -20  the secure bits could not be set; this takes CAP_SETPCAP
 *   -21  the group or the user could not be changed; a record of vd_set_process_uid_and_gid_by_names precedes
 *   -22  the process's capabilities could not be read
 *   -23  the permitted set could not be filled: capability_count is below 1 or above 63
 *   -24  the effective set could not be filled
 *   -25  the capabilities could not be applied: one of them was not permitted to the process before
 *   -26  the capability state could not be freed
 *    -1  the first fork failed
 *
 * and after it:
 *
 *    -2  setsid failed (in the first child)
 *    -3  the second fork failed (in the first child)
 *    -4  the change to "/" failed (in the grandchild; all else is done)
 *
 * Capabilities: with a list, exactly the listed ones end up in the permitted and the effective set, and none in the
 * inheritable and the ambient set; values that the system doesn't know are ignored. The bounding set stays. When a name
 * is given too, the secure bit "no setuid fixup" carries them over the change of user, is locked, and is passed on to
 * whatever the daemon starts. Without a list the kernel's own rule holds: changing from root to another user empties
 * the permitted, the effective and the ambient set; the inheritable one stays, and under PR_SET_KEEPCAPS the permitted
 * one too.
 *
 * Descriptors: all of them are closed. A kernel older than 5.9 has no close_range: there each number from the soft
 * limit (getdtablesize) down to 0 is closed, and a descriptor above a limit that was lowered later stays open. When
 * /dev/null can't be opened, 0, 1 and 2 stay closed, and that is not reported.
 *
 * Log: an open context stays good. The C library's connection to the log is closed before the descriptors are, so that
 * no later record can go to whatever has got its number by then, and the next record opens a new one, under the name
 * of its context. A daemon that calls syslog itself calls openlog again.
 *
 * SIGPIPE is held back while what stdio holds is written out, until both ending processes have ended: one whose
 * standard output nobody reads any more becomes a daemon too. Mask and disposition are then what they were, and what
 * the writing brought up is gone.
 *
 * SIGHUP is ignored from the first fork to setsid, or a caller that leads a session with a terminal would kill the
 * first child by ending; its disposition is then what it was.
 *
 * exit(0) runs the exit handlers of the caller in both ending processes too: those that remove files or stop services
 * are registered after this call. What stdio holds for output is written out before the first fork, thus once.
 */
int vd_daemonize(const daemonize_options *options);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
