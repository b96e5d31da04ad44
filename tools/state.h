// `dnsproxyctl up` and `down`: the link state of a line, over the bus.
#ifndef TOOLS_STATE_H
#define TOOLS_STATE_H

#include "bus.h"
#include "command.h"
#include "statistics.h"

int run_state(const invocation &given);

// Marks the line of a device. `name` is for the daemon's log.
bus_result set_state(const char *name, const char *device, link_state state);

#endif
