// Tests that use the daemon's fixed paths run in the sandbox of lab/enter, where these are private.
#ifndef TESTS_SANDBOX_H
#define TESTS_SANDBOX_H

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

// Ends the program when it is not in the sandbox. To be called before any test runs.
inline bool require_sandbox()
{
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
        if (line.starts_with("lab / overlay "))
            return true;
    }
    std::cerr << "this test needs the sandbox: run it by lab/enter\n";
    exit(EXIT_FAILURE);
}

#endif
