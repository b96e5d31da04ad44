// Packages under construction: what a file's statements make. The strings handed in are not copied; they lie
// in the package's bytes. Everything made is attached to the package at once, so that after a failure freeing
// the package is all the undoing there is.
#ifndef UCI_PACKAGE_H
#define UCI_PACKAGE_H

#include "uci.h"

// Sections and options by owner and name, so that the time for a file of any shape stays in proportion to its
// size. Open addressing, at most half full.
struct uci_name_slot {
    uint64_t hash;
    const void *owner; // a section's package, an option's section
    uci_element *element;
};

struct uci_name_index {
    uci_name_slot *slots;
    size_t capacity; // a power of two, or 0
    size_t used;
};

// Zero bytes but for the package are a builder at its start. The package is not the builder's own.
struct uci_builder {
    uci_package *package;
    uci_section *section;  // the open one, null before the first
    unsigned sectionCount; // made so far
    uci_name_index names;
};

void uci_list_init(uci_list *head);
void uci_list_append(uci_list *head, uci_list *link);
void uci_list_remove(uci_list *link);
// Takes the first element off; null when the list is empty.
uci_element *uci_list_take(uci_list *head);

// Copies the name; null when there is no memory.
uci_package *uci_package_new(const char *name);
// The package is in no list.
void uci_package_free(uci_package *package);

// Opens the section of that name again, or a new one where there is none or the name is empty.
// UCI_ERR_DUPLICATE when the name belongs to a section of another type.
[[nodiscard]] int uci_build_section(uci_builder *b, char *type, char *name);
// Both for the open section.
[[nodiscard]] int uci_build_option(uci_builder *b, char *name, char *value);
[[nodiscard]] int uci_build_item(uci_builder *b, char *name, char *value);
// Frees what only building needed.
void uci_build_end(uci_builder *b);

#endif
