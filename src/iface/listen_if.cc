#include "iface/listen_if.h"

#include <cstdlib>
#include <cstring>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/ifname.h"

namespace {

uint32_t hash_of_record(const void *record)
{
    return ifname_hash(static_cast<const dnsproxy_listen_if *>(record)->ifname_receive);
}

// Prints a line whatever the log threshold: that line is part of the daemon's output.
int dnsproxy_listen_if_hash_cmp(const void *record, const void *key)
{
    const auto *lif = static_cast<const dnsproxy_listen_if *>(record);
    const auto *ifname = static_cast<const char *>(key);
    dnsproxy_dump line;
    if (line.file() != nullptr)
        fprintf(line.file(), "%s,%d\n", __func__, __LINE__);
    line.write();
    DNSPROXY_LOG(TRACE, __func__, 0, "pIf->ifname_receive:%s,ifname:%s", lif->ifname_receive, ifname);
    return ifname_equal(lif->ifname_receive, ifname) ? 1 : 0;
}

void set_forcing(dnsproxy_listen_if *lif, int specify, const char *out_ifname)
{
    lif->specify = 0;
    if (specify != 0 && out_ifname != nullptr) {
        lif->specify = specify;
        memcpy(lif->out_ifname, out_ifname, strlen(out_ifname) + 1);
    }
}

int add(const char *op, const char *ifname, int specify, const char *out_ifname, unsigned int polling)
{
    if (!ifname_fits(ifname) || (out_ifname != nullptr && !ifname_fits(out_ifname))) {
        DNSPROXY_LOG(ERROR, op, DNSPROXY_EINVALID, "The interface name is too long(ifname:%s).", ifname);
        DNSPROXY_RETURN(op, DNSPROXY_EINVALID);
    }
    if (ipcom_hash_get(dnsproxy_data.listenIfHash, ifname) != nullptr) {
        DNSPROXY_LOG(ERROR, op, DNSPROXY_EEXISTS, "The interface is already in our listen if list.");
        DNSPROXY_RETURN(op, DNSPROXY_EEXISTS);
    }
    auto *lif = static_cast<dnsproxy_listen_if *>(calloc(1, sizeof(dnsproxy_listen_if)));
    if (lif == nullptr) {
        DNSPROXY_LOG(ERROR, op, DNSPROXY_ENOMEMORY, "No memory for listen if.");
        DNSPROXY_RETURN(op, DNSPROXY_ENOMEMORY);
    }
    memcpy(lif->ifname_receive, ifname, strlen(ifname) + 1);
    set_forcing(lif, specify, out_ifname);
    lif->polling = polling;
    if (ipcom_hash_add(dnsproxy_data.listenIfHash, lif) != 0) {
        DNSPROXY_LOG(ERROR, op, DNSPROXY_ENOMEMORY, "No memory for listen if.");
        free(lif);
        DNSPROXY_RETURN(op, DNSPROXY_ENOMEMORY);
    }
    ipcom_list_insert_last(&dnsproxy_data.listenIfList, &lif->link);
    DNSPROXY_RETURN(op, 0);
}

} // namespace

int listen_if_table_init()
{
    dnsproxy_data.listenIfHash = ipcom_hash_new(hash_of_record, ifname_hash, dnsproxy_listen_if_hash_cmp);
    return dnsproxy_data.listenIfHash == nullptr ? DNSPROXY_ERESOURCE : 0;
}

void listen_if_table_deinit()
{
    if (dnsproxy_data.listenIfHash != nullptr)
        ipcom_hash_delete(dnsproxy_data.listenIfHash);
    dnsproxy_data.listenIfHash = nullptr;
}

int dnsproxy_listen_if_new(const char *ifname, int specify, const char *out_ifname, unsigned int polling)
{
    return add(__func__, ifname, specify, out_ifname, polling);
}

int dnsproxy_listen_if2_new(const char *ifname, int specify, const char *out_ifname)
{
    return add(__func__, ifname, specify, out_ifname, 0);
}

dnsproxy_listen_if *dnsproxy_listen_if_findByname(const char *ifname)
{
    for (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList); lif != nullptr;
         lif = ipcom_next(lif)) {
        DNSPROXY_LOG(DEBUG, __func__, 0, "xxxxifname:%s,pIf->ifname_receive:%s", ifname, lif->ifname_receive);
        DNSPROXY_LOG(DEBUG, __func__, 0, "strlen (ifname):%d,strlen (ifname_receive):%d",
                     static_cast<int>(strlen(ifname)), static_cast<int>(strlen(lif->ifname_receive)));
        if (ifname_equal(lif->ifname_receive, ifname)) {
            DNSPROXY_LOG(TRACE, __func__, 0, "%s", "");
            return lif;
        }
    }
    DNSPROXY_LOG(TRACE, __func__, DNSPROXY_ENOTFOUND, "%s", "");
    return nullptr;
}

int dnsproxy_listen_if_set(const char *ifname, int specify, const char *out_ifname)
{
    dnsproxy_listen_if *lif = dnsproxy_listen_if_findByname(ifname);
    if (lif == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ENOTFOUND, "Can not find if(%s).", ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOTFOUND);
    }
    if (out_ifname != nullptr && !ifname_fits(out_ifname)) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_EINVALID, "The interface name is too long(ifname:%s).",
                     out_ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_EINVALID);
    }
    set_forcing(lif, specify, out_ifname);
    DNSPROXY_RETURN(__func__, 0);
}

int dnsproxy_listen_if_destroy(const char *ifname)
{
    dnsproxy_listen_if *lif = dnsproxy_listen_if_findByname(ifname);
    if (lif == nullptr) {
        DNSPROXY_LOG(ERROR, __func__, DNSPROXY_ENOTFOUND, "Can not find the if(ifname:%s).", ifname);
        DNSPROXY_RETURN(__func__, DNSPROXY_ENOTFOUND);
    }
    ipcom_hash_remove(dnsproxy_data.listenIfHash, lif);
    ipcom_list_remove(&lif->link);
    free(lif);
    DNSPROXY_RETURN(__func__, 0);
}
