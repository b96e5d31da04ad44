#include "statistics.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *family_keys[FAMILIES] = {"ipv4", "ipv6"};

void read_server(json from, server_numbers *server)
{
    (void)from.member("address").copy(server->address, sizeof server->address);
    server->sent = from.member("sent").number();
    const json time = from.member("time_us");
    server->times.replies = from.member("replies").number();
    server->times.total = time.member("total").number();
    server->times.smallest = time.member("smallest").number();
    server->times.largest = time.member("largest").number();
    json bucket = time.member("histogram").first();
    for (uint64_t &count : server->times.histogram) {
        count = bucket ? bucket.number() : json_unknown;
        bucket = bucket ? bucket.next() : bucket;
    }
}

void read_family(json from, family_numbers *family)
{
    family->sent = from.member("sent").number();
    family->failed = from.member("failed").number();
    family->answered = from.member("answered").number();
    family->expired = from.member("expired").number();
    json server = from.member("servers").first();
    for (server_numbers &each : family->servers) {
        read_server(server, &each);
        server = server ? server.next() : server;
    }
}

void read_line(json from, line_numbers *line)
{
    (void)from.member("dev").copy(line->device, sizeof line->device);
    line->state = state_of(from.member("status"));
    line->uses = from.member("uses").number();
    for (int f = 0; f < FAMILIES; f++)
        read_family(from.member(family_keys[f]), &line->families[f]);
}

void read_queries(json from, query_numbers *queries)
{
    queries->taken = from.member("taken").number();
    queries->refused = from.member("refused").number();
    queries->forced = from.member("forced").number();
    queries->free = from.member("free").number();
    queries->in_flight = from.member("in_flight").number();
}

// Whether the text is what the daemon sends.
bool parse(statistics *s)
{
    const json all = json_read(s->text);
    const json lines = all.member("lines");
    if (!lines || *lines.at != '[')
        return false;
    s->uptime = all.member("uptime").number();
    for (int f = 0; f < FAMILIES; f++)
        read_queries(all.member(family_keys[f]), &s->queries[f]);
    size_t count = 0;
    for (json line = lines.first(); line; line = line.next())
        count++;
    s->lines = static_cast<line_numbers *>(calloc(count + 1, sizeof(line_numbers)));
    if (s->lines == nullptr)
        return false;
    for (json line = lines.first(); line; line = line.next())
        read_line(line, &s->lines[s->count++]);
    return true;
}

} // namespace

bus_result statistics_read(statistics *s)
{
    *s = {};
    const bus_result result = bus_call("dnsproxy.statistics", "get", "{}", &s->text);
    if (result != bus_result::done)
        return result;
    if (parse(s))
        return bus_result::done;
    statistics_free(s);
    return bus_result::failed;
}

void statistics_free(statistics *s)
{
    free(s->text);
    free(s->lines);
    *s = {};
}

bool statistics_copy(statistics *to, const statistics &from)
{
    *to = {};
    to->text = strdup(from.text);
    if (to->text != nullptr && parse(to))
        return true;
    statistics_free(to);
    return false;
}

link_state state_of(json status)
{
    char text[8];
    if (!status.copy(text, sizeof text))
        return link_state::unknown;
    return strcmp(text, "on") == 0 ? link_state::up : link_state::down;
}

int share_of(uint64_t part, uint64_t whole)
{
    if (part == json_unknown || whole == json_unknown || whole == 0)
        return -1;
    return static_cast<int>(static_cast<double>(std::min(part, whole)) * 1000 / static_cast<double>(whole));
}

double mean_ms(const reply_times &times)
{
    if (times.replies == 0 || times.replies == json_unknown || times.total == json_unknown)
        return -1;
    return static_cast<double>(times.total) / static_cast<double>(times.replies) / 1000;
}

double percentile_ms(const reply_times &times, int percent)
{
    uint64_t all = 0;
    for (const uint64_t count : times.histogram) {
        if (count == json_unknown)
            return -1;
        all += count;
    }
    if (all == 0)
        return -1;
    // The end of the bucket that holds it, as far as the largest time allows.
    const double wanted = static_cast<double>(all) * percent / 100;
    uint64_t below = 0;
    int bucket = 0;
    while (bucket < TIME_BUCKETS - 1 && static_cast<double>(below += times.histogram[bucket]) < wanted)
        bucket++;
    const double largest = static_cast<double>(times.largest) / 1000;
    if (bucket == TIME_BUCKETS - 1)
        return times.largest == json_unknown ? -1 : largest;
    const double end = bucket_end_s(bucket) * 1000;
    return times.largest == json_unknown ? end : std::min(end, largest);
}

double bucket_end_s(int bucket)
{
    return static_cast<double>(1 << bucket) / 1000;
}
