// The bus object "dnsproxy.statistics", with its method "get". It has a connection of its own: a bus that
// refuses it, or loses it alone, changes nothing for the object "dnsproxy". Bus thread only.
#ifndef CONTROL_BUS_STATISTICS_H
#define CONTROL_BUS_STATISTICS_H

// Registers the object, over a new connection. To be called each time the object "dnsproxy" has been
// registered, which comes first. Refused, the object is not there; lost alone, it comes back after two
// seconds.
void bus_statistics_publish();

// Ends the connection, if there is one. To be called when that of the object "dnsproxy" is lost.
void bus_statistics_withdraw();

#endif
