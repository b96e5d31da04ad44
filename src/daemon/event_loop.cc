#include "daemon/event_loop.h"

#include <algorithm>
#include <cstdlib>

#include "control/public_api.h"
#include "core/descriptor.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/read_ahead.h"
#include "core/status.h"
#include "forward/relay.h"
#include "forward/reply.h"
#include "forward/request.h"
#include "iface/server_record.h"
#include "iface/upstream_socket.h"
#include "net/intf_monitor.h"
#include "net/proxy_socket.h"
#include "platform/qxcom_nmpipe.h"

namespace {

constexpr char op[] = "dnsproxyd";
constexpr int64_t unasked_max_ns = 1'000'000; // for which passes go on without asking the kernel

// State of the loop alone.
struct loop {
    dnsproxy_public_msg *publicMsgBuf; // one request, reused for every one
    int publicFd;
    bool pipeServed; // by the last pass: replies that wait then come first
    fd_set reads;    // the descriptors that a pass waits for
    int highest;     // of them
    bool unserved;   // the last pass left something ready, or served something else than DNS sockets
};

int set_up(loop *l)
{
    l->publicMsgBuf = static_cast<dnsproxy_public_msg *>(calloc(1, sizeof(dnsproxy_public_msg)));
    if (l->publicMsgBuf == nullptr) {
        DNSPROXY_LOG(ERROR, op, 0, "%s", "");
        return DNSPROXY_ENOMEMORY;
    }
    l->publicFd = qxcom_nmpipe_open(DNSPROXY_REQUEST_PIPE, NMPIPE_READWRITE, 0);
    if (l->publicFd < 0 || l->publicFd >= FD_SETSIZE) {
        DNSPROXY_LOG(ERROR, op, DNSPROXY_ERESOURCE, "Fail to open dns server fd.");
        return DNSPROXY_ERESOURCE;
    }
    int status = dnsproxy_listen_socket_open();
    if (status < 0) {
        DNSPROXY_LOG(ERROR, op, status, "Fail to build listen socket.");
        return status;
    }
    status = dnsproxy_intf_socket_open();
    if (status < 0)
        DNSPROXY_LOG(ERROR, op, status, "Fail to build intf socket.");
    return status;
}

// The read set is built anew only after an upstream socket was opened or closed: with hundreds of lines that
// takes longer than the rest of a query.
void refresh_reads(loop *l)
{
    if (!upstream_sockets_changed()) [[likely]]
        return;
    FD_ZERO(&l->reads);
    FD_SET(l->publicFd, &l->reads);
    l->highest = l->publicFd;
    dnsproxy_fdset_build(&l->reads, &l->highest);
}

void add_fd(int fd, fd_set *reads, int *highest)
{
    FD_SET(fd, reads);
    *highest = std::max(*highest, fd);
}

// Whether `fd` is among the `*count` ready descriptors that are left; then it is no longer.
[[gnu::always_inline]] inline bool take_ready(int fd, const fd_set *ready, int *count)
{
    if (!descriptor_is_ready(fd, ready, *count))
        return false;
    --*count;
    return true;
}

void serve_request_pipe(loop *l)
{
    DNSPROXY_LOG(DEBUG, op, 0, "Recv a public api msg.");
    const ptrdiff_t length = qxcom_nmpipe_read(l->publicFd, l->publicMsgBuf, sizeof *l->publicMsgBuf);
    if (length != static_cast<ptrdiff_t>(sizeof *l->publicMsgBuf)) {
        DNSPROXY_LOG(ERROR, op, static_cast<int>(length), "The len read public api fd is wrong.");
        return;
    }
    const int status = dnsproxy_public_read(l->publicMsgBuf);
    if (status < 0)
        DNSPROXY_LOG(NOTICE, op, status, "Fail to read public api msg.");
}

// What waits at the sockets that were read ahead is ready too.
[[gnu::noinline]] int add_read_ahead(fd_set *ready, int count)
{
    if (count < 1)
        FD_ZERO(ready);
    return std::max(count, 0) + read_ahead_add(ready);
}

// Whether the datagrams that were read ahead are known to be all, and the kernel was asked just now. They
// last for a few passes: each takes one of every socket.
bool need_not_ask(const loop &l)
{
    return !l.unserved && read_ahead_suffices() &&
           ipcom_tmo2_clock() - ipcom_tmo2_now(dnsproxy_data.tmo2Head) < unasked_max_ns;
}

// What a pass serves.
int find_ready(loop *l, fd_set *ready)
{
    static constexpr timeval at_once = {};
    const bool ahead = read_ahead_waits();
    if (ahead && need_not_ask(*l))
        return add_read_ahead(ready, 0);
    relay_flush();
    refresh_reads(l);
    *ready = l->reads;
    const int count = ipcom_tmo2_select(dnsproxy_data.tmo2Head, l->highest + 1, ready, nullptr, nullptr,
                                        ahead ? &at_once : nullptr);
    read_ahead_waited();
    return ahead ? add_read_ahead(ready, count) : count;
}

// Serves each ready descriptor once, in this order. A pass may end early; what it left is ready again in the
// next one.
void pass(loop *l)
{
    fd_set ready;
    int count = find_ready(l, &ready);
    l->unserved = true;
    if (count < 1) {
        DNSPROXY_LOG(NOTICE, op, 0, "Interrupt,Msg num < 0.");
        return;
    }
    const bool links_changed = take_ready(dnsproxy_data.intfFd, &ready, &count);
    if (links_changed) {
        DNSPROXY_LOG(TRACE, op, 0, "Recv a intf route change packet.");
        dnsproxy_intf_socket_recv();
    }
    intf_list_retry();
    if (take_ready(dnsproxy_data.listenFd, &ready, &count)) {
        DNSPROXY_LOG(TRACE, op, 0, "Recv a dns request packet.");
        const int status = dnsproxy_listen_socket_recv();
        if (status < 0) {
            DNSPROXY_LOG(TRACE, op, status, "Fail to recv a dns request.");
            return;
        }
    }
    if (take_ready(dnsproxy_data.listenFd6, &ready, &count)) {
        DNSPROXY_LOG(TRACE, op, 0, "Recv a IPv6 dns request packet.");
        const int status = dnsproxy_listen_socket_recv_v6();
        if (status < 0) {
            DNSPROXY_LOG(TRACE, op, status, "Fail to recv a IPv6 dns request.");
            return;
        }
    }
    // A pass that serves the pipe leaves the upstream sockets to the next one, so that one must not be the
    // pipe's again: clients that keep it full would hold up every reply.
    const bool pipe_ready = take_ready(l->publicFd, &ready, &count);
    l->pipeServed = pipe_ready && !(l->pipeServed && count > 0);
    if (l->pipeServed) {
        serve_request_pipe(l);
        return;
    }
    dnsproxy_server_socket_read(&ready, &count);
    l->unserved = links_changed || count > 0;
}

} // namespace

void dnsproxy_fdset_build(fd_set *reads, int *highest)
{
    add_fd(dnsproxy_data.listenFd, reads, highest);
    add_fd(dnsproxy_data.listenFd6, reads, highest);
    add_fd(dnsproxy_data.intfFd, reads, highest);
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (sif->serverFd > 0)
            add_fd(sif->serverFd, reads, highest);
        if (sif->serverFd6 > 0)
            add_fd(sif->serverFd6, reads, highest);
    }
}

int dnsproxyd()
{
    loop l = {};
    l.publicFd = -1;
    const int status = set_up(&l);
    if (status < 0) {
        DNSPROXY_LOG(ERROR, op, status, "dnsproxyd error.");
        descriptor_close(&dnsproxy_data.listenFd);
        qxcom_nmpipe_close(l.publicFd);
        free(l.publicMsgBuf);
        return status;
    }
    for (;;)
        pass(&l);
}
