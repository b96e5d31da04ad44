// The socket of the bus, and a guard for the process's signals around calls that connect to it.
#ifndef CONTROL_OWN_SIGNALS_H
#define CONTROL_OWN_SIGNALS_H

#include <csignal>
#include <cstddef>
#include <iterator>

constexpr char BUS_SOCKET[] = "/var/run/ubus.sock";

// While it connects, the bus library takes over SIGINT, SIGTERM and SIGCHLD if they have their default
// action, and waits for the bus without a limit. Around such calls SIGINT and SIGTERM get a handler with the
// effect of the default action, which the library leaves alone. Afterwards all three are restored: one
// SIGTERM ends the daemon at any time, and pclose() finds its own children.
class own_signals {
public:
    own_signals()
    {
        for (size_t i = 0; i < std::size(numbers); i++) {
            sigaction(numbers[i], nullptr, &before_[i]);
            if (numbers[i] != SIGCHLD && before_[i].sa_handler == SIG_DFL)
                signal(numbers[i], end_process);
        }
    }
    ~own_signals()
    {
        for (size_t i = 0; i < std::size(numbers); i++)
            sigaction(numbers[i], &before_[i], nullptr);
    }
    own_signals(const own_signals &) = delete;
    own_signals &operator=(const own_signals &) = delete;

private:
    static void end_process(int number)
    {
        // The first round ends the process, unless the library takes the signal over between the two calls.
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, number);
        pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
        for (;;) {
            signal(number, SIG_DFL);
            raise(number);
        }
    }

    static constexpr int numbers[] = {SIGINT, SIGTERM, SIGCHLD};
    struct sigaction before_[std::size(numbers)];
};

#endif
