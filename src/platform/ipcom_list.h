// Circular, intrusive list. One record type serves as the head of a list and as the link that is the first
// member of every listed record, so a pointer to the link is a pointer to the record. A link knows its
// head: removing a record needs no head and keeps `size` exact. Nothing here allocates or locks.
#ifndef PLATFORM_IPCOM_LIST_H
#define PLATFORM_IPCOM_LIST_H

#include <cstdint>

struct ipcom_list {
    ipcom_list *next;
    ipcom_list *prev;
    ipcom_list *head; // the list that holds this link; a head holds itself; nullptr while unlinked
    int32_t size;     // of a head: number of records linked into it
};

// Makes `head` an empty list. Records that it held keep stale links.
void ipcom_list_init(ipcom_list *head);

// Appends `record`, which must not be in a list.
void ipcom_list_insert_last(ipcom_list *head, ipcom_list *record);

// Links `record` just before `position`, a listed record or the head itself (then the record becomes the
// last one).
void ipcom_list_insert_before(ipcom_list *position, ipcom_list *record);

// Unlinks `record` from the list that holds it; does nothing for a record in no list.
void ipcom_list_remove(ipcom_list *record);

// The first record, or nullptr when the list is empty.
ipcom_list *ipcom_list_first(const ipcom_list *head);

// The record after `record`, or nullptr after the last.
ipcom_list *ipcom_list_next(const ipcom_list *record);

// Number of records, for a thread that must not look at the list itself.
inline int32_t ipcom_list_size(const ipcom_list *head)
{
    return __atomic_load_n(&head->size, __ATOMIC_RELAXED);
}

// Typed walk for records whose first member is their link:
//     for (auto *sif = ipcom_first<dnsproxy_server_if>(list); sif != nullptr; sif = ipcom_next(sif))
template <class Record> Record *ipcom_first(const ipcom_list &head)
{
    return reinterpret_cast<Record *>(ipcom_list_first(&head));
}

template <class Record> Record *ipcom_next(const Record *record)
{
    return reinterpret_cast<Record *>(ipcom_list_next(&record->link));
}

#endif
