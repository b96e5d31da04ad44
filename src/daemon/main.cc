// dnsproxyd takes no arguments, stays in the foreground and exits with status 0 whenever it ends by itself.

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "core/log.h"
#include "daemon/start.h"

namespace {

// Standard descriptors that the parent closed would be given to sockets, and 0 counts as a closed socket.
// They stay open in children: a mapping command would write its errors into the next file that it opens.
void open_standard_descriptors()
{
    int fd = 0;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd >= 0)
        close(fd);
}

} // namespace

int main()
{
    open_standard_descriptors();
    // A write to a reader that has gone is an error of that write, not the end of the service.
    signal(SIGPIPE, SIG_IGN);
    const int status = dnsproxy_start();
    if (status == 0) {
        // The event loop could not be set up. The bus object stays available.
        for (;;)
            sleep(1000);
    }
    DNSPROXY_LOG(ERROR, __func__, status, "dnsproxy_start failed.");
    dnsproxy_cleanup();
    return 0;
}
