#include "request.h"

#include <cerrno>
#include <cstring>

#include "control/client_call.h"

int request_within(dnsproxy_public_msg *msg, int64_t wait_ms, int *error)
{
    errno = 0;
    const int status = dnsproxy_client_request(msg, wait_ms);
    *error = errno;
    return status;
}

void *trailing_data(const dnsproxy_public_msg *reply)
{
    // The message carries the address as a number, the same on every target.
    return reinterpret_cast<void *>(static_cast<uintptr_t>(reply->data)); // NOLINT(performance-no-int-to-ptr)
}

const char *no_reply_words(int error)
{
    switch (error) {
    case ENOENT:
    case ENXIO:
        return "dnsproxyd is not running";
    case EACCES:
    case EPERM:
        return "only root may ask dnsproxyd, run it as root";
    case EAGAIN:
        return "too many requests wait for dnsproxyd, it serves none of them";
    case ETIMEDOUT:
        return "dnsproxyd did not answer in time";
    case EPROTO:
        return "the answer of dnsproxyd is cut or of another version";
    case EREMOTEIO:
        return "dnsproxyd could not do it";
    default:
        return strerror(error);
    }
}
