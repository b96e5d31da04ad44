// The log and every other text that goes to standard output.
//
// A log line is "[LEVEL][OPERATION:LINE]:(STATUS)MESSAGE". It is written when dnsproxy_data.logLevel is at
// least its level; a line that is off costs one compare, its arguments are not evaluated. Log texts are an
// interface: people search for them, so they stay letter for letter as they are, odd spelling included.
#ifndef CORE_LOG_H
#define CORE_LOG_H

#include <cstddef>
#include <cstdio>

#include "core/dnsproxy_data.h"

enum dnsproxy_log_level {
    DNSPROXY_LOG_EMERGENCY,
    DNSPROXY_LOG_ALERT,
    DNSPROXY_LOG_CRITICAL,
    DNSPROXY_LOG_ERROR,
    DNSPROXY_LOG_WARNING,
    DNSPROXY_LOG_NOTICE,
    DNSPROXY_LOG_INFORMATION,
    DNSPROXY_LOG_DEBUG,
    DNSPROXY_LOG_TRACE,
};

// DNSPROXY_LOG(ERROR, __func__, status, "format", ...). An operation written once for both families hands
// in the name of the one that was called. Messages are given without their final line feed.
#define DNSPROXY_LOG(level, op, status, ...)                                                                 \
    do {                                                                                                     \
        if (dnsproxy_log_is_on(DNSPROXY_LOG_##level)) [[unlikely]]                                           \
            dnsproxy_log_write(DNSPROXY_LOG_##level, op, __LINE__, status, __VA_ARGS__);                     \
    } while (0)

// Ends an operation with the Trace line that carries its result.
#define DNSPROXY_RETURN(op, status)                                                                          \
    do {                                                                                                     \
        const int result_ = (status);                                                                        \
        DNSPROXY_LOG(TRACE, op, result_, "%s", "");                                                          \
        return result_;                                                                                      \
    } while (0)

inline bool dnsproxy_log_is_on(dnsproxy_log_level level)
{
    return dnsproxy_data.logLevel >= level;
}

[[gnu::cold, gnu::format(printf, 5, 6)]] void
dnsproxy_log_write(dnsproxy_log_level level, const char *op, int line, int status, const char *format, ...);

// Writes to standard output in pieces of at most 4096 bytes. A file gets everything; a pipe, a socket or a
// terminal gets only what it can take at once, so that a reader that stalls or has gone loses output and
// never holds up the service.
void dnsproxy_output(const char *text, size_t length);

// Collects the text of a dump in memory:
//     dnsproxy_dump dump; if (FILE *out = dump.file()) fprintf(out, ...); dump.write();
// Without memory the dump is lost.
class dnsproxy_dump {
public:
    dnsproxy_dump();
    ~dnsproxy_dump();
    dnsproxy_dump(const dnsproxy_dump &) = delete;
    dnsproxy_dump &operator=(const dnsproxy_dump &) = delete;
    [[nodiscard]] FILE *file() const { return file_; }
    void write();

private:
    char *text_ = nullptr; // open_memstream keeps the addresses of these two
    size_t length_ = 0;
    FILE *file_;
};

#endif
