// Event report to the router's management service.
#ifndef PLATFORM_NMS_EVENT_H
#define PLATFORM_NMS_EVENT_H

#include <cstdint>

// Reports event `code` with `text` (JSON) through the management library, libnms_event_report_so.so, which
// is looked up once, with the first report. On a router without it the event goes to the system log (facility
// daemon, warning), by a datagram that never waits: a log that does not read loses it. `data` is passed on as
// it is. Returns the library's result, or 0.
int nms_event_notify(int32_t code, void *data, const char *text);

#endif
