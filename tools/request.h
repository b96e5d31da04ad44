// Requests to the running daemon through its pipe.
#ifndef TOOLS_REQUEST_H
#define TOOLS_REQUEST_H

#include <dnsproxy/client.h>

#include <cstdint>

constexpr int64_t COMMAND_WAIT_MS = 10000; // for the answer that a command is about
constexpr int64_t REPORT_WAIT_MS = 3000;   // for one of the answers of a report

// The client call with a limit in milliseconds. After DNSPROXY_ERESOURCE `*error` is the errno that tells
// why.
int request_within(dnsproxy_public_msg *msg, int64_t wait_ms, int *error);

// The list after a reply to op 7 or 8, which belongs to the caller; null when it is empty.
void *trailing_data(const dnsproxy_public_msg *reply);

// Why there was no reply, for people, from that errno.
const char *no_reply_words(int error);

#endif
