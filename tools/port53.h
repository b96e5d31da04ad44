// Who holds UDP port 53 of this machine.
#ifndef TOOLS_PORT53_H
#define TOOLS_PORT53_H

#include <sys/types.h>

struct process {
    pid_t pid; // 0: no process; -1: one that this user may not see
    char name[16];

    [[nodiscard]] bool is_daemon() const;
    [[nodiscard]] bool is_other() const; // somebody else, for certain
    [[nodiscard]] bool is_hidden() const { return pid < 0; }
};

enum class served { no, yes, unknown };

struct port53 {
    process ipv4;
    process ipv6;

    // The daemon serves when it has both: with one taken from it, it gives up the other unused. Other users
    // than root may not see who holds a port.
    [[nodiscard]] enum served served() const;
};

// Of each family the daemon if it holds the port, else the first other process that has it at any address,
// which is enough to keep the daemon from opening it.
port53 port53_owners();

// A running daemon, whatever it holds; pid 0 when there is none.
process find_daemon();

// The group that a process runs in, or -1.
gid_t group_of(const process &p);

#endif
