// The bus object "dnsproxy": other programs report link states and read them. It lives on a thread of its own
// with the bus library's event loop; of the daemon's state that thread touches the server table alone,
// under serverIfLock.
#ifndef CONTROL_BUS_H
#define CONTROL_BUS_H

// Starts the bus thread. Always 0: without a thread, or without a bus, the daemon runs without the object.
int dnsproxy_ubus_start();

#endif
