// The dump of both interface tables and the cache-server state.
#ifndef IFACE_IF_SHOW_H
#define IFACE_IF_SHOW_H

// Writes the dump to standard output, whatever the log threshold. Always 0.
int dnsproxy_if_show();

#endif
