#include "watch.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "clock.h"
#include "probe.h"
#include "run_program.h"
#include "state.h"
#include "text.h"

namespace {

// A server of a line, for the log.
struct server_opinion {
    char address[INET6_ADDRSTRLEN];
    int silent_rounds; // in a row, while another server answered
    bool told;
};

// What the rounds say of a line. Its state is only touched when the opinion changes: between changes it is
// whatever others set.
struct line_opinion {
    char device[IF_NAMESIZE];
    char name[logical_size];
    link_state opinion; // unknown: none yet
    bool applied;       // the state was set by it, or needed no change
    int bad_rounds;     // in a row
    int good_rounds;
    uint64_t sent; // of the daemon's numbers: fewer than before show a line that was made anew
    server_opinion servers[SERVERS_MOST];
    bool seen; // in this round
};

struct watcher {
    const invocation *given;
    probe_query query;
    line_opinion *lines;
    int count;
    int64_t daemon_start; // no later than this, milliseconds of the clock; 0: not known
    bool away;            // the daemon could not be asked
};

[[gnu::format(printf, 1, 2)]] void log(const char *format, ...)
{
    va_list values;
    va_start(values, format);
    char text[400];
    (void)vsnprintf(text, sizeof text, format, values);
    va_end(values);
    puts(text);
    (void)fflush(stdout);
}

line_opinion *opinion_of(watcher *w, const char *device)
{
    for (int i = 0; i < w->count; i++) {
        if (strcmp(w->lines[i].device, device) == 0)
            return &w->lines[i];
    }
    return nullptr;
}

line_opinion *add_opinion(watcher *w, const line &l)
{
    void *longer = realloc(w->lines, (static_cast<size_t>(w->count) + 1) * sizeof(line_opinion));
    if (longer == nullptr)
        return nullptr;
    w->lines = static_cast<line_opinion *>(longer);
    line_opinion *o = &w->lines[w->count++];
    *o = {};
    memcpy(o->device, l.device, sizeof o->device);
    (void)snprintf(o->name, sizeof o->name, "%s", l.name());
    o->applied = true;
    return o;
}

void forget_opinion(line_opinion *o)
{
    o->opinion = link_state::unknown;
    o->bad_rounds = 0;
    o->good_rounds = 0;
    o->applied = true;
}

// Brings the opinions into line with the daemon's lines. A line that is new, or was made anew, has none.
void match_lines(watcher *w, line_table *table)
{
    bool named = false;
    for (int i = 0; i < w->count; i++)
        w->lines[i].seen = false;
    for (int i = 0; i < table->count; i++) {
        const line &l = table->lines[i];
        line_opinion *o = opinion_of(w, l.device);
        if (o == nullptr && !named) {
            lines_name(table); // costs a shell per line, and is seldom needed
            named = true;
        }
        if (o == nullptr)
            o = add_opinion(w, l);
        if (o == nullptr)
            continue;
        if (l.sent != json_unknown && l.sent < o->sent)
            forget_opinion(o);
        o->sent = l.sent == json_unknown ? 0 : l.sent;
        o->seen = true;
    }
    for (int i = 0; i < w->count; i++) {
        if (!w->lines[i].seen)
            w->lines[i--] = w->lines[--w->count];
    }
}

// A daemon that was started anew has forgotten the states. Its answer can take seconds, so its whole seconds
// of uptime since it was asked only bound its start.
void note_start(watcher *w, uint64_t uptime, int64_t asked_at)
{
    if (uptime == json_unknown)
        return;
    const int64_t uptime_ms = static_cast<int64_t>(uptime) * 1000;
    if (w->daemon_start != 0 && asked_at - uptime_ms - 1000 > w->daemon_start) {
        for (int i = 0; i < w->count; i++) {
            w->lines[i].applied = w->lines[i].opinion == link_state::unknown;
            w->lines[i].sent = 0;
        }
    }
    w->daemon_start = now_ms() - uptime_ms;
}

const char *text_of(link_state state)
{
    return state == link_state::up ? "on" : "off";
}

void apply(watcher *w, line_opinion *o, link_state state)
{
    if (o->applied)
        return;
    o->applied = state == o->opinion;
    if (o->applied)
        return;
    const bus_result result = set_state(o->name, o->device, o->opinion);
    o->applied = result == bus_result::done;
    if (!o->applied) {
        log("line %s (%s) should be %s: %s", o->name, o->device, text_of(o->opinion), bus_words(result));
        return;
    }
    if (o->opinion == link_state::up)
        log("line %s (%s) is on: a server answered in %d rounds", o->name, o->device, o->good_rounds);
    else
        log("line %s (%s) is off: no server answered in %d rounds", o->name, o->device, o->bad_rounds);
    if (w->given->exec != nullptr) {
        const int status = run_program(w->given->exec, o->name, o->device, text_of(o->opinion));
        if (status != 0)
            log("%s %s %s %s: status %d", w->given->exec, o->name, o->device, text_of(o->opinion), status);
    }
}

server_opinion *server_of(line_opinion *o, const char *address)
{
    for (server_opinion &each : o->servers) {
        if (strcmp(each.address, address) == 0)
            return &each;
    }
    return nullptr;
}

// Servers that are silent while another one answers: each is told once, until it answers.
void note_servers(const watcher *w, line_opinion *o, const probe *probes, int count)
{
    server_opinion servers[SERVERS_MOST] = {};
    for (int i = 0; i < count; i++) {
        char address[INET6_ADDRSTRLEN];
        probes[i].text(address);
        const server_opinion *before = server_of(o, address);
        server_opinion &now = servers[i];
        if (before != nullptr)
            now = *before;
        memcpy(now.address, address, sizeof address);
        now.silent_rounds = probes[i].answered ? 0 : now.silent_rounds + 1;
        if (!now.told && now.silent_rounds == w->given->down_after) {
            log("line %s (%s): the server %s is silent, others answer", o->name, o->device, address);
            now.told = true;
        } else if (now.told && now.silent_rounds == 0) {
            log("line %s (%s): the server %s answers again", o->name, o->device, address);
            now.told = false;
        }
    }
    memcpy(o->servers, servers, sizeof servers);
}

// Whether the round says anything of the line: a question that this router could not ask does not.
bool is_evidence(const probe &p)
{
    return p.error == 0 || p.error == ENODEV || p.error == ENETUNREACH || p.error == EHOSTUNREACH ||
           p.error == EADDRNOTAVAIL;
}

// What the answers of one line say.
void judge(watcher *w, line_opinion *o, const probe *probes, int count)
{
    int answered = 0;
    bool evident = false;
    for (int i = 0; i < count; i++) {
        answered += probes[i].answered ? 1 : 0;
        evident = evident || is_evidence(probes[i]);
    }
    if (!evident)
        return;
    if (answered > 0) {
        o->good_rounds++;
        o->bad_rounds = 0;
        note_servers(w, o, probes, count);
    } else {
        o->bad_rounds++;
        o->good_rounds = 0;
    }
    link_state opinion = o->opinion;
    if (o->bad_rounds >= w->given->down_after)
        opinion = link_state::down;
    else if (o->good_rounds >= w->given->up_after)
        opinion = link_state::up;
    if (opinion != o->opinion) {
        o->opinion = opinion;
        o->applied = false;
    }
}

// Asks every line. The states are read again after that: asking takes seconds, in which others set them.
void ask_lines(watcher *w, const line_table &table)
{
    auto *probes =
        static_cast<probe *>(calloc(static_cast<size_t>(table.count) * SERVERS_MOST + 1, sizeof(probe)));
    if (probes == nullptr)
        return;
    int count = 0;
    for (int i = 0; i < table.count; i++)
        count += probes_of(&table, i, &probes[count]);
    probes_ask(probes, count, &w->query);
    for (int first = 0; first < count && stop_requested == 0;) {
        int next = first;
        while (next < count && probes[next].line == probes[first].line)
            next++;
        line_opinion *o = opinion_of(w, probes[first].device);
        if (o != nullptr)
            judge(w, o, &probes[first], next - first);
        first = next;
    }
    free(probes);
}

bool read_lines(watcher *w, line_table *table)
{
    static constexpr process hidden = {.pid = -1, .name = ""};
    *table = {};
    lines_read(table, {.ipv4 = hidden, .ipv6 = hidden});
    const bool known = table->known && table->bus == bus_result::done;
    if (known == w->away && stop_requested == 0) {
        w->away = !known;
        log(known ? "dnsproxyd can be asked again" : "dnsproxyd cannot be asked, waiting for it: %s",
            bus_words(table->bus));
    }
    return known;
}

void do_round(watcher *w)
{
    line_table table;
    const int64_t asked_at = now_ms();
    if (read_lines(w, &table)) {
        note_start(w, table.uptime, asked_at);
        match_lines(w, &table);
        ask_lines(w, table);
        bool all_applied = true;
        for (int i = 0; i < w->count; i++)
            all_applied = all_applied && w->lines[i].applied;
        lines_free(&table);
        if (!all_applied && stop_requested == 0 && read_lines(w, &table)) {
            for (int i = 0; i < table.count && stop_requested == 0; i++) {
                line_opinion *o = opinion_of(w, table.lines[i].device);
                if (o != nullptr)
                    apply(w, o, table.lines[i].state);
            }
        }
    }
    lines_free(&table);
}

void wait_until(int64_t time)
{
    for (int64_t left = time - now_ms(); left > 0 && stop_requested == 0; left = time - now_ms()) {
        // A signal between the test and the wait would be slept over.
        const int64_t part = left < 200 ? left : 200;
        const timespec moment = {.tv_sec = 0, .tv_nsec = static_cast<long>(part * 1'000'000)};
        (void)nanosleep(&moment, nullptr);
    }
}

void stop(int)
{
    stop_requested = 1;
}

} // namespace

volatile sig_atomic_t stop_requested;

int run_watch(const invocation &given)
{
    watcher w = {};
    w.given = &given;
    if (!w.query.set_name(given.query))
        return usage_error("--query: %s is no name", printable(given.query).text);
    struct sigaction action = {};
    action.sa_handler = stop;
    (void)sigaction(SIGTERM, &action, nullptr);
    (void)sigaction(SIGINT, &action, nullptr);
    log("asking all servers every %d s; a line without any answer in %d rounds is marked off, with one in %d "
        "rounds on",
        given.every_s, given.down_after, given.up_after);
    while (stop_requested == 0) {
        const int64_t start = now_ms();
        do_round(&w);
        wait_until(start + int64_t{given.every_s} * 1000);
    }
    log("stopped; the lines stay as they are");
    free(w.lines);
    return finish_output();
}
