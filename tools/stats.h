// `dnsproxyctl stats`: the daemon's numbers as a table, as JSON or for Prometheus.
#ifndef TOOLS_STATS_H
#define TOOLS_STATS_H

#include "command.h"

int run_stats(const invocation &given);

#endif
