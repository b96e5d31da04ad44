// Stand-in for libubox: the link of a list.
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

// Circular: the head stands between the last element and the first.
struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

#endif
