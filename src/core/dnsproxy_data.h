// The process-wide state and its two fixed settings. Everything here belongs to the main thread unless its
// note says otherwise, lives as long as the process, and is zero at start where no value is given.
#ifndef CORE_DNSPROXY_DATA_H
#define CORE_DNSPROXY_DATA_H

#include <cstdint>
#include <net/if.h>
#include <pthread.h>

#include "core/counters.h"
#include "platform/ipcom_hash.h"
#include "platform/ipcom_list.h"
#include "platform/ipcom_tmo2.h"

constexpr char DNSPROXY_REQUEST_PIPE[] = "dnsproxypublicrecvpipe";

struct dnsproxy_data {
    int32_t dnsproxyCacheTimeout = 10000; // milliseconds that a query in flight is remembered
    int32_t dnsproxyQueryMax = 4096;      // a quarter of the buckets of each request cache table
    int32_t logLevel;                     // threshold; nothing in the daemon changes it

    ipcom_tmo2_head *tmo2Head; // every timer of the process

    ipcom_list listenIfList; // dnsproxy_listen_if, in the order of the rules
    ipcom_hash *listenIfHash;
    // The main thread alone adds, removes and moves server interfaces, under the lock; the bus thread reads
    // list and table under it. It is held across no system call but those for memory.
    pthread_mutex_t serverIfLock = PTHREAD_MUTEX_INITIALIZER;
    ipcom_list serverIfList; // dnsproxy_server_if, in the order in which they are tried
    ipcom_hash *serverIfHash;
    int32_t allServerIfDown; // both threads, by server_if_all_down

    pthread_t ubusThread;

    ipcom_list cacheList; // dnsproxy_cache_entry, oldest first
    ipcom_hash *cacheHash;
    ipcom_hash *cacheIdHash;
    ipcom_list cacheList6; // dnsproxy_cache_entry_v6, oldest first
    ipcom_hash *cacheHash6;
    ipcom_hash *cacheIdHash6;

    int32_t noReplyCount; // both under noReplyLock
    int32_t noReplyArmed = 1;
    pthread_mutex_t noReplyLock = PTHREAD_MUTEX_INITIALIZER;

    uint32_t cacheServerSet; // 1: cacheServerIfname is chosen
    char cacheServerIfname[IF_NAMESIZE];

    // The next identifier of a forwarded query of either family, host order. Drawn by forward/identifier.h
    // alone.
    uint16_t nextNewId = 1;
    int listenFd;
    int listenFd6;
    // An upstream socket was opened or closed since the loop built its read set. Kept by
    // iface/upstream_socket.cc.
    bool upstreamFdsChanged = true;
    // 1: the latest query came in on a forced listen interface. Set by forward/request.cc, read for each
    // reply.
    int32_t specIface;
    uint8_t pendingIdMap[128]; // 1024 bits

    int64_t startedAt; // nanoseconds of the timer service's clock
    query_counters queryCounters;
    query_counters queryCounters6;

    int intfFd;
    struct if_nameindex *ifNameIndex; // nullptr: empty
    char pppoesIfname[IF_NAMESIZE];
};

extern struct dnsproxy_data dnsproxy_data;

#endif
