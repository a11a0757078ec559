/**
 * Strings, memory, numbers, files, time, commands and common names.
 *
 * Nothing here keeps state. Every function may be called from any thread, but random_number draws from the C library's
 * rand(), and ensure_dir_exists changes the umask of the process for a moment. Arguments that are not said to take NULL
 * must not be NULL.
 */
#ifndef VANDREL_UTIL_H
#define VANDREL_UTIL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What kind of peer a common name belongs to, by its prefix; a prefix counts only whole and in lower case. */
enum {
    PEER_TYPE_UNKNOWN = -1,  /* any other name, and none */
    PEER_TYPE_TOKEN = 0,     /* "token-": a Key */
    PEER_TYPE_VPNSERVER = 1, /* "vd-vpnserver-": a Lock in its server role */
    PEER_TYPE_VPNCLIENT = 2  /* "vd-vpnclient-": a Lock in its client role */
};

/** strcmp for texts that may be NULL: 0 when both are, 1 when exactly one is. */
int safestrcmp(const char *a, const char *b);

/** strncmp for texts that may be NULL: 0 when both are, 1 when exactly one is, whatever n is. */
int safestrncmp(const char *a, const char *b, size_t n);

/** memcmp of size bytes for blocks that may be NULL: 0 when both are, 1 when exactly one is, whatever size is. */
int safememcmp(const void *a, size_t size, const void *b);

/** Returns a new copy of text, or NULL when text is NULL or memory runs out. */
char *safedup(const char *text);

/** Returns a new block of exactly size bytes, a copy of source; NULL for a NULL source, size 0, or no memory. */
void *memdup(const void *source, size_t size);

/** Sets size bytes of block to zero and returns block; a NULL block is left alone. */
void *memzero(void *block, size_t size);

/**
 * Copies src into dst, which has size bytes: at most size - 1 characters, and the NUL always.
 *
 * Returns the length of src; a result >= size means that the copy was cut. With size 0, dst is not touched.
 */
#if (defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 38) && defined(__USE_MISC)) || \
    (!defined(__GLIBC__) && (defined(_GNU_SOURCE) || defined(_BSD_SOURCE)))
/* <string.h> has declared it */
#else
size_t strlcpy(char *dst, const char *src, size_t size);
#endif

/**
 * Compares two texts byte by byte as the current locale's tolower maps them.
 *
 * Returns the difference of the first two mapped bytes that differ, the first text's minus the second's; 0 when none
 * does. A text that only begins the other one is the smaller.
 */
int __stricmp(const char *a, const char *b);

/**
 * Converts a decimal number and checks its range. No C library of Linux declares this function.
 *
 * str     white space, one sign and digits, as strtoll takes them in base 10, and nothing after them. NULL is invalid.
 * errstr  receives NULL, or what is wrong: "invalid" (also when minval > maxval), "too small" or "too large", a text
 *         that is never freed. May be NULL.
 *
 * Returns the number; on failure 0, with errno EINVAL for "invalid" and ERANGE for the others. As 0 is a number too,
 * only errstr and errno tell failure. On success errno is left as it was.
 */
long long strtonum(const char *str, long long minval, long long maxval, const char **errstr);

/**
 * Returns a pseudo-random number of the closed range between a and b, in either order.
 *
 * It is the lower end plus rand() modulo the number of values, so the daemon seeds it, with srand, and of a range with
 * more than RAND_MAX + 1 values only the lowest RAND_MAX + 1 come up. Every pair of ints is allowed.
 */
int random_number(int a, int b);

/** Returns 1 when path exists, whatever it is; 0 when not or out of the real user's reach, for a dangling link and
 * NULL. */
int file_exists(const char *path);

/**
 * Returns the time of a file's last modification, in seconds since the epoch, or -1.
 *
 * Where file_exists says 0 it is silent; any other failure is printed on standard error, after the path.
 */
time_t file_get_mtime(const char *path);

/**
 * Reads the beginning of a file, or its first line.
 *
 * size  room in buffer, in bytes; with 0 or less nothing is read.
 * mode  0: up to size bytes, as they are, without a NUL. 1: the first line, cut to size - 1 bytes, with a NUL, without
 *       the carriage returns and line feeds at its end; a NUL byte in the file ends the line. Any other mode: nothing.
 *
 * Returns the number of bytes in buffer, the NUL not counted; 0 when nothing could be read, for a directory too. Only
 * a file that cannot be opened (a NULL path included) is logged. A FIFO is waited for.
 */
int file_read(const char *path, char *buffer, int size, int mode);

/**
 * Reads a whole file of at most 200,000,000 bytes.
 *
 * buffer  receives a new block with the file's bytes and no NUL, which the caller free()s, for an empty file too.
 *
 * Returns the file's size in bytes; -1, with *buffer left as it was, when the file cannot be opened or read, is larger,
 * shrinks meanwhile, when memory runs out, or when an argument is NULL. Silent. What is appended meanwhile is left out,
 * and so is all of a file that tells no size, as those of /proc do.
 */
long file_read_all(char **buffer, const char *path);

/**
 * Makes a directory and those above it, each with mode less the umask. One slash at the end of path is ignored.
 *
 * Returns 0, with nothing made, for a path that is NULL, empty or longer than 255 bytes; else 1, also when directories
 * exist already or could not be made. Silent.
 */
int mkdir_recursive(const char *path, mode_t mode);

/**
 * Makes a directory and those above it, each with exactly mode, unless path exists already, as whatever it may be.
 *
 * Returns 1 when path existed, else 0, also when it could not be made. Silent.
 */
int ensure_dir_exists(const char *path, mode_t mode);

/** Returns the seconds since the device started; should the kernel not tell them, those since the epoch. */
long get_uptime(void);

/** Returns -1. */
long get_uptime_seconds(void);

/**
 * Runs a command line through the shell, waits for its end and gives what it printed on standard output.
 *
 * output       receives the bytes as they come, a newline at the end too, cut to output_size - 1 bytes, and a NUL.
 *              NULL: what the command prints is not read, and it may die of SIGPIPE by printing.
 * output_size  room in output, in bytes; 0 when output is NULL. With 0, output is left as it was.
 *
 * Returns 0 when the command exited with status 0 and all of its output is there, or the sum of
 *   1  it failed, exited with another status or was killed; so ends a command that prints on after output is full;
 *      also when there is no such command, and when its status is not to be had because the daemon ignores SIGCHLD or
 *      reaps every child itself,
 *   2  the output was cut: it had output_size bytes or more;
 * or, when nothing was run,
 *   4  command is NULL,
 *   8  output is NULL and output_size is not 0,
 *  16  the shell itself could not be started.
 * Whenever output has room, it holds a text after the call, if only an empty one. Silent.
 *
 * There is no time limit: a command, and whatever it leaves behind with its standard output open, is waited for; a
 * signal that the daemon handles meanwhile ends no wait and cuts nothing. A command shares the caller's standard input,
 * standard error and every other descriptor without FD_CLOEXEC, and its ignored and blocked signals, but SIGPIPE always
 * has its default action there.
 */
int vd_run_command_simple(const char *command, char *output, size_t output_size);

/** The obsolete name of ip_parse; logs a warning on every call. */
uint32_t parse_ip(const char *text);

/** The obsolete name of ip_parse_free; logs a warning on every call. */
uint32_t parse_ip_free(char *text);

/** Returns the peer type of a common name; PEER_TYPE_UNKNOWN for NULL. Silent; config_get_peer_type logs a NULL. */
int vpn_type_get_by_common_name(const char *common_name);

/**
 * Takes the common name out of a file's path: of the text after the last slash, what stands before its first dot.
 *
 * common_name  at least 27 bytes; receives the name, cut to 26 characters, and zeros after it. The name is empty when
 *              path ends in a slash.
 *
 * Returns 0; -1 when path is NULL or memory runs out (logged, common_name zeroed) or common_name is NULL (silent).
 */
int extract_cn_from_path(const char *path, char *common_name);

/**
 * Gives the name of a Lock in its other role: "vd-vpnserver…" for "vd-vpnclient…" and the other way round.
 *
 * out          room for common_name and its NUL; may be common_name itself.
 * common_name  begins with "token", "vd-vpnserver" or "vd-vpnclient"; the dash after them is not looked for. A Key's
 *              name, and a name that has the wanted form already, come out as they are.
 * output_type  the form wanted, PEER_TYPE_VPNSERVER or PEER_TYPE_VPNCLIENT.
 *
 * Returns 1; 0 for a NULL, another output_type or another name (logged), with out left as it was.
 */
int translate_common_name(char *out, const char *common_name, int output_type);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
