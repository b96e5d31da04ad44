#include "run_program.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"

static constexpr int64_t limit_ms = 30000;

int run_program(const char *command, const char *first, const char *second, const char *third)
{
    char with_words[1024];
    const int length = snprintf(with_words, sizeof with_words, "%s \"$@\"", command);
    if (length < 0 || length >= static_cast<int>(sizeof with_words))
        return -1;
    const pid_t child = fork();
    if (child == 0) {
        (void)setpgid(0, 0);
        execl("/bin/sh", "sh", "-c", with_words, "dnsproxyctl", first, second, third,
              static_cast<char *>(nullptr));
        _exit(127);
    }
    if (child < 0)
        return -1;
    const int64_t deadline = now_ms() + limit_ms;
    int status = 0;
    for (;;) {
        constexpr timespec moment = {.tv_sec = 0, .tv_nsec = 10'000'000};
        const pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (ended < 0 && errno != EINTR)
            return -1;
        if (now_ms() >= deadline)
            break;
        (void)nanosleep(&moment, nullptr);
    }
    (void)kill(-child, SIGKILL);
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return -1;
}
