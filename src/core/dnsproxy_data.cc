#include "core/dnsproxy_data.h"

struct dnsproxy_data dnsproxy_data;
