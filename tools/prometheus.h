// The daemon's numbers in the exposition format of Prometheus, in base units.
#ifndef TOOLS_PROMETHEUS_H
#define TOOLS_PROMETHEUS_H

#include "statistics.h"

// Prints them to standard output; numbers that are not known are left out.
void show_prometheus(const statistics &s);

#endif
