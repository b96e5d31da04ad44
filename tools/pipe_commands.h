// The commands that are requests to the daemon: list, addrs, get, set, add, put, del, delall.
#ifndef TOOLS_PIPE_COMMANDS_H
#define TOOLS_PIPE_COMMANDS_H

#include "command.h"

// Checks the operands, of which there are as many as the command may have, and carries it out.
int run_pipe_command(const invocation &given);

#endif
