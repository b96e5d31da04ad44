#include "uci_package.h"

#include <cstdlib>
#include <cstring>

static constexpr size_t generated_name_size = sizeof("cfg") + 8 + 4; // two numbers in hex, 32 and 16 bits

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
    uci_list *const link = head->next;
    uci_list_remove(link); // NOLINT(clang-analyzer-unix.Malloc): it does not see that the head moved on
    return reinterpret_cast<uci_element *>(link);
}

// FNV-1a over the name, begun at the owner's address.
static uint64_t index_hash(const void *owner, const char *name)
{
    uint64_t hash = 0xcbf29ce484222325 ^ reinterpret_cast<uintptr_t>(owner);
    for (; *name != '\0'; ++name)
        hash = (hash ^ static_cast<unsigned char>(*name)) * 0x100000001b3;
    return hash ^ (hash >> 32);
}

// The slot that holds the name, or else the empty one where it belongs.
static uci_name_slot *index_slot(const uci_name_index *index, uint64_t hash, const void *owner,
                                 const char *name)
{
    for (size_t i = static_cast<size_t>(hash);; ++i) {
        uci_name_slot *const slot = &index->slots[i & (index->capacity - 1)];
        if (slot->element == nullptr ||
            (slot->hash == hash && slot->owner == owner && strcmp(slot->element->name, name) == 0))
            return slot;
    }
}

static uci_element *index_find(const uci_name_index *index, const void *owner, const char *name)
{
    return index->used == 0 ? nullptr : index_slot(index, index_hash(owner, name), owner, name)->element;
}

[[nodiscard]] static int index_grow(uci_name_index *index)
{
    uci_name_index larger = {};
    larger.capacity = index->capacity != 0 ? index->capacity * 2 : 64;
    larger.used = index->used;
    larger.slots = static_cast<uci_name_slot *>(calloc(larger.capacity, sizeof(*larger.slots)));
    if (larger.slots == nullptr)
        return UCI_ERR_MEM;
    for (size_t i = 0; i < index->capacity; ++i) {
        const uci_name_slot *const old = &index->slots[i];
        if (old->element != nullptr)
            *index_slot(&larger, old->hash, old->owner, old->element->name) = *old;
    }
    free(index->slots);
    *index = larger;
    return UCI_OK;
}

// Of two elements with the same name the first stays: a generated section name may be one that the file gave.
[[nodiscard]] static int index_add(uci_name_index *index, const void *owner, uci_element *element)
{
    if (index->used >= index->capacity / 2 && index_grow(index) != UCI_OK)
        return UCI_ERR_MEM;
    const uint64_t hash = index_hash(owner, element->name);
    uci_name_slot *const slot = index_slot(index, hash, owner, element->name);
    if (slot->element == nullptr) {
        *slot = {.hash = hash, .owner = owner, .element = element};
        ++index->used;
    }
    return UCI_OK;
}

static void free_items(uci_option *option)
{
    while (uci_element *const item = uci_list_take(&option->v.list))
        free(item);
}

static void free_section(uci_section *section)
{
    while (uci_element *const e = uci_list_take(&section->options)) {
        if (uci_to_option(e)->type == UCI_TYPE_LIST)
            free_items(uci_to_option(e));
        free(e);
    }
    free(section);
}

void uci_package_free(uci_package *package)
{
    while (uci_element *const e = uci_list_take(&package->sections))
        free_section(uci_to_section(e));
    free(package->bytes);
    free(package);
}

uci_package *uci_package_new(const char *name)
{
    const size_t nameSize = strlen(name) + 1;
    auto *const package = static_cast<uci_package *>(calloc(1, sizeof(uci_package) + nameSize));
    if (package == nullptr)
        return nullptr;
    package->e.type = UCI_TYPE_PACKAGE;
    package->e.name = reinterpret_cast<char *>(package + 1);
    memcpy(package->e.name, name, nameSize);
    uci_list_init(&package->sections);
    return package;
}

// Without a name (empty) the section gets cfg, its number and the low half of its type's hash.
[[nodiscard]] static int add_section(uci_builder *b, char *type, char *name)
{
    const bool anonymous = *name == '\0';
    auto *const section =
        static_cast<uci_section *>(calloc(1, sizeof(uci_section) + (anonymous ? generated_name_size : 0)));
    if (section == nullptr)
        return UCI_ERR_MEM;
    ++b->sectionCount;
    if (anonymous) {
        unsigned hash = 5381;
        for (const char *c = type; *c != '\0'; ++c)
            hash = hash * 33 + static_cast<unsigned char>(*c);
        name = reinterpret_cast<char *>(section + 1);
        // Always fits.
        (void)snprintf(name, generated_name_size, "cfg%02x%04x", b->sectionCount, hash & 0xffff);
    }
    section->e.type = UCI_TYPE_SECTION;
    section->e.name = name;
    section->type = type;
    section->anonymous = anonymous;
    section->package = b->package;
    uci_list_init(&section->options);
    uci_list_append(&b->package->sections, &section->e.list);
    b->section = section;
    return index_add(&b->names, b->package, &section->e);
}

int uci_build_section(uci_builder *b, char *type, char *name)
{
    uci_element *const known = *name != '\0' ? index_find(&b->names, b->package, name) : nullptr;
    if (known == nullptr)
        return add_section(b, type, name);
    if (strcmp(uci_to_section(known)->type, type) != 0)
        return UCI_ERR_DUPLICATE;
    b->section = uci_to_section(known);
    return UCI_OK;
}

// The option of that name in the open section, made where there is none: a string that is still null.
static uci_option *obtain_option(uci_builder *b, char *name)
{
    uci_element *const known = index_find(&b->names, b->section, name);
    if (known != nullptr)
        return uci_to_option(known);
    auto *const option = static_cast<uci_option *>(calloc(1, sizeof(uci_option)));
    if (option == nullptr)
        return nullptr;
    option->e.type = UCI_TYPE_OPTION;
    option->e.name = name;
    option->section = b->section;
    option->type = UCI_TYPE_STRING;
    uci_list_append(&b->section->options, &option->e.list);
    return index_add(&b->names, b->section, &option->e) == UCI_OK ? option : nullptr;
}

[[nodiscard]] static int add_item(uci_option *list, char *value)
{
    auto *const item = static_cast<uci_element *>(calloc(1, sizeof(uci_element)));
    if (item == nullptr)
        return UCI_ERR_MEM;
    item->type = UCI_TYPE_ITEM;
    item->name = value;
    uci_list_append(&list->v.list, &item->list);
    return UCI_OK;
}

int uci_build_option(uci_builder *b, char *name, char *value)
{
    if (*value == '\0')
        return UCI_OK; // an empty value neither makes nor changes an option
    uci_option *const option = obtain_option(b, name);
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
    uci_option *const option = obtain_option(b, name);
    if (option == nullptr)
        return UCI_ERR_MEM;
    if (option->type == UCI_TYPE_STRING) {
        char *const former = option->v.string;
        option->type = UCI_TYPE_LIST;
        uci_list_init(&option->v.list);
        if (former != nullptr && add_item(option, former) != UCI_OK)
            return UCI_ERR_MEM;
    }
    return add_item(option, value);
}

void uci_build_end(uci_builder *b)
{
    free(b->names.slots);
    b->names = {};
}
