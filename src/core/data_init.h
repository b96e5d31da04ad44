// The first steps of the start: the timer service and the request pipe.
#ifndef CORE_DATA_INIT_H
#define CORE_DATA_INIT_H

constexpr int DNSPROXY_REQUEST_CAPACITY = 200; // messages that the request pipe holds

// Makes the timer service and clears the cache-server state; 0 or DNSPROXY_ERESOURCE.
[[nodiscard]] int dnsproxy_data_init();

// Deletes the timer service, if there is one.
void dnsproxy_data_deinit();

// Makes the request pipe. The non-negative result of its creation, or DNSPROXY_ERESOURCE, also when another
// daemon holds it.
[[nodiscard]] int dnsproxy_pipe_init();

// Deletes the request pipe, if this process made it or nobody holds it.
void dnsproxy_pipe_deinit();

#endif
