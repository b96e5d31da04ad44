// `dnsproxyctl status`: whether the daemon serves, and what it knows of its lines.
#ifndef TOOLS_STATUS_H
#define TOOLS_STATUS_H

#include "answer.h"

struct status_result {
    int daemon;   // negative: no daemon answered, with its code
    bool serving; // over both families
};

// Prints the status to standard output.
status_result show_status(format form);

#endif
