// Prints what the daemon answered to standard output: in columns for people, or as one JSON document on a
// line of its own. An empty server slot is "-" in columns and null in JSON.
#ifndef TOOLS_ANSWER_H
#define TOOLS_ANSWER_H

#include <dnsproxy/client.h>

#include "command.h"

// The servers of one interface (op 1).
void show_servers(const dnsproxy_public_msg *reply, format form);

// All IPv4 servers (op 7).
void show_addresses(const dnsproxy_public_msg *reply, format form);

// All interfaces with their IPv4 servers (op 8).
void show_interfaces(const dnsproxy_public_msg *reply, format form);

// A change that was made: nothing in columns, {"result":0} in JSON.
void show_change(const dnsproxy_public_msg *reply, format form);

#endif
