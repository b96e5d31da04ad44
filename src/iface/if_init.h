// Both interface tables at start and at the end.
#ifndef IFACE_IF_INIT_H
#define IFACE_IF_INIT_H

// Makes the lists and tables of the listen and the server interfaces. 0, or DNSPROXY_ERESOURCE: a table that
// was made before the failure stays.
[[nodiscard]] int dnsproxy_if_init();

// Deletes both tables, where they are there. Records are not freed.
void dnsproxy_if_deinit();

#endif
