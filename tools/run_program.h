// Runs a program of the administrator's.
#ifndef TOOLS_RUN_PROGRAM_H
#define TOOLS_RUN_PROGRAM_H

// Runs a shell command with three more words and waits for it, 30 seconds at most; then it is killed with its
// children. Its exit status, or -1 where it has none.
int run_program(const char *command, const char *first, const char *second, const char *third);

#endif
