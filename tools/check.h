// `dnsproxyctl check`: looks for what keeps the hosts of this router from getting answers.
#ifndef TOOLS_CHECK_H
#define TOOLS_CHECK_H

#include "answer.h"

// Prints one line per finding to standard output, with what to do about it; their number.
int show_check(format form);

#endif
