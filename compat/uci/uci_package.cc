#include "uci_package.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t generated_name_size = sizeof("cfg") + 8 + 4; // two numbers in hex, 32 and 16 bits

// The first element of that name, or null. A generated section name may be one that the file gives as well.
uci_element *find_by_name(uci_list *head, const char *name)
{
    uci_element *e;
    uci_foreach_element(head, e)
    {
        if (strcmp(e->name, name) == 0)
            return e;
    }
    return nullptr;
}

void free_items(uci_option *option)
{
    while (uci_element *item = uci_list_take(&option->v.list))
        free(item);
}

void free_section(uci_section *section)
{
    while (uci_element *e = uci_list_take(&section->options)) {
        if (uci_to_option(e)->type == UCI_TYPE_LIST)
            free_items(uci_to_option(e));
        free(e);
    }
    free(section);
}

// A section without a name gets a generated one: cfg, its number, and the low half of its type's hash.
[[nodiscard]] int add_section(uci_builder *b, char *type, char *name)
{
    const bool anonymous = *name == '\0';
    auto *const section =
        static_cast<uci_section *>(calloc(1, sizeof(uci_section) + (anonymous ? generated_name_size : 0)));
    if (section == nullptr)
        return UCI_ERR_MEM;
    ++b->section_count;
    if (anonymous) {
        unsigned hash = 5381;
        for (const char *c = type; *c != '\0'; c++)
            hash = hash * 33 + static_cast<unsigned char>(*c);
        name = reinterpret_cast<char *>(section + 1);
        snprintf(name, generated_name_size, "cfg%02x%04x", b->section_count, hash & 0xffff);
    }
    section->e.type = UCI_TYPE_SECTION;
    section->e.name = name;
    section->type = type;
    section->anonymous = anonymous;
    section->package = b->package;
    uci_list_init(&section->options);
    uci_list_append(&b->package->sections, &section->e.list);
    b->section = section;
    return UCI_OK;
}

// The option of that name in the open section, or a new one, whose string is still null.
uci_option *obtain_option(uci_builder *b, char *name)
{
    uci_element *known = find_by_name(&b->section->options, name);
    if (known != nullptr)
        return uci_to_option(known);
    auto *option = static_cast<uci_option *>(calloc(1, sizeof(uci_option)));
    if (option == nullptr)
        return nullptr;
    option->e.type = UCI_TYPE_OPTION;
    option->e.name = name;
    option->section = b->section;
    option->type = UCI_TYPE_STRING;
    uci_list_append(&b->section->options, &option->e.list);
    return option;
}

[[nodiscard]] int add_item(uci_option *list, char *value)
{
    auto *item = static_cast<uci_element *>(calloc(1, sizeof(uci_element)));
    if (item == nullptr)
        return UCI_ERR_MEM;
    item->type = UCI_TYPE_ITEM;
    item->name = value;
    uci_list_append(&list->v.list, &item->list);
    return UCI_OK;
}

} // namespace

void uci_list_init(uci_list *head)
{
    head->next = head->prev = head;
}

void uci_list_append(uci_list *head, uci_list *link)
{
    link->next = head;
    link->prev = head->prev;
    head->prev->next = link;
    head->prev = link;
}

void uci_list_remove(uci_list *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
}

uci_element *uci_list_take(uci_list *head)
{
    if (head->next == head)
        return nullptr;
    uci_list *link = head->next;
    uci_list_remove(link); // NOLINT(clang-analyzer-unix.Malloc): the head points to the next element by now
    return reinterpret_cast<uci_element *>(link);
}

void uci_package_free(uci_package *package)
{
    while (uci_element *e = uci_list_take(&package->sections))
        free_section(uci_to_section(e));
    free(package->bytes);
    free(package);
}

uci_package *uci_package_new(const char *name)
{
    const size_t name_size = strlen(name) + 1;
    auto *package = static_cast<uci_package *>(calloc(1, sizeof(uci_package) + name_size));
    if (package == nullptr)
        return nullptr;
    package->e.type = UCI_TYPE_PACKAGE;
    package->e.name = reinterpret_cast<char *>(package + 1);
    memcpy(package->e.name, name, name_size);
    uci_list_init(&package->sections);
    return package;
}

int uci_build_section(uci_builder *b, char *type, char *name)
{
    uci_element *known = *name != '\0' ? find_by_name(&b->package->sections, name) : nullptr;
    if (known == nullptr)
        return add_section(b, type, name);
    if (strcmp(uci_to_section(known)->type, type) != 0)
        return UCI_ERR_DUPLICATE;
    b->section = uci_to_section(known);
    return UCI_OK;
}

int uci_build_option(uci_builder *b, char *name, char *value)
{
    if (*value == '\0')
        return UCI_OK; // an empty value neither makes nor changes an option
    uci_option *option = obtain_option(b, name);
    if (option == nullptr)
        return UCI_ERR_MEM;
    if (option->type == UCI_TYPE_LIST)
        free_items(option);
    option->type = UCI_TYPE_STRING;
    option->v.string = value;
    return UCI_OK;
}

int uci_build_item(uci_builder *b, char *name, char *value)
{
    uci_option *option = obtain_option(b, name);
    if (option == nullptr)
        return UCI_ERR_MEM;
    if (option->type == UCI_TYPE_STRING) {
        char *former = option->v.string;
        option->type = UCI_TYPE_LIST;
        uci_list_init(&option->v.list);
        if (former != nullptr && add_item(option, former) != UCI_OK)
            return UCI_ERR_MEM;
    }
    return add_item(option, value);
}
