#include "iface/if_show.h"

#include <arpa/inet.h>
#include <cstdio>

#include "core/dnsproxy_data.h"
#include "core/log.h"
#include "iface/listen_if.h"
#include "iface/server_record.h"

static void show_listen_if(FILE *out, const dnsproxy_listen_if *lif)
{
    (void)fprintf(out, "ifname:%s.\n", lif->ifname_receive);
    (void)fprintf(out, "Specify out interface = %d     ", lif->specify);
    if (lif->specify != 0)
        (void)fprintf(out, "out interface name:%s.\n", lif->out_ifname);
    else
        (void)fprintf(out, "\n");
    (void)fprintf(out, "\n\n");
}

static void show_server_if(FILE *out, const dnsproxy_server_if *sif)
{
    (void)fprintf(out, "ifname:%s ifindex:%d.\n", sif->ifname, sif->ifindex);
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++)
        (void)fprintf(out, "The %d server address:%x.\n", slot, static_cast<uint32_t>(sif->dnsServer[slot]));
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
        char text[INET6_ADDRSTRLEN] = {};
        (void)inet_ntop(AF_INET6, &sif->dnsServer6[slot].sin6_addr, text, sizeof text);
        (void)fprintf(out, "The %d IPv6 server address:%s\n", slot, text);
    }
    (void)fprintf(out, "The next dns server index:%d\n", sif->dnsIndex);
    (void)fprintf(out, "The serverFd = %d.\n", sif->serverFd);
    (void)fprintf(out, "The useCount:%d\n", static_cast<int32_t>(sif->useCount));
    (void)fprintf(out, "The is_down:%d\n", static_cast<int32_t>(server_if_link_state(sif)));
    (void)fprintf(out, "\n\n");
}

static void show_cache_server(FILE *out)
{
    (void)fprintf(out, "***Show server cache interface***\n");
    (void)fprintf(out, "cache init:%d   ", static_cast<int32_t>(dnsproxy_data.cacheServerSet));
    if (dnsproxy_data.cacheServerSet != 0)
        (void)fprintf(out, "cache server ifname:%s\n", dnsproxy_data.cacheServerIfname);
    (void)fprintf(out, "\n\n");
    (void)fprintf(out, "End\n\n");
}

int dnsproxy_if_show()
{
    dnsproxy_dump dump;
    FILE *out = dump.file();
    if (out == nullptr)
        return 0;
    (void)fprintf(out, "***Show listen interface(size:%d)***\n", dnsproxy_data.listenIfList.size);
    for (auto *lif = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList); lif != nullptr;
         lif = ipcom_next(lif))
        show_listen_if(out, lif);
    (void)fprintf(out, "***Show server interface(size:%d)***\n", dnsproxy_data.serverIfList.size);
    for (auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif))
        show_server_if(out, sif);
    show_cache_server(out);
    dump.write();
    return 0;
}
