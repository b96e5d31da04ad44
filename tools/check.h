// `dnsproxyctl check`: looks for everything that keeps hosts from getting answers, and says what to do.
#ifndef TOOLS_CHECK_H
#define TOOLS_CHECK_H

#include "command.h"

// Prints each finding with its remedy to standard output, or all of them as one JSON document.
int run_check(const invocation &given);

#endif
