// Saves the coverage counters of a program that a signal ends, as the daemon always is. Linked into the
// programs of a coverage build.
//
// A process that shares the program's memory waits for its end and writes the counters then. It is no thread
// and no child that anything waits for, holds no descriptor, and leaves the program its signals.

#include <csignal>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" void __gcov_dump();

namespace {

alignas(16) char stack[1 << 18];

int wait_and_dump(void *)
{
    (void)prctl(PR_SET_NAME, "coverage_dump"); // nobody takes it for the program
    pollfd program = {
        .fd = static_cast<int>(syscall(SYS_pidfd_open, getppid(), 0)), .events = POLLIN, .revents = 0};
    if (program.fd < 0)
        return 1;
    for (int fd = 0; fd < program.fd; fd++)
        (void)close(fd);
    while (poll(&program, 1, -1) != 1) {
    }
    (void)alarm(5); // the program may have died inside of malloc
    __gcov_dump();  // nothing, if the program has done so itself
    return 0;
}

[[gnu::constructor]] void start()
{
    // Without a signal for its parent: no call that waits for any child finds it.
    (void)clone(wait_and_dump, stack + sizeof stack, CLONE_VM, nullptr);
}

} // namespace
