#include "platform/ipcom_list.h"

static void resize(ipcom_list *head, int32_t by)
{
    __atomic_store_n(&head->size, head->size + by, __ATOMIC_RELAXED);
}

void ipcom_list_init(ipcom_list *head)
{
    head->next = head;
    head->prev = head;
    head->head = head;
    head->size = 0;
}

void ipcom_list_insert_last(ipcom_list *head, ipcom_list *record)
{
    ipcom_list_insert_before(head, record);
}

void ipcom_list_insert_before(ipcom_list *position, ipcom_list *record)
{
    record->next = position;
    record->prev = position->prev;
    record->head = position->head;
    position->prev->next = record;
    position->prev = record;
    resize(record->head, 1);
}

void ipcom_list_remove(ipcom_list *record)
{
    if (record->head == nullptr)
        return;
    record->prev->next = record->next;
    record->next->prev = record->prev;
    resize(record->head, -1);
    record->next = nullptr;
    record->prev = nullptr;
    record->head = nullptr;
}

ipcom_list *ipcom_list_first(const ipcom_list *head)
{
    return head->next == head ? nullptr : head->next;
}

ipcom_list *ipcom_list_next(const ipcom_list *record)
{
    return record->next == record->head ? nullptr : record->next;
}
