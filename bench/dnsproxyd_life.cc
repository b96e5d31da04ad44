// The daemon, with another life for its records: dnsproxyd_life MILLISECONDS
//
// At the same rate of queries it then holds as many in flight as a benchmark wants.

#include <csignal>
#include <cstdlib>
#include <unistd.h>

#include "core/dnsproxy_data.h"
#include "daemon/start.h"

int main(int argc, char **argv)
{
    const long life = argc == 2 ? strtol(argv[1], nullptr, 10) : 0;
    if (life < 1 || life > 60000)
        return 1;
    dnsproxy_data.dnsproxyCacheTimeout = static_cast<int32_t>(life);
    (void)signal(SIGPIPE, SIG_IGN);
    if (dnsproxy_start() == 0)
        (void)pause();
    return 1;
}
