// Sends replies to the hosts. Under load a reply may wait here for the next ones: in their order they leave
// with one system call. Main thread only.
#ifndef FORWARD_RELAY_H
#define FORWARD_RELAY_H

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "cache/cache_entry.h"
#include "cache/noreply.h"
#include "core/counters.h"

// What an accepted reply changes.
struct acceptance {
    uint64_t *flags;     // of the query's record
    slot_counters *slot; // of the server that it counts for; nullptr: none
    int64_t ns;          // from the query's first send
};

inline void relay_accept(const acceptance &a)
{
    dnsproxy_noreply_reset();
    *a.flags |= DNSPROXY_ENTRY_ANSWERED;
    if (a.slot != nullptr)
        count_reply(a.slot, a.ns);
}

// The way to a host.
struct way_back {
    int fd; // listen socket of the host's family
    socklen_t size;
    union {
        sockaddr any;
        sockaddr_in v4;
        sockaddr_in6 v6;
    } address;
};

// A reply that waits.
struct relay {
    way_back to;
    uint16_t new_id; // of its query, host order
    bool was_pending;
    const uint8_t *message;
    size_t length;
    acceptance accepted;
};

// Sends a reply, behind those that wait. False: it could not leave.
bool relay_now(const way_back &to, const uint8_t *message, size_t length);

// Lets a reply wait; not while the log is on, which tells of failures when they happen. Until it has left, it
// counts as relayed: its query is no longer pending. If it then cannot leave, the query is as before. All
// that it points to must stay until then.
void relay_later(const relay &r);

// Sends those that wait. To be called before anything goes that they point to: before the loop waits, when
// records and lines may go, and before a socket is closed.
void relay_flush();

// Sends those that wait if the outcome could change whether this identifier is pending.
void relay_settle(uint16_t new_id);

#endif
