// The cached list of the system's interfaces, which turns the index that comes with every IPv4 query into a
// device name, and the netlink socket that keeps it current. Main thread only.
#ifndef NET_INTF_MONITOR_H
#define NET_INTF_MONITOR_H

// Opens the netlink socket and fills the list; 0 or DNSPROXY_ERESOURCE.
[[nodiscard]] int dnsproxy_intf_socket_open();

// Reads one batch of messages and rebuilds the list when one of them is about a link. Without memory or a
// descriptor for a new list it is empty. Always 0.
int dnsproxy_intf_socket_recv();

// Rebuilds a list that is empty because the last rebuild failed. Called in every pass of the loop: without
// another link change, no message would have it rebuilt.
void intf_list_retry();

// Name of the device with that index into `name`, with its NUL. 0, or -1 for an index that is not in the list
// and for a buffer whose `size` in bytes is below 16.
int dns_if_indextoname(int index, char *name, int size);

#endif
