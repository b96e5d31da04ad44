#include "core/descriptor.h"

#include <cerrno>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/dnsproxy_data.h"
#include "core/read_ahead.h"

int descriptor_socket(int family, int type, int protocol)
{
    const int fd = socket(family, type | SOCK_CLOEXEC, protocol);
    if (fd < FD_SETSIZE)
        return fd;
    close(fd);
    errno = EMFILE;
    return -1;
}

void descriptor_close(int32_t *fd)
{
    if (*fd > 0) {
        ipcom_tmo2_forget(dnsproxy_data.tmo2Head, *fd);
        read_ahead_forget(*fd);
        close(*fd);
    }
    *fd = -1;
}
