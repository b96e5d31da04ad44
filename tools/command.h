// What the commands have in common: what the command line gave them, and how they end.
#ifndef TOOLS_COMMAND_H
#define TOOLS_COMMAND_H

#include <csignal>

enum exit_status {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3,
};

enum class format { columns, json, prometheus };

constexpr int most_operands = 5; // interface and four servers

struct invocation {
    const char *command;
    const char *operands[most_operands];
    int count;
    format form;
    bool repeats;      // --watch
    double interval_s; // of --watch
    int every_s;       // the rest is of the command watch
    int down_after;
    int up_after;
    const char *query; // name that the servers are asked for
    const char *exec;  // nullptr: none
};

// Nonzero once a signal has asked for the end; only the command watch hears any.
extern volatile sig_atomic_t stop_requested;

// Prints one line to standard error, with the program's name; EXIT_USAGE, and so on.
[[gnu::format(printf, 1, 2)]] int usage_error(const char *text, ...);
[[gnu::format(printf, 2, 3)]] int failure(exit_status status, const char *text, ...);

// Ends standard output: EXIT_DONE, or EXIT_REFUSED after a line about what could not be printed.
int finish_output();

// Reads a whole number from `least` to `most`; false: it is none.
bool read_number(const char *text, int least, int most, int *number);

// Reads seconds, 0.1 to 86400; false: it is no such number.
bool read_interval(const char *text, double *seconds);

#endif
