#include "iface/if_show.h"

#include <arpa/inet.h>
#include <cstdio>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "iface/listen_if.h"
#include "iface/server_record.h"

namespace {

void show_listen_if(FILE *out, const dnsproxy_listen_if *lif)
{
    fprintf(out, "ifname:%s.\n", lif->ifname_receive);
    fprintf(out, "Specify out interface = %d     ", lif->specify);
    if (lif->specify != 0)
        fprintf(out, "out interface name:%s.\n", lif->out_ifname);
    else
        fprintf(out, "\n");
    fprintf(out, "\n\n");
}

void show_server_if(FILE *out, const dnsproxy_server_if *sif)
{
    fprintf(out, "ifname:%s ifindex:%d.\n", sif->ifname, sif->ifindex);
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++)
        fprintf(out, "The %d server address:%x.\n", slot, static_cast<uint32_t>(sif->dnsServer[slot]));
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
        char text[INET6_ADDRSTRLEN] = {};
        inet_ntop(AF_INET6, &sif->dnsServer6[slot].sin6_addr, text, sizeof text);
        fprintf(out, "The %d IPv6 server address:%s\n", slot, text);
    }
    fprintf(out, "The next dns server index:%d\n", sif->dnsIndex);
    fprintf(out, "The serverFd = %d.\n", sif->serverFd);
    fprintf(out, "The useCount:%d\n", static_cast<int32_t>(sif->useCount));
    fprintf(out, "The is_down:%d\n", static_cast<int32_t>(server_if_link_state(sif)));
    fprintf(out, "\n\n");
}

void show_cache_server(FILE *out)
{
    fprintf(out, "***Show server cache interface***\n");
    fprintf(out, "cache init:%d   ", static_cast<int32_t>(dnsproxy_data.cacheServerSet));
    if (dnsproxy_data.cacheServerSet != 0)
        fprintf(out, "cache server ifname:%s\n", dnsproxy_data.cacheServerIfname);
    fprintf(out, "\n\n");
    fprintf(out, "End\n\n");
}

} // namespace

int dnsproxy_if_show()
{
    dnsproxy_dump dump;
    FILE *out = dump.file();
    if (out == nullptr)
        return 0;
    fprintf(out, "***Show listen interface(size:%d)***\n", dnsproxy_data.listenIfList.size);
    for (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList); lif != nullptr;
         lif = ipcom_next(lif))
        show_listen_if(out, lif);
    fprintf(out, "***Show server interface(size:%d)***\n", dnsproxy_data.serverIfList.size);
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif))
        show_server_if(out, sif);
    show_cache_server(out);
    dump.write();
    return 0;
}
