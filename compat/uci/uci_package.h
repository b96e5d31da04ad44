// Building a package from the statements of a file. Strings are not copied: they lie in the package's bytes.
// Everything is attached to the package at once, so that after a failure it is enough to free the package.
#ifndef UCI_PACKAGE_H
#define UCI_PACKAGE_H

#include "uci.h"

// A new builder is zero bytes and the package, which the caller owns.
struct uci_builder {
    uci_package *package;
    uci_section *section;   // the open section; null before the first
    unsigned section_count; // made so far
};

void uci_list_init(uci_list *head);
void uci_list_append(uci_list *head, uci_list *link);
void uci_list_remove(uci_list *link);
// Removes and returns the first element; null for an empty list.
uci_element *uci_list_take(uci_list *head);

// Copies the name; null without memory.
uci_package *uci_package_new(const char *name);
// The package must not be in a list.
void uci_package_free(uci_package *package);

// Opens the existing section of that name, or makes a new one; an empty name always makes one.
// UCI_ERR_DUPLICATE when the name belongs to a section of another type.
[[nodiscard]] int uci_build_section(uci_builder *b, char *type, char *name);
// Both change the open section.
[[nodiscard]] int uci_build_option(uci_builder *b, char *name, char *value);
[[nodiscard]] int uci_build_item(uci_builder *b, char *name, char *value);

#endif
