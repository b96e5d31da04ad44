// Start-up, and its undoing when it fails.
#ifndef DAEMON_START_H
#define DAEMON_START_H

// Builds the state step by step, loads the configuration and runs the event loop. 0 once the loop has
// returned, which it does only when its own set-up fails; else the status of the step that failed, with
// nothing undone.
[[nodiscard]] int dnsproxy_start();

// Undoes whatever dnsproxy_start made: tables, timer service and request pipe. Records and sockets are left
// to the end of the process.
void dnsproxy_cleanup();

#endif
