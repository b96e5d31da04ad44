#include "core/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr size_t piece_max = 4096; // a pipe that polls writable takes this much whole
constexpr size_t line_max = 2048;  // longer log lines are cut

constexpr const char *level_names[] = {"Emergency", "Alert",       "Critical", "Error", "Warning",
                                       "Notice",    "Information", "Debug",    "Trace"};

bool is_file(int fd)
{
    struct stat st = {};
    return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}

bool takes_now(int fd)
{
    pollfd p = {.fd = fd, .events = POLLOUT, .revents = 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLOUT) != 0;
}

// Writes until `fd` takes no more. A descriptor that can block is asked before each piece; a file never
// stalls.
void write_pieces(int fd, bool can_block, const char *text, size_t length)
{
    while (length > 0) {
        if (can_block && !takes_now(fd))
            return;
        const ssize_t put = write(fd, text, std::min(length, piece_max));
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return;
        text += put;
        length -= static_cast<size_t>(put);
    }
}

// A terminal that polls writable may take less than a piece, so it is written without waiting. O_NONBLOCK on
// standard output itself would be set for every program that shares it: the terminal is opened again.
void write_to_terminal(const char *text, size_t length)
{
    const int fd = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return;
    write_pieces(fd, false, text, length);
    close(fd);
}

} // namespace

void dnsproxy_output(const char *text, size_t length)
{
    const int error = errno;
    if (isatty(STDOUT_FILENO) == 1)
        write_to_terminal(text, length);
    else
        write_pieces(STDOUT_FILENO, !is_file(STDOUT_FILENO), text, length);
    errno = error;
}

void dnsproxy_log_write(dnsproxy_log_level level, const char *op, int line, int status, const char *format,
                        ...)
{
    const int error = errno;
    char text[line_max];
    const int head = snprintf(text, sizeof text, "[%s][%s:%d]:(%d)", level_names[level], op, line, status);
    if (head < 0)
        return;
    size_t length = std::min(static_cast<size_t>(head), sizeof text - 2);
    va_list args;
    va_start(args, format);
    const int body = vsnprintf(text + length, sizeof text - 1 - length, format, args);
    va_end(args);
    if (body > 0)
        length = std::min(length + static_cast<size_t>(body), sizeof text - 2);
    text[length++] = '\n';
    dnsproxy_output(text, length);
    errno = error;
}

dnsproxy_dump::dnsproxy_dump() : file_(open_memstream(&text_, &length_)) {}

dnsproxy_dump::~dnsproxy_dump()
{
    if (file_ != nullptr)
        fclose(file_);
    free(text_);
}

void dnsproxy_dump::write()
{
    if (file_ != nullptr && fflush(file_) == 0)
        dnsproxy_output(text_, length_);
}
