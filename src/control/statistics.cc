#include "control/statistics.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "core/dnsproxy_data.h"
#include "iface/server_record.h"
#include "platform/ipcom_tmo2.h"
#include "platform/mutex_guard.h"

namespace {

// A line as it was at one moment: written down under the table's lock, which is not held for longer.
struct line_copy {
    char ifname[IF_NAMESIZE];
    uint64_t is_down;
    uint64_t useCount;
    uint64_t dnsServer[DNSPROXY_SERVER_SLOTS];
    in6_addr dnsServer6[DNSPROXY_SERVER_SLOTS];
    line_counters counters;
    line_counters counters6;
};

line_copy copy_of(const dnsproxy_server_if *sif)
{
    line_copy line = {};
    memcpy(line.ifname, sif->ifname, sizeof line.ifname);
    line.is_down = server_if_link_state(sif);
    line.useCount = counter_get(&sif->useCount);
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
        line.dnsServer[slot] = sif->dnsServer[slot];
        line.dnsServer6[slot] = sif->dnsServer6[slot].sin6_addr;
    }
    line.counters = counters_get(&sif->counters);
    line.counters6 = counters_get(&sif->counters6);
    return line;
}

// All lines in the order in which they are tried, for free(); nullptr without memory.
line_copy *copy_lines(int *count)
{
    const mutex_guard lock(&dnsproxy_data.serverIfLock);
    auto *lines = static_cast<line_copy *>(
        calloc(static_cast<size_t>(dnsproxy_data.serverIfList.size) + 1, sizeof(line_copy)));
    *count = 0;
    if (lines == nullptr)
        return nullptr;
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif))
        lines[(*count)++] = copy_of(sif);
    return lines;
}

// A message that grows; once something did not fit it is false.
class writer {
public:
    explicit writer(blob_buf *buf) : buf_(buf) {}
    [[nodiscard]] bool whole() const { return whole_; }

    void number(const char *name, uint64_t value) { note(blobmsg_add_u64(buf_, name, value) == 0); }
    void text(const char *name, const char *value) { note(blobmsg_add_string(buf_, name, value) == 0); }

    void *open(const char *name, bool is_array)
    {
        void *cookie = blobmsg_open_nested(buf_, name, is_array);
        note(cookie != nullptr);
        return cookie;
    }
    void close(void *cookie)
    {
        if (cookie != nullptr)
            blob_nest_end(buf_, cookie);
    }

private:
    void note(bool done) { whole_ = whole_ && done; }

    blob_buf *buf_;
    bool whole_ = true;
};

void add_replies(writer *w, const slot_counters &slot)
{
    const uint64_t replies = std::accumulate(slot.histogram, slot.histogram + COUNTER_BUCKETS, uint64_t{0});
    w->number("replies", replies);
    void *table = w->open("time_us", false);
    w->number("count", replies);
    w->number("smallest", slot.smallest_us);
    w->number("mean", replies == 0 ? 0 : slot.total_us / replies);
    w->number("largest", slot.largest_us);
    w->number("total", slot.total_us);
    void *array = w->open("histogram", true);
    for (const uint64_t times : slot.histogram)
        w->number(nullptr, times);
    w->close(array);
    w->close(table);
}

// `addresses` are text, empty for a slot without a server.
void add_family(writer *w, const char *name, const line_counters &counters,
                const char (&addresses)[DNSPROXY_SERVER_SLOTS][INET6_ADDRSTRLEN])
{
    void *family = w->open(name, false);
    w->number("sent", counters.sent_before + counters.slots[0].sent + counters.slots[1].sent);
    w->number("failed", counters.failed);
    w->number("answered", counters.answered);
    w->number("expired", counters.expired);
    void *servers = w->open("servers", true);
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
        void *server = w->open(nullptr, false);
        w->text("address", addresses[slot]);
        w->number("sent", counters.slots[slot].sent);
        add_replies(w, counters.slots[slot]);
        w->close(server);
    }
    w->close(servers);
    w->close(family);
}

void add_line(writer *w, const line_copy &line)
{
    char v4[DNSPROXY_SERVER_SLOTS][INET6_ADDRSTRLEN] = {};
    char v6[DNSPROXY_SERVER_SLOTS][INET6_ADDRSTRLEN] = {};
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
        const in_addr address = {.s_addr = static_cast<uint32_t>(line.dnsServer[slot])};
        if (address.s_addr != 0)
            inet_ntop(AF_INET, &address, v4[slot], sizeof v4[slot]);
        if (!IN6_IS_ADDR_UNSPECIFIED(&line.dnsServer6[slot]))
            inet_ntop(AF_INET6, &line.dnsServer6[slot], v6[slot], sizeof v6[slot]);
    }
    void *table = w->open(nullptr, false);
    w->text("dev", line.ifname);
    w->text("status", line.is_down != 0 ? "off" : "on");
    w->number("uses", line.useCount);
    add_family(w, "ipv4", line.counters, v4);
    add_family(w, "ipv6", line.counters6, v6);
    w->close(table);
}

void add_queries(writer *w, const char *name, const query_counters &queries, const ipcom_list &records)
{
    void *table = w->open(name, false);
    w->number("taken", queries.refused + queries.forced + queries.free);
    w->number("refused", queries.refused);
    w->number("forced", queries.forced);
    w->number("free", queries.free);
    w->number("in_flight", static_cast<uint64_t>(ipcom_list_size(&records)));
    w->close(table);
}

} // namespace

bool statistics_fill(blob_buf *buf)
{
    constexpr int64_t ns_per_s = 1'000'000'000;
    int count = 0;
    line_copy *lines = copy_lines(&count);
    if (lines == nullptr)
        return false;
    writer w(buf);
    w.number("uptime", static_cast<uint64_t>((ipcom_tmo2_clock() - dnsproxy_data.startedAt) / ns_per_s));
    add_queries(&w, "ipv4", counters_get(&dnsproxy_data.queryCounters), dnsproxy_data.cacheList);
    add_queries(&w, "ipv6", counters_get(&dnsproxy_data.queryCounters6), dnsproxy_data.cacheList6);
    void *array = w.open("lines", true);
    for (int i = 0; i < count; i++)
        add_line(&w, lines[i]);
    w.close(array);
    free(lines);
    return w.whole();
}
