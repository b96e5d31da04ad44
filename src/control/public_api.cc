#include "control/public_api.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include "cache/cache_server.h"
#include "config/effect_devices.h"
#include "config/online_state.h"
#include "control/public_msg.h"
#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/if_show.h"
#include "iface/server_if.h"
#include "platform/qxcom_nmpipe.h"

namespace {

constexpr char op_name[] = "dnsproxy_public_read";

// A field of a message as a string. A client may have left its NUL out.
template <size_t N> struct bounded {
    char text[N + 1];
    explicit bounded(const char (&field)[N])
    {
        memcpy(text, field, N);
        text[N] = '\0';
    }
};

// A request in work.
struct request {
    dnsproxy_public_msg *msg;
    char device[IF_NAMESIZE];
    void *trailing; // msg->dataLen bytes to follow the reply, or nullptr
};

// Every change of the table ends with forgetting the cache server, which it may have taken away.
int changed(int status)
{
    if (status >= 0)
        dnsproxy_server_if_resetCache();
    return status < 0 ? status : 0;
}

int get(request *r)
{
    const dnsproxy_server_if *sif = dnsproxy_server_if_get(r->device);
    if (sif == nullptr) {
        DNSPROXY_LOG(NOTICE, op_name, DNSPROXY_ENOTFOUND, "Can not find the server if(ifname:%s).",
                     r->device);
        return DNSPROXY_ENOTFOUND;
    }
    r->msg->dnsFlag = 1;
    r->msg->dns2Flag = 1;
    r->msg->dns = sif->dnsServer[0];
    r->msg->dns2 = sif->dnsServer[1];
    r->msg->dns6 = sif->dnsServer6[0];
    r->msg->dns6_2 = sif->dnsServer6[1];
    return 0;
}

int set(request *r)
{
    const dnsproxy_public_msg *m = r->msg;
    const bool first = m->dnsFlag != 0;
    const bool second = m->dns2Flag != 0;
    const int status =
        dnsproxy_server_if_set(r->device, first ? &m->dns : nullptr, second ? &m->dns2 : nullptr,
                               first ? &m->dns6 : nullptr, second ? &m->dns6_2 : nullptr, m->noV4, m->noV6);
    if (status < 0)
        DNSPROXY_LOG(ERROR, op_name, status, "Fail to modify a dns server(ifname:%s).", r->device);
    return changed(status);
}

bool has_both_flags(const dnsproxy_public_msg *m)
{
    if (m->dnsFlag != 0 && m->dns2Flag != 0)
        return true;
    DNSPROXY_LOG(ERROR, op_name, DNSPROXY_EINVALID, "Dns flag is invalid.");
    return false;
}

int create(request *r)
{
    const dnsproxy_public_msg *m = r->msg;
    const int status =
        dnsproxy_server_if_new(r->device, m->dns, m->dns2, &m->dns6, &m->dns6_2, m->noV4, m->noV6);
    if (status < 0)
        DNSPROXY_LOG(ERROR, op_name, status, "Fail to create a new dns server.");
    else
        dnsproxy_load_server_dev_state(); // the new device's link state
    return changed(status);
}

int add(request *r)
{
    DNSPROXY_LOG(TRACE, op_name, 0, "DNSPROXY_DNS_SERVER_ADD");
    return has_both_flags(r->msg) ? create(r) : DNSPROXY_EINVALID;
}

int del(request *r)
{
    DNSPROXY_LOG(TRACE, op_name, 0, "DNSPROXY_DNS_SERVER_DEL");
    const int status = dnsproxy_server_if_destroy(r->device);
    if (status < 0)
        DNSPROXY_LOG(NOTICE, op_name, status, "Fail to delete a dns server(ifname:%s).", r->device);
    return changed(status);
}

int get_all(request *)
{
    DNSPROXY_LOG(NOTICE, op_name, DNSPROXY_EINVALID, "Currently:GETALL Msg op is invalid.");
    return DNSPROXY_EINVALID;
}

int add_or_set(request *r)
{
    DNSPROXY_LOG(TRACE, op_name, 0, "DNSPROXY_DNS_SERVER_ADDORSET");
    const bool present = dnsproxy_server_if_get(r->device) != nullptr;
    if (!present && !has_both_flags(r->msg))
        return DNSPROXY_EINVALID;
    DNSPROXY_LOG(TRACE, op_name, 0, "dns:%x,dns2:%x", static_cast<uint32_t>(r->msg->dns),
                 static_cast<uint32_t>(r->msg->dns2));
    return present ? set(r) : create(r);
}

// Room for one entry of `size` bytes per device, zero-filled; false: there was no memory.
bool make_trailing(request *r, size_t size)
{
    const auto devices = static_cast<size_t>(dnsproxy_data.serverIfList.size);
    r->msg->count = 0;
    r->msg->dataLen = 0;
    if (devices == 0)
        return true;
    r->trailing = calloc(devices, size);
    if (r->trailing == nullptr) {
        DNSPROXY_LOG(ERROR, op_name, DNSPROXY_ENOMEMORY, "No memory !");
        return false;
    }
    r->msg->dataLen = devices * size;
    return true;
}

int get_addresses(request *r)
{
    if (!make_trailing(r, DNSPROXY_SERVER_SLOTS * sizeof(uint64_t)))
        return DNSPROXY_ENOMEMORY;
    auto *addresses = static_cast<uint64_t *>(r->trailing);
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        for (const uint64_t slot : sif->dnsServer) {
            if (slot != 0)
                addresses[r->msg->count++] = slot;
        }
    }
    return 0;
}

int get_interfaces(request *r)
{
    if (!make_trailing(r, sizeof(dnsproxy_public_if)))
        return DNSPROXY_ENOMEMORY;
    auto *interfaces = static_cast<dnsproxy_public_if *>(r->trailing);
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        if (sif->dnsServer[0] == 0 && sif->dnsServer[1] == 0)
            continue;
        dnsproxy_public_if *entry = &interfaces[r->msg->count++];
        memcpy(entry->ifname, sif->ifname, sizeof entry->ifname);
        entry->dns = sif->dnsServer[0];
        entry->dns2 = sif->dnsServer[1];
    }
    return 0;
}

int del_all(request *)
{
    DNSPROXY_LOG(TRACE, op_name, 0, "DNSPROXY_DNS_SERVER_DELALL");
    const int status = dnsproxy_server_if_delAll();
    if (status < 0)
        DNSPROXY_LOG(NOTICE, op_name, status, "Fail to delete all dns server");
    return changed(status);
}

int carry_out(request *r)
{
    static constexpr int (*operations[])(request *) = {
        nullptr, get, set, add, del, get_all, add_or_set, get_addresses, get_interfaces, del_all};
    static_assert(std::size(operations) == DNSPROXY_DNS_SERVER_DELALL + 1);

    const bounded ifname(r->msg->ifname);
    DNSPROXY_LOG(TRACE, op_name, 0, "ifname:%s", ifname.text);
    if (dnsproxy_get_effect_devices(ifname.text, r->device) < 0)
        return DNSPROXY_EINVALID;
    if (r->msg->op >= std::size(operations) || operations[r->msg->op] == nullptr) {
        DNSPROXY_LOG(ERROR, op_name, DNSPROXY_EINVALID, "Msg op is invalid.");
        return DNSPROXY_EINVALID;
    }
    return operations[r->msg->op](r);
}

bool write_whole(int fd, const void *bytes, size_t length)
{
    if (qxcom_nmpipe_write(fd, bytes, length) == static_cast<ptrdiff_t>(length))
        return true;
    DNSPROXY_LOG(ERROR, op_name, DNSPROXY_ERESOURCE, "Fail to send msg to somebody.");
    return false;
}

// The status of the operation, or that of a reply that could not be written whole.
int reply(const request *r, int status)
{
    const bounded pipeName(r->msg->pipeName);
    // A reply into the request pipe would be the next request, without end.
    if (strcmp(pipeName.text, DNSPROXY_REQUEST_PIPE) == 0)
        return status;
    const int fd = qxcom_nmpipe_open(pipeName.text, NMPIPE_WRITE, 0);
    if (fd <= 0)
        return status;
    bool whole = write_whole(fd, r->msg, sizeof *r->msg);
    if (whole && status >= 0 && r->trailing != nullptr)
        whole = write_whole(fd, r->trailing, r->msg->dataLen);
    qxcom_nmpipe_close(fd);
    return whole ? status : DNSPROXY_ERESOURCE;
}

} // namespace

int dnsproxy_public_read(dnsproxy_public_msg *msg)
{
    request r = {.msg = msg, .device = {}, .trailing = nullptr};
    msg->result = carry_out(&r);
    const int status = reply(&r, msg->result);
    DNSPROXY_LOG(TRACE, op_name, status, "THE INFO is:");
    dnsproxy_if_show();
    free(r.trailing);
    DNSPROXY_RETURN(op_name, status);
}
