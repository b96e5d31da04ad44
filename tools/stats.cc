#include "stats.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "prometheus.h"
#include "statistics.h"
#include "text.h"

namespace {

constexpr const char *families[FAMILIES] = {"IPv4", "IPv6"};

// Columns of numbers. The second table is as wide as a terminal.
constexpr int wide = 10; // in the first table
constexpr int wide_queries = 9;
constexpr int wide_answered = 8;
constexpr int wide_lost = 8;
constexpr int wide_ms = 7;
constexpr int wide_name = 36;

void put_number(uint64_t n, int width)
{
    if (n == json_unknown)
        printf(" %*s", width, "?");
    else
        printf(" %*llu", width, static_cast<unsigned long long>(n));
}

// A number, or that many per second of an interval.
void put_count(uint64_t n, double seconds, int width)
{
    if (n == json_unknown || seconds <= 0)
        put_number(n, width);
    else
        printf(" %*.1f", width, static_cast<double>(n) / seconds);
}

void put_share(int share)
{
    if (share < 0)
        printf(" %*s", wide_answered, "-");
    else
        printf(" %*.1f%%", wide_answered - 1, share / 10.0);
}

void put_ms(double ms)
{
    if (ms < 0)
        printf(" %*s", wide_ms, "-");
    else
        printf(" %*.1f", wide_ms, ms);
}

void put_answers(uint64_t asked, uint64_t answered, const reply_times &times, double seconds)
{
    const bool known = asked != json_unknown && answered != json_unknown;
    put_share(share_of(answered, asked));
    put_count(known ? asked - (answered < asked ? answered : asked) : json_unknown, seconds, wide_lost);
    put_ms(mean_ms(times));
    put_ms(percentile_ms(times, 95));
    putchar('\n');
}

uint64_t sum(uint64_t a, uint64_t b)
{
    return a == json_unknown || b == json_unknown ? json_unknown : a + b;
}

// Of all servers of a family.
reply_times all_times(const family_numbers &family)
{
    reply_times all = family.servers[0].times;
    for (int slot = 1; slot < SLOTS; slot++) {
        const reply_times &more = family.servers[slot].times;
        all.replies = sum(all.replies, more.replies);
        all.total = sum(all.total, more.total);
        all.largest = all.largest > more.largest ? all.largest : more.largest;
        for (int i = 0; i < TIME_BUCKETS; i++)
            all.histogram[i] = sum(all.histogram[i], more.histogram[i]);
    }
    return all;
}

bool has_server(const family_numbers &family)
{
    for (const server_numbers &server : family.servers) {
        if (server.address[0] != '\0')
            return true;
    }
    return false;
}

// The longest addresses have a row of their own.
void put_address(const char *address)
{
    const printable text(address);
    printf("  %-*s", wide_name - 2, text.text);
    if (strlen(text.text) > size_t{wide_name - 2})
        printf("\n%*s", wide_name, "");
}

// `seconds` is that of the interval that the numbers are of; 0: since the start.
void put_line(const line_numbers &line, double seconds)
{
    for (int f = 0; f < FAMILIES; f++) {
        const family_numbers &family = line.families[f];
        if (!has_server(family) && family.sent == 0)
            continue;
        printf("%-15s %-*s", printable(line.device).text, wide_name - 16, families[f]);
        put_count(family.sent, seconds, wide_queries);
        put_answers(sum(family.answered, family.expired), family.answered, all_times(family), seconds);
        for (const server_numbers &server : family.servers) {
            if (server.address[0] == '\0')
                continue;
            put_address(server.address);
            put_count(server.sent, seconds, wide_queries);
            put_answers(server.sent, server.times.replies, server.times, seconds);
        }
    }
}

void put_uptime(uint64_t seconds)
{
    const auto s = static_cast<unsigned long long>(seconds);
    if (seconds == json_unknown)
        fputs("uptime: ?", stdout);
    else
        printf("uptime: %llu d %02llu:%02llu:%02llu", s / 86400, s / 3600 % 24, s / 60 % 60, s % 60);
}

void put_heading(const char *of_what, double seconds, int width)
{
    if (seconds > 0)
        printf(" %*s/s", width - 2, of_what);
    else
        printf(" %*s", width, of_what);
}

void show_table(const statistics &s, double seconds)
{
    put_uptime(s.uptime);
    if (seconds > 0)
        printf(", rates of the last %.1f s\n\n%-8s", seconds, "");
    else
        printf("\n\n%-8s", "");
    static constexpr struct {
        const char *name;
        uint64_t query_numbers::*value;
    } columns[] = {{"TAKEN", &query_numbers::taken},
                   {"FORCED", &query_numbers::forced},
                   {"FREE", &query_numbers::free},
                   {"REFUSED", &query_numbers::refused}};
    for (const auto &column : columns)
        put_heading(column.name, seconds, wide);
    printf(" %*s\n", wide, "IN FLIGHT");
    for (int f = 0; f < FAMILIES; f++) {
        printf("%-8s", families[f]);
        for (const auto &column : columns)
            put_count(s.queries[f].*column.value, seconds, wide);
        put_number(s.queries[f].in_flight, wide);
        putchar('\n');
    }
    printf("\n%-*s", wide_name, "LINE, SERVER");
    put_heading("QUERIES", seconds, wide_queries);
    printf(" %*s", wide_answered, "ANSWERED");
    put_heading("LOST", seconds, wide_lost);
    printf(" %*s %*s\n", wide_ms, "MEAN ms", wide_ms, "95% ms");
    for (int i = 0; i < s.count; i++)
        put_line(s.lines[i], seconds);
}

// Of a number that was counted anew, all counts.
void take_off(uint64_t *n, uint64_t before)
{
    if (*n != json_unknown && before != json_unknown && before <= *n)
        *n -= before;
}

void take_off(server_numbers *server, const server_numbers &before)
{
    if (strcmp(server->address, before.address) != 0 || server->sent < before.sent)
        return;
    take_off(&server->sent, before.sent);
    take_off(&server->times.replies, before.times.replies);
    take_off(&server->times.total, before.times.total);
    for (int i = 0; i < TIME_BUCKETS; i++)
        take_off(&server->times.histogram[i], before.times.histogram[i]);
}

void take_off(line_numbers *line, const line_numbers &before)
{
    take_off(&line->uses, before.uses);
    for (int f = 0; f < FAMILIES; f++) {
        family_numbers &family = line->families[f];
        const family_numbers &old = before.families[f];
        take_off(&family.sent, old.sent);
        take_off(&family.failed, old.failed);
        take_off(&family.answered, old.answered);
        take_off(&family.expired, old.expired);
        for (int slot = 0; slot < SLOTS; slot++)
            take_off(&family.servers[slot], old.servers[slot]);
    }
}

// Leaves what was counted since `before`; uptime and queries in flight stay.
void take_off(statistics *s, const statistics &before)
{
    if (before.uptime == json_unknown || s->uptime < before.uptime)
        return;
    for (int f = 0; f < FAMILIES; f++) {
        take_off(&s->queries[f].taken, before.queries[f].taken);
        take_off(&s->queries[f].refused, before.queries[f].refused);
        take_off(&s->queries[f].forced, before.queries[f].forced);
        take_off(&s->queries[f].free, before.queries[f].free);
    }
    for (int i = 0; i < s->count; i++) {
        for (int k = 0; k < before.count; k++) {
            if (strcmp(s->lines[i].device, before.lines[k].device) == 0)
                take_off(&s->lines[i], before.lines[k]);
        }
    }
}

void show(const statistics &s, format form, double seconds)
{
    if (form == format::json)
        json_print(s.text);
    else if (form == format::prometheus)
        show_prometheus(s);
    else
        show_table(s, seconds);
}

double now_s()
{
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void wait_s(double seconds)
{
    timespec left = {.tv_sec = static_cast<time_t>(seconds), .tv_nsec = 0};
    left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
    (void)nanosleep(&left, nullptr);
}

// Until the output ends, or the program is ended. A daemon that is away meanwhile is waited for.
int repeat(const invocation &given)
{
    const bool is_table = given.form == format::columns;
    const bool clears = is_table && isatty(STDOUT_FILENO) == 1;
    statistics before = {};
    double before_at = 0;
    for (;; wait_s(given.interval_s)) {
        statistics s = {};
        const bus_result result = statistics_read(&s);
        const double now = now_s();
        if (clears)
            fputs("\033[H\033[J", stdout);
        if (result != bus_result::done) {
            puts(is_table ? bus_words(result) : "null");
        } else {
            statistics rates = {};
            if (is_table && before.text != nullptr && statistics_copy(&rates, s)) {
                take_off(&rates, before);
                show(rates, given.form, now - before_at);
            } else {
                show(s, given.form, 0);
            }
            statistics_free(&rates);
            statistics_free(&before);
            before = s;
            before_at = now;
        }
        const int printed = finish_output();
        if (printed != EXIT_DONE)
            return printed;
    }
}

} // namespace

int run_stats(const invocation &given)
{
    invocation all = given;
    if (given.count > 0 && !given.repeats)
        return usage_error("stats: one word too many: %s", given.operands[0]);
    if (given.count > 0 && !read_interval(given.operands[0], &all.interval_s))
        return usage_error("--watch: %s is no number of seconds", given.operands[0]);
    if (given.repeats && given.form == format::prometheus)
        return usage_error("stats takes no option --watch beside --prometheus");
    if (all.repeats)
        return repeat(all);
    statistics s = {};
    const bus_result result = statistics_read(&s);
    if (result != bus_result::done)
        return failure(EXIT_UNREACHABLE, "%s", bus_words(result));
    show(s, given.form, 0);
    statistics_free(&s);
    return finish_output();
}
