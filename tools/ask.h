// Asks DNS servers directly, each through the device of its line, as the daemon's queries go.
#ifndef TOOLS_ASK_H
#define TOOLS_ASK_H

#include "wan_lines.h"

struct question {
    const line *through;
    sockaddr_storage server;
    socklen_t server_length;
    int fd; // -1 where there is no socket
    bool answered;

    // The server as text.
    void text(char (&address)[INET6_ADDRSTRLEN]) const;
};

// Fills `questions` with the servers of a line, four at most; their number.
int questions_of(const line *l, question *questions);

// Sends every question, once more after a second, and waits up to three seconds for the answers, whatever
// they say. Ends as soon as all have answered.
void ask(question *questions, int count);

#endif
