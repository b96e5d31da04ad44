#include "check.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "ask.h"
#include "config/effect_devices.h"
#include "config/resolver_file.h"
#include "config/rule.h"
#include "port53.h"
#include "text.h"
#include "wan_lines.h"

namespace {

constexpr int most_served = 64;

struct doctor {
    format form;
    int findings;
    bool can_map; // the zone functions are there; without them no name has a device, which is one finding
    port53 port;
    line_table table;
    char served[most_served][IF_NAMESIZE]; // devices of the rules so far
    int served_count;
    char pppoe[IF_NAMESIZE]; // device of the PPPoE server; empty: none

    [[gnu::format(printf, 3, 4)]] void find(const char *remedy, const char *text, ...);
};

void doctor::find(const char *remedy, const char *text, ...)
{
    char finding[256];
    va_list values;
    va_start(values, text);
    (void)vsnprintf(finding, sizeof finding, text, values);
    va_end(values);
    findings++;
    if (form == format::columns) {
        printf("%s; %s\n", printable(finding).text, remedy);
        return;
    }
    printf(findings > 1 ? ",{\"finding\":" : "{\"finding\":");
    put_json(finding);
    printf(",\"remedy\":");
    put_json(remedy);
    putchar('}');
}

void find_port_owner(doctor *d, const char *families, const process &owner)
{
    char holder[48];
    (void)snprintf(holder, sizeof holder, owner.pid > 0 ? "%s (process %d)" : "%s", owner.name, owner.pid);
    d->find(
        strcmp(owner.name, "dnsmasq") == 0
            ? "uci set dhcp.@dnsmasq[0].port=0 && uci commit dhcp && reload_config, then restart dnsproxyd"
            : "stop that program or give it another port, then restart dnsproxyd",
        "UDP port 53 over %s belongs to %s", families, holder);
}

void check_port(doctor *d)
{
    const bool taken4 = d->port.ipv4.pid != 0 && !d->port.ipv4.is_daemon();
    const bool taken6 = d->port.ipv6.pid != 0 && !d->port.ipv6.is_daemon();
    if (taken4 && taken6 && d->port.ipv4.pid == d->port.ipv6.pid) {
        find_port_owner(d, "IPv4 and IPv6", d->port.ipv4);
    } else if (taken4 || taken6) {
        if (taken4)
            find_port_owner(d, "IPv4", d->port.ipv4);
        if (taken6)
            find_port_owner(d, "IPv6", d->port.ipv6);
    } else if (find_daemon().pid == 0) {
        d->find("start it: /etc/init.d/dnsproxyd start", "dnsproxyd is not running");
    } else if (!d->port.served()) {
        d->find("restart it: /etc/init.d/dnsproxyd restart", "dnsproxyd runs but does not own UDP port 53");
    } else if (d->table.status < 0) {
        d->find("restart it: /etc/init.d/dnsproxyd restart", "dnsproxyd does not answer on its request pipe");
    }
}

// The functions that a shell does not find in the router's file, or the file itself.
void check_zone_functions(doctor *d)
{
    static constexpr char command[] =
        "f=/lib/zone/zone_api.sh; if [ ! -r $f ]; then echo \"$f\"; exit; fi; . $f >/dev/null 2>&1;"
        " for n in zone_iface_to_userif zone_get_effect_devices; do"
        " command -v $n >/dev/null || { echo \"$n in $f\"; exit; }; done; echo";
    char missing[64] = "/lib/zone/zone_api.sh";
    FILE *output = popen(command, "re");
    if (output != nullptr) {
        if (fgets(missing, sizeof missing, output) != nullptr)
            missing[strcspn(missing, "\n")] = '\0';
        (void)pclose(output);
    }
    d->can_map = missing[0] == '\0';
    if (!d->can_map)
        d->find("install the router's zone functions: without them no rule and no line has a device",
                "%s is missing or broken", missing);
}

// The device of a logical name, or false with a finding. The caller clears `device`.
bool map(doctor *d, const char *who, const char *logical, char (&device)[IF_NAMESIZE])
{
    if (!d->can_map)
        return false;
    if (dnsproxy_get_effect_devices(logical, device) < 0 || device[0] == '\0') {
        d->find("correct the name, or make the zone functions know it",
                "%s: the zone functions give no device for %s", who, logical);
        return false;
    }
    return true;
}

void check_spelling(doctor *d, const char *who, const char *option, const char *value, const char *meant)
{
    if (value != nullptr && strcmp(value, meant) != 0 && strcasecmp(value, meant) == 0)
        d->find("write it in lower case and restart dnsproxyd", "%s: %s '%s' has no effect", who, option,
                value);
}

void check_served(doctor *d, const dnsproxy_rule &rule, const char *who)
{
    char device[IF_NAMESIZE] = {};
    if (rule.service_if == nullptr) {
        d->find("add its service_if", "%s: service_if is missing, it serves nobody", who);
        return;
    }
    if (!map(d, who, rule.service_if, device))
        return;
    if (!device_exists(device)) {
        d->find("bring the interface up or correct the rule", "%s: %s is %s, a device that is not there", who,
                rule.service_if, device);
    }
    if (rule.is_pppoe()) {
        memcpy(d->pppoe, device, sizeof device);
        return;
    }
    for (int i = 0; i < d->served_count; i++) {
        if (strcmp(d->served[i], device) == 0) {
            d->find("delete one of the two", "%s: an earlier rule serves %s, this one has no effect", who,
                    device);
            return;
        }
    }
    if (d->served_count < most_served)
        memcpy(d->served[d->served_count++], device, sizeof device);
}

void check_forced(doctor *d, const dnsproxy_rule &rule, const char *who)
{
    char device[IF_NAMESIZE] = {};
    if (rule.out_if == nullptr) {
        d->find("add its out_if", "%s: force_if is on but out_if is missing, its hosts get no answer", who);
        return;
    }
    if (!map(d, who, rule.out_if, device))
        return;
    const line *out = d->table.find(device);
    if (!device_exists(device)) {
        // A line that counts as up is a finding of its own.
        if (out == nullptr || out->state == link_state::down)
            d->find("bring the line up or correct the rule", "%s: %s is %s, a device that is not there", who,
                    rule.out_if, device);
        return;
    }
    if (out == nullptr || !out->has_server())
        d->find("give it one: dnsproxyctl put NAME SERVER",
                "%s: the line %s has no DNS server, its hosts get no answer", who, rule.out_if);
}

bool check_rule(const dnsproxy_rule *rule, void *context)
{
    auto *d = static_cast<doctor *>(context);
    char who[64];
    (void)snprintf(who, sizeof who, "rule %s", rule->name != nullptr ? rule->name : "without a name");
    check_served(d, *rule, who);
    if (rule->is_pppoe())
        return true;
    check_spelling(d, who, "force_if", rule->force_if, "on");
    check_spelling(d, who, "out_type", rule->out_type, "polling");
    if (rule->is_forced())
        check_forced(d, *rule, who);
    return true;
}

void check_rules(doctor *d)
{
    const int before = d->findings;
    if (rules_walk(check_rule, d) < 0) {
        d->find("write the rules: dnsproxyd-rules(5)",
                "/etc/config/dns cannot be read, dnsproxyd ends at its start");
        return;
    }
    if (d->findings != before)
        return;
    if (d->can_map && d->served_count == 0)
        d->find("add a rule to /etc/config/dns and restart dnsproxyd", "no rule, no network is served");
    bool served = d->pppoe[0] == '\0';
    for (int i = 0; i < d->served_count; i++)
        served = served || strcmp(d->served[i], d->pppoe) == 0;
    if (!served)
        d->find("add a rule that serves it",
                "rule dnsproxy_pppoes: no rule serves %s, PPPoE clients get no answer", d->pppoe);
}

struct resolver_state {
    int headings;
    bool blank_heading;    // "# Interface"
    bool server_too_early; // before any heading
    char devices[LINES_MOST][IF_NAMESIZE];
    int device_count;
};

// False: a daemon stops reading here.
bool check_heading(doctor *d, resolver_state *s, const char *logical)
{
    char device[IF_NAMESIZE] = {};
    if (logical == nullptr) {
        d->find("write #Interface NAME", "%s: a heading #Interface without a name", DNSPROXY_RESOLVER_FILE);
        return true;
    }
    s->headings++;
    if (strcmp(logical, "loopback") == 0 || !d->can_map)
        return true;
    if (dnsproxy_get_effect_devices(logical, device) < 0) {
        d->find("correct the name, or make the zone functions know it",
                "%s: the zone functions give no device for %s, nothing from there on is read",
                DNSPROXY_RESOLVER_FILE, logical);
        return false;
    }
    for (int i = 0; i < s->device_count; i++) {
        if (strcmp(s->devices[i], device) == 0) {
            d->find("give each device one section",
                    "%s: a second section for %s, nothing from there on is read", DNSPROXY_RESOLVER_FILE,
                    device);
            return false;
        }
    }
    if (s->device_count < LINES_MOST)
        memcpy(s->devices[s->device_count++], device, sizeof device);
    return true;
}

// False: a daemon stops reading here.
bool check_resolver_entry(doctor *d, resolver_state *s, const resolver_entry &entry)
{
    in6_addr address = {};
    if (entry.is_heading())
        return check_heading(d, s, entry.value);
    if (entry.value == nullptr)
        return true;
    if (strcmp(entry.keyword, "#") == 0 && strcmp(entry.value, "Interface") == 0)
        s->blank_heading = true;
    if (!entry.is_server())
        return true;
    s->server_too_early = s->server_too_early || s->headings == 0;
    if (resolver_address(entry.value, &address) == 0)
        d->find("correct it", "%s: %s is no address", DNSPROXY_RESOLVER_FILE, entry.value);
    return true;
}

void check_resolver_file(doctor *d)
{
    resolver_file file;
    if (!file.is_open()) {
        d->find("have the network scripts write it",
                "%s cannot be read, no line has servers at the next start", DNSPROXY_RESOLVER_FILE);
        return;
    }
    const int before = d->findings;
    resolver_state s = {};
    for (resolver_entry entry = {}; file.next(&entry);) {
        if (!check_resolver_entry(d, &s, entry))
            return;
    }
    if (s.blank_heading)
        d->find("write #Interface NAME, without the blank",
                "%s: its headings are # Interface NAME, which are not read", DNSPROXY_RESOLVER_FILE);
    else if (s.headings == 0 && s.server_too_early)
        d->find("begin each line's servers with #Interface NAME",
                "%s: no heading, its servers belong to no line", DNSPROXY_RESOLVER_FILE);
    else if (s.server_too_early)
        d->find("move them below a heading #Interface NAME",
                "%s: servers before the first heading, which are not read", DNSPROXY_RESOLVER_FILE);
    else if (d->findings == before && d->can_map && !d->table.has_server())
        d->find("give one to a line: dnsproxyctl add NAME SERVER", "no line has a DNS server");
}

const char *name_of(const line &l)
{
    return l.logical[0] != '\0' ? l.logical : l.device;
}

void find_silent(doctor *d, const line &l, const question *questions, int count)
{
    int silent = 0;
    for (int i = 0; i < count; i++)
        silent += questions[i].answered ? 0 : 1;
    if (silent > 1 && silent == count) {
        d->find("check the line and its firewall rules", "line %s: none of its %d servers answers through %s",
                name_of(l), count, l.device);
        return;
    }
    for (int i = 0; i < count; i++) {
        char address[INET6_ADDRSTRLEN];
        questions[i].text(address);
        if (!questions[i].answered)
            d->find("check it, or set another: dnsproxyctl set NAME SERVER",
                    "line %s: the server %s does not answer through %s", name_of(l), address, l.device);
    }
}

// Lines that are marked down are meant to be silent.
void check_lines(doctor *d)
{
    static question questions[4 * LINES_MOST];
    int first[LINES_MOST + 1] = {};
    int count = 0;
    for (int i = 0; i < d->table.count; i++) {
        const line &l = d->table.lines[i];
        const bool there = device_exists(l.device);
        first[i] = count;
        if (l.state == link_state::down)
            continue;
        if (there)
            count += questions_of(&l, &questions[count]);
        else if (d->can_map)
            d->find("bring it up or mark it down: ubus call dnsproxy update_if",
                    "line %s: its device %s is not there but counts as up", name_of(l), l.device);
    }
    first[d->table.count] = count;
    ask(questions, count);
    for (int i = 0; i < d->table.count; i++)
        find_silent(d, d->table.lines[i], &questions[first[i]], first[i + 1] - first[i]);
}

} // namespace

int show_check(format form)
{
    static doctor d;
    d.form = form;
    if (form == format::json)
        printf("{\"findings\":[");
    d.port = port53_owners();
    lines_read(&d.table, d.port);
    check_port(&d);
    check_zone_functions(&d);
    check_rules(&d);
    check_resolver_file(&d);
    if (d.table.status >= 0 && !d.table.on_bus)
        d.find("start the bus first, then restart dnsproxyd",
               "no object dnsproxy on the bus, lines that fail are not passed over");
    check_lines(&d);
    if (form == format::json)
        puts("]}");
    else if (d.findings == 0)
        puts("nothing found");
    return d.findings;
}
