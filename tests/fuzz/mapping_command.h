// Stands in for the shell that maps logical names, in programs linked with --wrap=popen and --wrap=pclose:
// what a command prints comes from the input.
#ifndef TESTS_FUZZ_MAPPING_COMMAND_H
#define TESTS_FUZZ_MAPPING_COMMAND_H

#include "tests/fuzz/fuzz.h"

constexpr uint8_t fuzz_separator = 0x1e;  // ends the output of a command
constexpr uint8_t fuzz_no_command = 0x1f; // an output that begins so: the command cannot be started

// The outputs of the commands to come, one behind the other. A command beyond the last prints the logical
// name itself. The bytes are the caller's and stay until the next call.
void fuzz_mapping_outputs(fuzz_bytes outputs);

#endif
