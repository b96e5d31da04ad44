// The bus's socket, and what has to be watched while the bus library connects to it.
#ifndef CONTROL_OWN_SIGNALS_H
#define CONTROL_OWN_SIGNALS_H

#include <csignal>
#include <cstddef>
#include <iterator>

constexpr char BUS_SOCKET[] = "/var/run/ubus.sock";

// The bus library takes over SIGINT, SIGTERM and SIGCHLD while it connects, if they have their default
// action, and then waits for the bus without a limit. Around such calls the first two get a handler that does
// what the default does, which the library leaves alone; afterwards all three are as they were, so that one
// SIGTERM ends the daemon at any time and children stay with whoever made them.
class own_signals {
public:
    own_signals()
    {
        for (size_t i = 0; i < std::size(numbers); i++) {
            (void)sigaction(numbers[i], nullptr, &before_[i]);
            if (numbers[i] != SIGCHLD && before_[i].sa_handler == SIG_DFL)
                (void)signal(numbers[i], end_process);
        }
    }
    ~own_signals()
    {
        for (size_t i = 0; i < std::size(numbers); i++)
            (void)sigaction(numbers[i], &before_[i], nullptr);
    }
    own_signals(const own_signals &) = delete;
    own_signals &operator=(const own_signals &) = delete;

private:
    static void end_process(int number)
    {
        // It ends with the first round, unless the library takes the default action for its own between the
        // calls.
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, number);
        (void)pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
        for (;;) {
            (void)signal(number, SIG_DFL);
            (void)raise(number);
        }
    }

    static constexpr int numbers[] = {SIGINT, SIGTERM, SIGCHLD};
    struct sigaction before_[std::size(numbers)];
};

#endif
