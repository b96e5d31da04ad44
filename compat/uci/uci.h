// Stand-in for libuci, for machines without it: reading and walking of configuration packages such as
// /etc/config/dns, and nothing else. Source compatible with libuci for what is declared here, not binary
// compatible. Changes that were set but not committed (in /tmp/.uci) are not looked at.
//
// A context owns its packages, and a package owns every element of its walk: pointers to them are valid until
// uci_unload or uci_free_context. A context belongs to one thread at a time.
#ifndef UCI_H
#define UCI_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    UCI_OK = 0,
    UCI_ERR_MEM,
    UCI_ERR_INVAL,
    UCI_ERR_NOTFOUND,
    UCI_ERR_IO,
    UCI_ERR_PARSE,
    UCI_ERR_DUPLICATE,
    UCI_ERR_UNKNOWN
};

enum uci_type { UCI_TYPE_PACKAGE = 2, UCI_TYPE_SECTION = 3, UCI_TYPE_OPTION = 4, UCI_TYPE_ITEM = 7 };

enum uci_option_type { UCI_TYPE_STRING = 0, UCI_TYPE_LIST = 1 };

struct uci_context;

// Circular: the head stands between the last element and the first.
struct uci_list {
    struct uci_list *next;
    struct uci_list *prev;
};

struct uci_element {
    struct uci_list list; // stays first
    enum uci_type type;
    char *name;
};

struct uci_package {
    struct uci_element e; // stays first
    struct uci_list sections;
    char *bytes; // the file; strings that were read from it point in here
};

struct uci_section {
    struct uci_element e; // stays first; the name is generated where the file gives none
    struct uci_list options;
    struct uci_package *package;
    bool anonymous;
    char *type;
};

struct uci_option {
    struct uci_element e; // stays first
    struct uci_section *section;
    enum uci_option_type type; // tells which member of v is used
    union {
        struct uci_list list; // of uci_element; the name is the item's value, which may be empty
        char *string;         // never empty
    } v;
};

// A for loop over the elements of a list, in the order of the file.
#define uci_foreach_element(_list, _e)                                                                       \
    for ((_e) = (struct uci_element *)(_list)->next; &(_e)->list != (_list);                                 \
         (_e) = (struct uci_element *)(_e)->list.next)

#define uci_to_section(_e) ((struct uci_section *)(_e))
#define uci_to_option(_e) ((struct uci_option *)(_e))

// Null without memory.
struct uci_context *uci_alloc_context(void);
void uci_free_context(struct uci_context *ctx);

// Reads the files of that directory instead of /etc/config. A file in /var/run/uci still takes precedence.
int uci_set_confdir(struct uci_context *ctx, const char *dir);

// Loads /var/run/uci/NAME or else /etc/config/NAME; a name that begins with "/" or "./" is the file itself.
// Waits while another process holds the exclusive lock (flock) of the file. On failure nothing is loaded and
// *package is untouched; a fault anywhere in the file refuses all of it. package may be null.
int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);
int uci_unload(struct uci_context *ctx, struct uci_package *p);

// Sets *dest to the text of the last call's result, which the caller frees, or to null without memory. A
// prefix that is not null, even an empty one, precedes it with a colon and a blank.
void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);

#ifdef __cplusplus
}
#endif

#endif
