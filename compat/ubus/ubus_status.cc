#include "libubus.h"

#include <cstdio>

static constexpr const char *texts[] = {
    "Success",
    "Invalid command",
    "Invalid argument",
    "Method not found",
    "Not found",
    "No response",
    "Permission denied",
    "Request timed out",
    "Operation not supported",
    "Unknown error",
    "Connection failed",
    "Out of memory",
    "Parsing message data failed",
    "System error",
};
static_assert(ARRAY_SIZE(texts) == UBUS_STATUS_SYSTEM_ERROR + 1);

const char *ubus_strerror(int error)
{
    if (error >= 0 && error < static_cast<int>(ARRAY_SIZE(texts)))
        return texts[error];
    static char unknown[32];
    (void)snprintf(unknown, sizeof(unknown), "Unknown error: %d", error); // it has room for any number
    return unknown;
}
