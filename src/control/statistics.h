// The daemon's numbers as a bus message: {"uptime":..., "ipv4":{...}, "ipv6":{...}, "lines":[...]}. Bus
// thread.
#ifndef CONTROL_STATISTICS_H
#define CONTROL_STATISTICS_H

#include <libubus.h>

// Appends them. False without memory; the message is then not whole.
[[nodiscard]] bool statistics_fill(blob_buf *buf);

#endif
