/* Configuration packages: files of sections with options, edited in memory, saved as changes, and committed.
 *
 * A context and all that hangs from it belongs to one thread at a time; separate contexts on separate threads (or in
 * separate processes) may work on the same package. Calls that return int return UCI_OK or one of the UCI_ERR_ codes
 * and leave it in the context's `err` too; UCI_ERR_MEM can come from every call that allocates, UCI_ERR_INVAL from
 * every call that is given a null argument that it needs. The context is not null.
 */
#ifndef UCI_H
#define UCI_H

#include "uci_config.h"

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,       /* out of memory */
    UCI_ERR_INVAL,     /* the call's arguments make no sense */
    UCI_ERR_NOTFOUND,  /* no such package, section or option */
    UCI_ERR_IO,        /* a file cannot be read or written */
    UCI_ERR_PARSE,     /* a file or a tuple breaks the grammar */
    UCI_ERR_DUPLICATE, /* it is there already */
    UCI_ERR_UNKNOWN,
    UCI_ERR_LAST
};

/* A circular list; the head is a node of its own and no element. */
struct uci_list {
    struct uci_list* next;
    struct uci_list* prev;
};

enum uci_type {
    UCI_TYPE_UNSPEC = 0,
    UCI_TYPE_DELTA = 1,
    UCI_TYPE_PACKAGE = 2,
    UCI_TYPE_SECTION = 3,
    UCI_TYPE_OPTION = 4,
    UCI_TYPE_PATH = 5,
    UCI_TYPE_BACKEND = 6,
    UCI_TYPE_ITEM = 7 /* one value of a list option; the value is the element's name */
};

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

enum uci_flags {
    UCI_FLAG_SAVED_DELTA = 1 << 3 /* loading keeps the saved changes in the package's saved_delta */
};

/* What all listed things begin with. */
struct uci_element {
    struct uci_list list;
    enum uci_type type;
    char* name;
};

struct uci_context {
    struct uci_list root; /* loaded packages */
    int err;              /* result of the last call */
    enum uci_flags flags; /* the user's, 0 at first */
    char* confdir;
    char* savedir;

    /* Private: where and why the last UCI_ERR_PARSE of a file came about; no reason for other errors. */
    const char* parse_reason;
    int parse_line;
    int parse_byte;
};

struct uci_package {
    struct uci_element e;
    struct uci_list sections;
    struct uci_context* ctx;
    bool has_delta; /* saved changes count for it: always */
    char* path;     /* its file */

    /* Private: changes not saved yet, those found by loading (see UCI_FLAG_SAVED_DELTA), and the number of sections
     * ever made, for the names of anonymous ones. */
    struct uci_list delta;
    struct uci_list saved_delta;
    unsigned int section_count;
};

struct uci_section {
    struct uci_element e;
    struct uci_list options;
    struct uci_package* package;
    bool anonymous; /* its name is generated and not written */
    char* type;
};

struct uci_option {
    struct uci_element e;
    struct uci_section* section;
    enum uci_option_type type;
    union {
        struct uci_list list; /* of elements of UCI_TYPE_ITEM */
        char* string;
    } v;
};

/* The result of a lookup, and the argument of the calls that change something. */
struct uci_ptr {
    enum uci_type target; /* what the tuple names: package, section or option */
    enum {
        UCI_LOOKUP_DONE = 1 << 0,     /* p, s, o and last are valid */
        UCI_LOOKUP_COMPLETE = 1 << 1, /* the target exists */
        UCI_LOOKUP_EXTENDED = 1 << 2  /* the section was named by type and index */
    } flags;

    struct uci_package* p;
    struct uci_section* s;
    struct uci_option* o;
    struct uci_element* last; /* the innermost that exists */

    const char* package;
    const char* section;
    const char* option;
    const char* value;
};

#ifndef container_of
#define container_of(ptr, type, member) ((type*)((char*)ptr - offsetof(type, member)))
#endif

#define uci_list_empty(head) ((head)->next == (head))

/* Walks over the elements of a list; the list may not change meanwhile. */
#define uci_foreach_element(head, ptr)                                                                                 \
    for (ptr = container_of((head)->next, struct uci_element, list); &ptr->list != (head);                             \
         ptr = container_of(ptr->list.next, struct uci_element, list))

/* The same; the element at hand, and no other, may be removed meanwhile. */
#define uci_foreach_element_safe(head, tmp, ptr)                                                                       \
    for (ptr = container_of((head)->next, struct uci_element, list),                                                   \
        tmp = container_of(ptr->list.next, struct uci_element, list);                                                  \
         &ptr->list != (head); ptr = tmp, tmp = container_of(tmp->list.next, struct uci_element, list))

#define uci_to_package(ptr) container_of(ptr, struct uci_package, e)
#define uci_to_section(ptr) container_of(ptr, struct uci_section, e)
#define uci_to_option(ptr) container_of(ptr, struct uci_option, e)

/* ---- contexts ---- */

/* A context with the default directories of uci_config.h, or null when memory is short. Any thread. */
struct uci_context* uci_alloc_context(void);

/* Frees the context and its packages; unsaved changes are lost. Null is allowed. */
void uci_free_context(struct uci_context* ctx);

/* Prints "PREFIX: TEXT" of the context's last error and a line feed to standard error; without a prefix (null) only
 * the text, and for a file that breaks the grammar also why and where. */
void uci_perror(struct uci_context* ctx, const char* prefix);

/* Stores what uci_perror prints, without the line feed, in *dest; the caller frees it. Null when memory is short. */
void uci_get_errorstr(struct uci_context* ctx, char** dest, const char* prefix);

/* Set the directory of configuration files and that of saved changes. The text is copied. They count for what is loaded
 * and saved from then on; a loaded package is committed to where it came from. Changes in the default save directory
 * are read all the same, before those of the other; they are committed, and stay there. */
int uci_set_confdir(struct uci_context* ctx, const char* dir);
int uci_set_savedir(struct uci_context* ctx, const char* dir);

/* ---- packages ---- */

/* Reads a package's file and applies the saved changes to it. UCI_ERR_INVAL for a name that no package can have (empty,
 * with blanks, with a slash), UCI_ERR_DUPLICATE when it is loaded already, UCI_ERR_NOTFOUND when there is no such
 * regular file, UCI_ERR_IO when it cannot be read, UCI_ERR_PARSE when it breaks the grammar. *package (may be a null
 * pointer) is written only on success. Waits for a commit of the package that is under way. */
int uci_load(struct uci_context* ctx, const char* name, struct uci_package** package);

/* Frees a package with its unsaved changes. */
int uci_unload(struct uci_context* ctx, struct uci_package* p);

/* Appends the unsaved changes to the package's change file in the save directory and clears them. UCI_ERR_IO when
 * that fails; they are kept then, and the change file is as before. Takes a lock on the change file meanwhile. */
int uci_save(struct uci_context* ctx, struct uci_package* p);

/* Saves, merges all saved changes, other processes' too, into what the file holds now, and replaces the file at once:
 * whatever happens, the file is the old or the new one, whole. On success *package is a new handle, also when there
 * was nothing to write, and all pointers into the old one are dead. On failure the handle and everything under it stay
 * valid, the file is unchanged, and the changes are in the change file (UCI_ERR_PARSE, UCI_ERR_IO) or, when that
 * could not be written, still unsaved (UCI_ERR_IO). The file is always merged: `overwrite` makes no difference.
 * Locks the configuration file and the change file against other committers, readers and savers meanwhile. */
int uci_commit(struct uci_context* ctx, struct uci_package** package, bool overwrite);

/* Writes a package, or all loaded ones (null), in the form of its file; with `header` behind a line "package NAME". */
int uci_export(struct uci_context* ctx, FILE* stream, struct uci_package* package, bool header);

/* ---- lookup ---- */

/* A loaded package, or null (UCI_ERR_NOTFOUND in the context). */
struct uci_package* uci_lookup_package(struct uci_context* ctx, const char* name);

/* A section or option by its stored name, or null (UCI_ERR_NOTFOUND in the context). */
struct uci_section* uci_lookup_section(struct uci_context* ctx, struct uci_package* p, const char* name);
struct uci_option* uci_lookup_option(struct uci_context* ctx, struct uci_section* s, const char* name);

/* Resolves PACKAGE[.SECTION[.OPTION]][=VALUE]. The text is split in place, so it must be writable and outlive *ptr; a
 * null text resolves what *ptr names already. The package is loaded if it is not. With `extended` a section may be
 * named @TYPE[INDEX] or @[INDEX], counting from 0, or from the end with -1; ptr->section is then its stored name.
 * UCI_OK also when section or option are missing, see UCI_LOOKUP_COMPLETE. UCI_ERR_PARSE for a text that is no tuple,
 * an option name or a value with characters they cannot have; UCI_ERR_INVAL for such a section name; loading the
 * package adds its own. */
int uci_lookup_ptr(struct uci_context* ctx, struct uci_ptr* ptr, char* str, bool extended);

/* The value of a plain option, or null when it is missing or a list. */
static inline const char* uci_lookup_option_string(struct uci_context* ctx, struct uci_section* s, const char* name)
{
    struct uci_option* o = uci_lookup_option(ctx, s, name);

    return o && o->type == UCI_TYPE_STRING ? o->v.string : NULL;
}

/* ---- changes ----
 *
 * Each works on a looked-up pointer record, or on one zeroed and filled by hand (package, section, option, value; or p
 * and s), and records the change for uci_save. A changed option is a new one in the old one's place: pointers to the
 * old one are dead, and the record's own are brought up to date. UCI_ERR_INVAL when the section is missing. */

/* Option: created behind the others, or its value replaced; a list becomes a plain option. Without an option in the
 * tuple: creates the section with the value as type, or changes its type, which gives an anonymous section its
 * generated name for good; at an index where there is no section nothing happens. The same value again is no change;
 * an empty value deletes what is there, and is UCI_OK when nothing is. UCI_ERR_INVAL for a bare package, without a
 * value, and for a type with blanks, control or non-ASCII characters. */
int uci_set(struct uci_context* ctx, struct uci_ptr* ptr);

/* Deletes an option or section. UCI_ERR_NOTFOUND when it is missing, UCI_ERR_INVAL for a bare package, and for a list
 * with a value: single elements are not deleted by their index. */
int uci_delete(struct uci_context* ctx, struct uci_ptr* ptr);

/* Appends the value to a list, which is created, or made of the plain option that is there. */
int uci_add_list(struct uci_context* ctx, struct uci_ptr* ptr);

/* Removes all elements equal to the value; UCI_OK also when there is none, or no list. */
int uci_del_list(struct uci_context* ctx, struct uci_ptr* ptr);

/* Adds an anonymous section at the end and stores it in *res. A type that no section can have is taken, but the change
 * is dropped when it is committed. */
int uci_add_section(struct uci_context* ctx, struct uci_package* p, const char* type, struct uci_section** res);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
