// `dnsproxyctl status`: whether the daemon serves, and what it knows of its lines.
#ifndef TOOLS_STATUS_H
#define TOOLS_STATUS_H

#include "command.h"

int run_status(const invocation &given);

#endif
