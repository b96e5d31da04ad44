// `dnsproxyctl watch`: asks the servers of every line again and again, and marks lines off and on by what
// comes back, for routers on which nothing else does.
#ifndef TOOLS_WATCH_H
#define TOOLS_WATCH_H

#include "command.h"

// Until SIGTERM or SIGINT.
int run_watch(const invocation &given);

#endif
