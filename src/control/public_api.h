// The daemon's side of the request pipe: other programs read and change the server table. Main thread only.
#ifndef CONTROL_PUBLIC_API_H
#define CONTROL_PUBLIC_API_H

#include <dnsproxy/client.h>

// Carries out one request, writes the reply into the reply pipe that it names, and dumps the tables. The
// message becomes the reply. The status of the operation, or DNSPROXY_ERESOURCE when the reply could not be
// written whole; a reply pipe that cannot be opened is no failure.
int dnsproxy_public_read(dnsproxy_public_msg *msg);

#endif
