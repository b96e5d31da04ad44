#include "prometheus.h"

#include <cstdio>

namespace {

constexpr const char *families[FAMILIES] = {"ipv4", "ipv6"};

using ull = unsigned long long;

void head(const char *name, const char *type, const char *text)
{
    printf("# HELP %s %s\n# TYPE %s %s\n", name, text, name, type);
}

// A device name as the value of a label.
struct label {
    char text[2 * IF_NAMESIZE];

    explicit label(const char *from)
    {
        size_t length = 0;
        for (; *from != '\0'; from++) {
            if (*from == '"' || *from == '\\')
                text[length++] = '\\';
            text[length++] = *from < ' ' || *from > '~' ? '?' : *from;
        }
        text[length] = '\0';
    }
};

struct query_metric {
    const char *path;
    uint64_t query_numbers::*value;
};

void put_queries(const statistics &s)
{
    static constexpr query_metric metrics[] = {{"forced", &query_numbers::forced},
                                               {"free", &query_numbers::free},
                                               {"refused", &query_numbers::refused}};
    head("dnsproxyd_queries_total", "counter", "Queries taken from hosts, by what became of them.");
    for (int f = 0; f < FAMILIES; f++) {
        for (const query_metric &metric : metrics) {
            const uint64_t value = s.queries[f].*metric.value;
            if (value != json_unknown)
                printf("dnsproxyd_queries_total{family=\"%s\",path=\"%s\"} %llu\n", families[f], metric.path,
                       static_cast<ull>(value));
        }
    }
    head("dnsproxyd_queries_in_flight", "gauge", "Queries that are remembered, each for ten seconds.");
    for (int f = 0; f < FAMILIES; f++) {
        if (s.queries[f].in_flight != json_unknown)
            printf("dnsproxyd_queries_in_flight{family=\"%s\"} %llu\n", families[f],
                   static_cast<ull>(s.queries[f].in_flight));
    }
}

void put_line_states(const statistics &s)
{
    head("dnsproxyd_line_up", "gauge", "Whether the line is marked up.");
    for (int i = 0; i < s.count; i++) {
        if (s.lines[i].state != link_state::unknown)
            printf("dnsproxyd_line_up{device=\"%s\"} %d\n", label(s.lines[i].device).text,
                   s.lines[i].state == link_state::up ? 1 : 0);
    }
    head("dnsproxyd_line_forced_queries_total", "counter", "Queries that rules forced out through the line.");
    for (int i = 0; i < s.count; i++) {
        if (s.lines[i].uses != json_unknown)
            printf("dnsproxyd_line_forced_queries_total{device=\"%s\"} %llu\n", label(s.lines[i].device).text,
                   static_cast<ull>(s.lines[i].uses));
    }
}

void put_line_counters(const statistics &s)
{
    static constexpr struct {
        const char *name;
        const char *text;
        uint64_t family_numbers::*value;
    } metrics[] = {
        {"dnsproxyd_line_sent_total", "Queries sent through the line, to each of its servers.",
         &family_numbers::sent},
        {"dnsproxyd_line_send_failures_total", "Queries that could not be sent through the line.",
         &family_numbers::failed},
        {"dnsproxyd_line_answered_total", "Queries by the line that ended with an answer.",
         &family_numbers::answered},
        {"dnsproxyd_line_unanswered_total", "Queries by the line that ended without an answer.",
         &family_numbers::expired},
    };
    for (const auto &metric : metrics) {
        head(metric.name, "counter", metric.text);
        for (int i = 0; i < s.count; i++) {
            for (int f = 0; f < FAMILIES; f++) {
                const uint64_t value = s.lines[i].families[f].*metric.value;
                if (value != json_unknown)
                    printf("%s{device=\"%s\",family=\"%s\"} %llu\n", metric.name,
                           label(s.lines[i].device).text, families[f], static_cast<ull>(value));
            }
        }
    }
}

void put_histogram(const char *labels, const reply_times &times)
{
    static constexpr char name[] = "dnsproxyd_server_reply_seconds";
    uint64_t below = 0;
    for (const uint64_t count : times.histogram) {
        if (count == json_unknown)
            return;
    }
    for (int bucket = 0; bucket < TIME_BUCKETS; bucket++) {
        below += times.histogram[bucket];
        if (bucket < TIME_BUCKETS - 1)
            printf("%s_bucket{%s,le=\"%g\"} %llu\n", name, labels, bucket_end_s(bucket),
                   static_cast<ull>(below));
        else
            printf("%s_bucket{%s,le=\"+Inf\"} %llu\n", name, labels, static_cast<ull>(below));
    }
    printf("%s_sum{%s} %.6f\n", name, labels, static_cast<double>(times.total) / 1e6);
    printf("%s_count{%s} %llu\n", name, labels, static_cast<ull>(below));
}

// Calls `each` with every server and its labels.
template <class Each> void for_servers(const statistics &s, Each each)
{
    for (int i = 0; i < s.count; i++) {
        for (const family_numbers &family : s.lines[i].families) {
            for (const server_numbers &server : family.servers) {
                char labels[128];
                if (server.address[0] == '\0')
                    continue;
                (void)snprintf(labels, sizeof labels, "device=\"%s\",server=\"%s\",place=\"%d\"",
                               label(s.lines[i].device).text, server.address,
                               static_cast<int>(&server - family.servers) + 1);
                each(labels, server);
            }
        }
    }
}

} // namespace

void show_prometheus(const statistics &s)
{
    if (s.uptime != json_unknown) {
        head("dnsproxyd_uptime_seconds", "gauge", "Time since the start of the process.");
        printf("dnsproxyd_uptime_seconds %llu\n", static_cast<ull>(s.uptime));
    }
    put_queries(s);
    put_line_states(s);
    put_line_counters(s);
    head("dnsproxyd_server_queries_total", "counter", "Queries sent to the server.");
    for_servers(s, [](const char *labels, const server_numbers &server) {
        if (server.sent != json_unknown)
            printf("dnsproxyd_server_queries_total{%s} %llu\n", labels, static_cast<ull>(server.sent));
    });
    head("dnsproxyd_server_reply_seconds", "histogram", "Time from the query to the server's reply.");
    for_servers(
        s, [](const char *labels, const server_numbers &server) { put_histogram(labels, server.times); });
}
