/**
 * uci.h - configuration packages of an OpenWrt-style device: the calls that daemons use, for hosts without libuci.
 *
 * Source compatible with the libuci of the device, so that the same daemon compiles against either. README.md says
 * what is left out.
 *
 * Every function returning int gives UCI_OK or one of the error codes below, and leaves that code in the context, where
 * uci_perror and uci_get_errorstr find it. With a null context, or any other null argument that it needs, it gives
 * UCI_ERR_INVAL; when memory runs out, UCI_ERR_MEM.
 *
 * Everything that can be reached from a context belongs to it and lives until the package is unloaded, committed or
 * reverted, or the context freed. Strings given in are copied. One context is used by one thread at a time; different
 * contexts are independent of each other.
 */
#ifndef UCI_H
#define UCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#define UCI_CONFDIR "/etc/config"
#define UCI_SAVEDIR "/tmp/.uci"
#define UCI_CONF2DIR "/var/run/uci"
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,
    UCI_ERR_INVAL,
    UCI_ERR_NOTFOUND,
    UCI_ERR_IO,
    UCI_ERR_PARSE,
    UCI_ERR_DUPLICATE,
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA = 1,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_PATH = 5,
    UCI_TYPE_BACKEND = 6,
    UCI_TYPE_ITEM = 7,
    UCI_TYPE_HOOK = 8
};

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

enum uci_flags {
    UCI_FLAG_STRICT = 1 << 0,
    UCI_FLAG_PERROR = 1 << 1,
    UCI_FLAG_EXPORT_NAME = 1 << 2,
    UCI_FLAG_SAVED_DELTA = 1 << 3
};

/** Circular and doubly linked: the head of a list is no element; that of an empty list points at itself. */
struct uci_list {
    struct uci_list *next;
    struct uci_list *prev;
};

/** The beginning of every object: its link in the owner's list, what it is, and its name. */
struct uci_element {
    struct uci_list list;
    enum uci_type type;
    char *name;
};

struct uci_parse_context;
struct uci_backend;

struct uci_context {
    struct uci_list root; /* the loaded packages, in order of loading */
    struct uci_parse_context *pctx;
    struct uci_backend *backend;
    struct uci_list backends;
    enum uci_flags flags;
    char *confdir;
    char *savedir;
    char *conf2dir;
    struct uci_list delta_path; /* directories whose change files a load applies; the last one is savedir */
};

struct uci_package {
    struct uci_element e;
    struct uci_list sections;
    struct uci_context *ctx;
    bool has_delta; /* false: loaded by path, so without change files */
    bool uses_conf2;
    char *path;
};

struct uci_section {
    struct uci_element e; /* an anonymous section has a generated name */
    struct uci_list options;
    struct uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    struct uci_element e;
    struct uci_section *section;
    enum uci_option_type type;
    union {
        struct uci_list list; /* elements whose name is the item's text */
        char *string;
    } v;
};

/** What a lookup asked for and found, and what a change is about. Callers clear it to zero bytes and fill members. */
struct uci_ptr {
    enum uci_type target;
    enum {
        UCI_LOOKUP_DONE = 1 << 0,
        UCI_LOOKUP_COMPLETE = 1 << 1, /* all that was asked for is there */
        UCI_LOOKUP_EXTENDED = 1 << 2  /* the section is given as "@type[index]" */
    } flags;

    struct uci_package *p;
    struct uci_section *s;
    struct uci_option *o;
    struct uci_element *last;

    const char *package;
    const char *section;
    const char *option;
    const char *value;
};

/** Returns a new context with the default directories, or NULL when memory runs out. */
struct uci_context *uci_alloc_context(void);

/** Frees the context and all its packages, unsaved changes included. NULL is nothing. */
void uci_free_context(struct uci_context *ctx);

/** Prints what uci_get_errorstr would give, and a newline, to standard error. */
void uci_perror(struct uci_context *ctx, const char *prefix);

/**
 * Describes the context's last call as "prefix: text", or "text" when prefix is NULL.
 *
 * dest  receives a new string, which the caller free()s; NULL when memory runs out. dest NULL prints to standard error.
 *
 * Does not change what the next call tells.
 */
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);

/**
 * Loads a package from the configuration directory and applies the change files to it, but those that it may not open.
 *
 * name     the package; a name that begins with "/" or "./" is the path of a file without change files
 * package  receives the package, unless NULL; left as it was on failure
 *
 * UCI_ERR_NOTFOUND: no such regular file. UCI_ERR_PARSE: uci_get_errorstr tells reason and line.
 * UCI_ERR_DUPLICATE: the context has that package already.
 */
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);

/** Frees a package, unsaved changes included. */
int uci_unload(struct uci_context *ctx, struct uci_package *p);

/**
 * Resolves "package[.section[.option]][=value]", loading the package when needed.
 *
 * str       is cut up in place; ptr points into it, so it must live as long as ptr is used. NULL: resolves the members
 *           that are set in ptr
 * extended  whether a section may be given as "@type[index]"; a negative index counts from the end
 *
 * A section or option that is not there is no error: UCI_LOOKUP_COMPLETE is missing in ptr->flags.
 */
int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

/** Finds the first element of exactly that name; *e is NULL when there is none (UCI_ERR_NOTFOUND). */
int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list, const char *name);

/**
 * Sets an option, creates a section, or changes the type of a section; an empty value deletes.
 *
 * ptr  the result of a lookup, or filled by hand: package, section and option as objects or names, and value.
 *      ptr->s and ptr->o then tell what was set, or are NULL after a deletion
 *
 * Like the other changes, it happens in memory; uci_save or uci_commit writes it.
 */
int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);

/**
 * Appends an anonymous section.
 *
 * type  printable ASCII characters without blanks, quotes, '#', ';' and '\'; any other gives UCI_ERR_INVAL, as uci_set
 *       does
 * res   receives the section
 */
int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type, struct uci_section **res);

/** Appends an item to a list option, which is made if missing; a string option becomes the first item of the list. */
int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);

/**
 * Deletes a section, an option, or the item of a list whose number is ptr->value.
 *
 * ptr->s and ptr->o are NULL for what is gone. UCI_ERR_NOTFOUND: not there.
 */
int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);

/** Appends the unsaved changes to the change file in the save directory. On failure they stay unsaved. */
int uci_save(struct uci_context *ctx, struct uci_package *p);

/**
 * Writes the package file anew, with everybody's saved changes, and empties the change file.
 *
 * p          the package; replaced, so that pointers to the package and into it from before are dead, even on failure.
 *            NULL afterwards when the package could not be read again
 * overwrite  true writes the package as it is in memory, whatever is in its file by now; p then stays valid
 *
 * The file is replaced as a whole or not at all; on failure the saved changes stay saved. Only when the disk fails
 * after the replacing, UCI_ERR_IO leaves the new file in place and the change file empty.
 */
int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);

/**
 * Drops the saved and unsaved changes of a package, section or option and loads the package afresh.
 *
 * ptr->p is then the new package; pointers to the old one and into it are dead.
 */
int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr);

/** Sets the directory of the package files; that it exists shows with the next load. */
int uci_set_confdir(struct uci_context *ctx, const char *dir);

/** Sets the directory that uci_save writes to; the former one stays in the list of directories that are read. */
int uci_set_savedir(struct uci_context *ctx, const char *dir);

/** Adds a directory whose change files are read, before those of the save directory. UCI_ERR_DUPLICATE: is there. */
int uci_add_delta_path(struct uci_context *ctx, const char *dir);

/**
 * Lists the package names of the configuration directory, sorted.
 *
 * list  receives a new array that ends with NULL; one free() releases it and its names. Left as it was on failure
 */
int uci_list_configs(struct uci_context *ctx, char ***list);

#ifndef container_of
#define container_of(ptr, type, member) ((type *)((char *)(ptr)-offsetof(type, member)))
#endif

#define list_to_element(ptr) container_of(ptr, struct uci_element, list)

/** Heads a loop in which ptr runs over the elements of the list. */
#define uci_foreach_element(head, ptr) \
    for ((ptr) = list_to_element((head)->next); &(ptr)->list != (head); (ptr) = list_to_element((ptr)->list.next))

/** The same for a body that may delete ptr: tmp holds the next element. */
#define uci_foreach_element_safe(head, tmp, ptr) \
    for ((ptr) = list_to_element((head)->next), (tmp) = list_to_element((ptr)->list.next); &(ptr)->list != (head); \
         (ptr) = (tmp), (tmp) = list_to_element((ptr)->list.next))

#define uci_list_empty(head) ((head)->next == (head))

#define uci_to_package(element) container_of(element, struct uci_package, e)
#define uci_to_section(element) container_of(element, struct uci_section, e)
#define uci_to_option(element) container_of(element, struct uci_option, e)

/* NOLINTBEGIN(modernize-use-nullptr): this is C too */

/** The loaded package of that name, or NULL; loads nothing. */
static inline struct uci_package *uci_lookup_package(struct uci_context *ctx, const char *name)
{
    struct uci_element *e = NULL;
    return uci_lookup_next(ctx, &e, ctx ? &ctx->root : NULL, name) == UCI_OK ? uci_to_package(e) : NULL;
}

/** The section of exactly that name, or NULL. */
static inline struct uci_section *uci_lookup_section(struct uci_context *ctx, struct uci_package *p, const char *name)
{
    struct uci_element *e = NULL;
    return uci_lookup_next(ctx, &e, p ? &p->sections : NULL, name) == UCI_OK ? uci_to_section(e) : NULL;
}

/** The option of that name, string or list, or NULL. */
static inline struct uci_option *uci_lookup_option(struct uci_context *ctx, struct uci_section *s, const char *name)
{
    struct uci_element *e = NULL;
    return uci_lookup_next(ctx, &e, s ? &s->options : NULL, name) == UCI_OK ? uci_to_option(e) : NULL;
}

/** The text of a string option; NULL when it is absent or a list. */
static inline const char *uci_lookup_option_string(struct uci_context *ctx, struct uci_section *s, const char *name)
{
    struct uci_option *o = uci_lookup_option(ctx, s, name);
    return o && o->type == UCI_TYPE_STRING ? o->v.string : NULL;
}

/* NOLINTEND(modernize-use-nullptr) */

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
