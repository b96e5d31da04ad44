#include "net/intf_monitor.h"

#include <cerrno>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/descriptor.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/ifname.h"

namespace {

constexpr size_t batch_size = 4096;

bool holds_link_message(const char *op, const nlmsghdr *message, ssize_t left)
{
    for (; left >= static_cast<ssize_t>(sizeof(nlmsghdr)) && message->nlmsg_len >= sizeof(nlmsghdr) &&
           message->nlmsg_len <= static_cast<size_t>(left);) {
        if (message->nlmsg_type == RTM_NEWLINK || message->nlmsg_type == RTM_DELLINK) {
            DNSPROXY_LOG(NOTICE, op, 0, "*****update route intf type = %d\n", message->nlmsg_type);
            return true;
        }
        DNSPROXY_LOG(WARNING, op, 0, "*****unknown nlh->nlmsg_type = %d\n", message->nlmsg_type);
        const size_t step = NLMSG_ALIGN(message->nlmsg_len);
        left -= static_cast<ssize_t>(step);
        message = reinterpret_cast<const nlmsghdr *>(reinterpret_cast<const char *>(message) + step);
    }
    return false;
}

void rebuild(const char *op)
{
    if (dnsproxy_data.ifNameIndex != nullptr)
        if_freenameindex(dnsproxy_data.ifNameIndex);
    dnsproxy_data.ifNameIndex = if_nameindex();
    if (dnsproxy_data.ifNameIndex == nullptr)
        return;
    for (const struct if_nameindex *i = dnsproxy_data.ifNameIndex; i->if_index != 0 && i->if_name != nullptr;
         i++)
        DNSPROXY_LOG(NOTICE, op, 0, "*****Interfece %d : %s\n", static_cast<int>(i->if_index), i->if_name);
}

} // namespace

int dnsproxy_intf_socket_open()
{
    dnsproxy_data.intfFd = descriptor_socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (dnsproxy_data.intfFd < 0) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ERESOURCE, "Fail to create dnsproxy intf socket.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<uint32_t>(getpid());
    address.nl_groups = RTMGRP_LINK;
    if (bind(dnsproxy_data.intfFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) {
        descriptor_close(&dnsproxy_data.intfFd);
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ERESOURCE, "Fail to bind dnsproxy intf socket.");
        DNSPROXY_RETURN(__func__, DNSPROXY_ERESOURCE);
    }
    dnsproxy_data.ifNameIndex = if_nameindex();
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_intf_socket_recv()
{
    alignas(nlmsghdr) char batch[batch_size];
    sockaddr_nl sender = {};
    iovec data = {.iov_base = batch, .iov_len = sizeof batch};
    msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    const ssize_t length = recvmsg(dnsproxy_data.intfFd, &message, MSG_DONTWAIT);
    DNSPROXY_LOG(NOTICE, __func__, 0, "*****update route intf len=%d fd=%d\n", static_cast<int>(length),
                 dnsproxy_data.intfFd);
    if (holds_link_message(__func__, reinterpret_cast<const nlmsghdr *>(batch), length))
        rebuild(__func__);
    return 0;
}

void intf_list_retry()
{
    if (dnsproxy_data.ifNameIndex == nullptr) [[unlikely]]
        rebuild(__func__);
}

int dns_if_indextoname(int index, char *name, int size)
{
    if (size < IF_NAMESIZE) {
        DNSPROXY_LOG(ERROR, __func__, 0, "*****wrong buffer size:%d (at least:%d)!!!\r\n", size, IF_NAMESIZE);
        return -1;
    }
    if (dnsproxy_data.ifNameIndex == nullptr)
        return -1;
    for (const struct if_nameindex *i = dnsproxy_data.ifNameIndex; i->if_index != 0 && i->if_name != nullptr;
         i++) {
        if (static_cast<int>(i->if_index) == index) {
            ifname_copy(name, i->if_name);
            return 0;
        }
    }
    return -1;
}
