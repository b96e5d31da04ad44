#include "check.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <uci.h>
#include <unistd.h>

#include "config/effect_devices.h"
#include "config/resolver_file.h"
#include "config/rule.h"
#include "netifd.h"
#include "port53.h"
#include "probe.h"
#include "request.h"
#include "routes.h"
#include "text.h"
#include "wan_lines.h"

namespace {

constexpr int most_devices = 256; // of rules, and of the resolver file

struct device_list {
    char names[most_devices][IF_NAMESIZE];
    int count;

    [[nodiscard]] bool has(const char *device) const
    {
        for (int i = 0; i < count; i++) {
            if (strcmp(names[i], device) == 0)
                return true;
        }
        return false;
    }
    void add(const char (&device)[IF_NAMESIZE])
    {
        if (count < most_devices)
            memcpy(names[count++], device, sizeof device);
    }
};

struct doctor {
    format form;
    int findings;
    bool can_map; // the zone functions are there; without them no name has a device, which is one finding
    port53 port;
    line_table table;
    device_list served;      // of the rules so far
    char pppoe[IF_NAMESIZE]; // device of the PPPoE server; empty: none

    [[gnu::format(printf, 2, 3)]] void find(const char *text, ...);
    // What to do about the finding before. A remedy follows each.
    [[gnu::format(printf, 2, 3)]] void remedy(const char *text, ...);

private:
    void print(const char *text, va_list values) const;
};

void doctor::print(const char *text, va_list values) const
{
    char sentence[256];
    (void)vsnprintf(sentence, sizeof sentence, text, values);
    if (form == format::json)
        put_json(sentence);
    else
        fputs(printable(sentence).text, stdout);
}

void doctor::find(const char *text, ...)
{
    va_list values;
    va_start(values, text);
    if (form == format::json)
        fputs(findings > 0 ? ",{\"finding\":" : "{\"finding\":", stdout);
    print(text, values);
    findings++;
    va_end(values);
}

void doctor::remedy(const char *text, ...)
{
    va_list values;
    va_start(values, text);
    fputs(form == format::json ? ",\"remedy\":" : "\n    ", stdout);
    print(text, values);
    fputs(form == format::json ? "}" : "\n", stdout);
    va_end(values);
}

void find_port_owner(doctor *d, const char *families, const process &owner)
{
    d->find("UDP port 53 over %s belongs to %s (process %d)", families, owner.name, owner.pid);
    if (strcmp(owner.name, "dnsmasq") == 0)
        d->remedy(
            "run dnsproxy-setup apply; where that is not installed: uci set dhcp.@dnsmasq[0].port=0 &&"
            " uci add_list dhcp.lan.dhcp_option=6,0.0.0.0 && uci commit dhcp && reload_config, then restart"
            " dnsproxyd");
    else
        d->remedy("stop that program or give it another port, then restart dnsproxyd");
}

void check_port(doctor *d)
{
    const process &v4 = d->port.ipv4;
    const process &v6 = d->port.ipv6;
    if (v4.is_other() && v6.is_other() && v4.pid == v6.pid) {
        find_port_owner(d, "IPv4 and IPv6", v4);
    } else if (v4.is_other() || v6.is_other()) {
        if (v4.is_other())
            find_port_owner(d, "IPv4", v4);
        if (v6.is_other())
            find_port_owner(d, "IPv6", v6);
    } else if (v4.is_hidden() || v6.is_hidden()) {
        d->find("this user may not see who holds UDP port 53, nor ask dnsproxyd");
        d->remedy("run it as root");
    } else if (find_daemon().pid == 0) {
        d->find("dnsproxyd is not running");
        d->remedy("start it: /etc/init.d/dnsproxyd start");
    } else if (d->port.served() != served::yes) {
        d->find("dnsproxyd runs but does not own UDP port 53");
        d->remedy("restart it: /etc/init.d/dnsproxyd restart");
    } else if (!d->table.known) {
        d->find("%s", no_reply_words(d->table.pipe_error));
        d->remedy("restart it: /etc/init.d/dnsproxyd restart");
    }
}

// The functions that a shell does not find in the router's file, or the file itself.
void check_zone_functions(doctor *d)
{
    static constexpr char command[] = "exec 2>/dev/null; f=/lib/zone/zone_api.sh; if [ ! -r $f ]; then echo "
                                      "\"$f\"; exit; fi; . $f >/dev/null;"
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
    if (d->can_map)
        return;
    d->find("%s is missing or broken", missing);
    d->remedy("install the router's zone functions: without them no rule and no line has a device");
}

// The device of a logical name, or false with a finding. The caller clears `device`.
bool map(doctor *d, const char *who, const char *logical, char (&device)[IF_NAMESIZE])
{
    if (!d->can_map)
        return false;
    if (device_of(logical, device))
        return true;
    d->find("%s: the zone functions give no device for %s", who, logical);
    d->remedy("correct the name, or make the zone functions know it");
    return false;
}

void check_served(doctor *d, const dnsproxy_rule &rule, const char *who)
{
    char device[IF_NAMESIZE] = {};
    if (rule.service_if == nullptr) {
        d->find("%s: service_if is missing, it serves nobody", who);
        d->remedy("add its service_if");
        return;
    }
    if (!map(d, who, rule.service_if, device))
        return;
    if (!device_exists(device)) {
        d->find("%s: %s is %s, a device that is not there", who, rule.service_if, device);
        d->remedy("bring the interface up or correct the rule");
    }
    if (rule.is_pppoe()) {
        memcpy(d->pppoe, device, sizeof device);
    } else if (d->served.has(device)) {
        d->find("%s: an earlier rule serves %s, this one has no effect", who, device);
        d->remedy("delete one of the two");
    } else {
        d->served.add(device);
    }
}

void check_forced(doctor *d, const dnsproxy_rule &rule, const char *who)
{
    char device[IF_NAMESIZE] = {};
    if (rule.out_if == nullptr) {
        d->find("%s: force_if is on but out_if is missing, its hosts get no answer", who);
        d->remedy("add its out_if");
        return;
    }
    if (!map(d, who, rule.out_if, device))
        return;
    const line *out = d->table.find(device);
    if (!device_exists(device)) {
        // A line that counts as up is a finding of its own.
        if (out == nullptr || out->state == link_state::down) {
            d->find("%s: %s is %s, a device that is not there", who, rule.out_if, device);
            d->remedy("bring the line up or correct the rule");
        }
    } else if (out == nullptr || (out->ipv4_known && out->ipv6_known && !out->has_server())) {
        d->find("%s: the line %s has no DNS server, its hosts get no answer", who, rule.out_if);
        d->remedy("give it one: dnsproxyctl put %s SERVER", rule.out_if);
    }
}

// Values that do not mean what they seem to.
void check_values(doctor *d, const dnsproxy_rule &rule, const char *who)
{
    const bool is_on = rule.is_forced();
    const bool is_off = rule.force_if != nullptr && strcmp(rule.force_if, "off") == 0;
    if (rule.force_if != nullptr && !is_on && !is_off) {
        d->find("%s: force_if '%s' counts as off, its queries leave by any line", who, rule.force_if);
        d->remedy("write 'on' or 'off' and restart dnsproxyd");
    } else if (rule.force_if == nullptr && rule.out_if != nullptr) {
        d->find("%s: out_if without force_if has no effect, its queries leave by any line", who);
        d->remedy("add option force_if 'on', or delete out_if, and restart dnsproxyd");
    }
    if (rule.out_type != nullptr && !rule.is_polling()) {
        d->find("%s: out_type '%s' has no effect, its queries take the lines in turn", who, rule.out_type);
        d->remedy("write 'polling' or delete it, and restart dnsproxyd");
    } else if (rule.is_polling() && is_on) {
        d->find("%s: out_type 'polling' has no effect where force_if is on", who);
        d->remedy("delete one of the two and restart dnsproxyd");
    }
}

void check_options(doctor *d, uci_section *section, const char *who)
{
    uci_element *option = nullptr;
    uci_foreach_element(&section->options, option)
    {
        if (!dnsproxy_rule_knows(option->name)) {
            d->find("%s: the option %s is not known and has no effect", who, option->name);
            d->remedy("correct its name or delete it");
        }
    }
}

bool check_rule(uci_section *section, void *context)
{
    auto *d = static_cast<doctor *>(context);
    const dnsproxy_rule rule = dnsproxy_rule_read(section);
    char who[64];
    (void)snprintf(who, sizeof who, "rule %s", rule.name != nullptr ? rule.name : "without a name");
    check_options(d, section, who);
    check_served(d, rule, who);
    if (rule.is_pppoe())
        return true;
    check_values(d, rule, who);
    if (rule.is_forced())
        check_forced(d, rule, who);
    return true;
}

bool take_no_rule(uci_section *, void *)
{
    return false;
}

// Whether the rules can be read; a mistake in the file comes before everything else.
bool check_rules_file(doctor *d)
{
    const char *reason = rules_walk(take_no_rule, nullptr);
    if (reason == nullptr)
        return true;
    if (access("/etc/config/dns", R_OK) == 0) {
        d->find("/etc/config/dns: %s, dnsproxyd ends at its start", reason);
        d->remedy("correct it: dnsproxyd-rules(5)");
    } else {
        d->find("/etc/config/dns cannot be read, dnsproxyd ends at its start");
        d->remedy("write the rules: dnsproxyd-rules(5)");
    }
    return false;
}

void check_rules(doctor *d)
{
    const int before = d->findings;
    (void)rules_walk(check_rule, d);
    if (d->findings != before)
        return;
    if (d->can_map && d->served.count == 0) {
        d->find("no rule, no network is served");
        d->remedy("add a rule to /etc/config/dns and restart dnsproxyd");
    }
    if (d->pppoe[0] != '\0' && !d->served.has(d->pppoe)) {
        d->find("rule dnsproxy_pppoes: no rule serves %s, PPPoE clients get no answer", d->pppoe);
        d->remedy("add a rule that serves it");
    }
}

struct resolver_state {
    int headings;
    bool blank_heading;    // "# Interface"
    bool server_too_early; // before any heading
    device_list devices;
};

// False: a daemon stops reading here.
bool check_heading(doctor *d, resolver_state *s, const char *logical)
{
    char device[IF_NAMESIZE] = {};
    if (logical == nullptr) {
        d->find("%s: a heading #Interface without a name", DNSPROXY_RESOLVER_FILE);
        d->remedy("write #Interface NAME");
        return true;
    }
    s->headings++;
    if (strcmp(logical, "loopback") == 0 || !d->can_map)
        return true;
    if (dnsproxy_get_effect_devices(logical, device) < 0) {
        d->find("%s: the zone functions give no device for %s, nothing from there on is read",
                DNSPROXY_RESOLVER_FILE, logical);
        d->remedy("correct the name, or make the zone functions know it");
        return false;
    }
    if (s->devices.has(device)) {
        d->find("%s: a second section for %s, nothing from there on is read", DNSPROXY_RESOLVER_FILE, device);
        d->remedy("give each device one section");
        return false;
    }
    s->devices.add(device);
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
    if (resolver_address(entry.value, &address) == 0) {
        d->find("%s: %s is no address", DNSPROXY_RESOLVER_FILE, entry.value);
        d->remedy("correct it");
    }
    return true;
}

void check_resolver_file(doctor *d)
{
    resolver_file file;
    if (!file.is_open()) {
        d->find("%s cannot be read, no line has servers at the next start", DNSPROXY_RESOLVER_FILE);
        d->remedy("have the network scripts write it");
        return;
    }
    const int before = d->findings;
    static resolver_state s;
    for (resolver_entry entry = {}; file.next(&entry);) {
        if (!check_resolver_entry(d, &s, entry))
            return;
    }
    if (s.blank_heading) {
        d->find("%s: its headings are # Interface NAME, which are not read", DNSPROXY_RESOLVER_FILE);
        d->remedy("write #Interface NAME, without the blank");
    } else if (s.headings == 0 && s.server_too_early) {
        d->find("%s: no heading, its servers belong to no line", DNSPROXY_RESOLVER_FILE);
        d->remedy("begin each line's servers with #Interface NAME");
    } else if (s.server_too_early) {
        d->find("%s: servers before the first heading, which are not read", DNSPROXY_RESOLVER_FILE);
        d->remedy("move them below a heading #Interface NAME");
    } else if (d->findings == before && d->can_map && d->table.servers_known() && !d->table.has_server()) {
        const char *name = d->table.count > 0 ? d->table.lines[0].name() : "NAME";
        d->find("no line has a DNS server");
        d->remedy("give one to a line: dnsproxyctl put %s SERVER", name);
    }
}

// A device whose hosts have the router as their IPv6 DNS server.
const char *served_over_ipv6(const doctor *d)
{
    static char device[IF_NAMESIZE];
    ifaddrs *all = nullptr;
    device[0] = '\0';
    if (getifaddrs(&all) != 0)
        return device;
    for (const ifaddrs *each = all; each != nullptr && device[0] == '\0'; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_INET6)
            continue;
        const in6_addr address = reinterpret_cast<const sockaddr_in6 *>(each->ifa_addr)->sin6_addr;
        if (!IN6_IS_ADDR_LINKLOCAL(&address) && !IN6_IS_ADDR_LOOPBACK(&address) &&
            d->served.has(each->ifa_name))
            (void)snprintf(device, sizeof device, "%s", each->ifa_name);
    }
    freeifaddrs(all);
    return device;
}

// An IPv6 query goes to IPv6 servers alone.
void check_ipv6_servers(doctor *d)
{
    const line *first = nullptr;
    for (int i = 0; i < d->table.count; i++) {
        const line &l = d->table.lines[i];
        for (const in6_addr &v6 : l.ipv6) {
            const in6_addr server = v6;
            if (!l.ipv6_known || !IN6_IS_ADDR_UNSPECIFIED(&server))
                return;
        }
        if (first == nullptr && l.ipv4[0].s_addr != 0)
            first = &l;
    }
    const char *device = first != nullptr ? served_over_ipv6(d) : "";
    if (device[0] == '\0')
        return;
    char address[INET_ADDRSTRLEN] = {};
    (void)inet_ntop(AF_INET, &first->ipv4[0], address, sizeof address);
    d->find("no line has an IPv6 server, hosts on %s that ask over IPv6 get no answer", device);
    d->remedy("give each line its IPv4 servers for them: dnsproxyctl set %s ::ffff:%s", first->name(),
              address);
}

// Whether netifd's list has a server, and of how many.
struct wanted_server {
    in6_addr server;
    int given;
    bool found;
    char text[INET6_ADDRSTRLEN]; // one that it gives
};

bool compare_server(const char *text, const in6_addr &given, void *context)
{
    auto *wanted = static_cast<wanted_server *>(context);
    wanted->given++;
    wanted->found = wanted->found || memcmp(&given, &wanted->server, sizeof given) == 0;
    (void)snprintf(wanted->text, sizeof wanted->text, "%s", text);
    return !wanted->found;
}

// A line's servers against those that the network has got from its provider since.
void check_line_with_netifd(doctor *d, const netifd &n, const line &l)
{
    for (int i = 0; i < 2 * SLOTS; i++) {
        wanted_server wanted = {};
        char text[INET6_ADDRSTRLEN] = {};
        const int slot = i % SLOTS;
        if (i < SLOTS) {
            if (l.ipv4[slot].s_addr == 0)
                continue;
            wanted.server.s6_addr[10] = 0xff;
            wanted.server.s6_addr[11] = 0xff;
            memcpy(wanted.server.s6_addr + 12, &l.ipv4[slot], sizeof l.ipv4[slot]);
            (void)inet_ntop(AF_INET, &l.ipv4[slot], text, sizeof text);
        } else {
            wanted.server = l.ipv6[slot];
            if (IN6_IS_ADDR_UNSPECIFIED(&wanted.server))
                continue;
            (void)inet_ntop(AF_INET6, &l.ipv6[slot], text, sizeof text);
        }
        netifd_servers(n, l.device, compare_server, &wanted);
        if (wanted.given == 0 || wanted.found)
            continue;
        d->find("line %s: dnsproxyd asks %s, which netifd does not give for %s (it gives %s)", l.name(), text,
                l.device, wanted.text);
        d->remedy("/etc/init.d/dnsproxyd reload, or leave it if it was set by hand");
        return;
    }
}

void check_netifd(doctor *d)
{
    netifd n;
    if (d->table.known && d->table.bus != bus_result::silent && netifd_read(&n)) {
        for (int i = 0; i < d->table.count; i++)
            check_line_with_netifd(d, n, d->table.lines[i]);
        netifd_free(&n);
    }
}

// Devices whose names begin so count as links of PPPoE clients.
void check_pppoe_lines(doctor *d)
{
    for (int i = 0; i < d->table.count && d->pppoe[0] != '\0'; i++) {
        const line &l = d->table.lines[i];
        if (strncmp(l.device, "ppp", 3) != 0)
            continue;
        d->find("line %s: %s counts as a PPPoE client, strangers there are served as if on %s", l.name(),
                l.device, d->pppoe);
        d->remedy("see that the firewall refuses port 53 on %s, or delete the rule dnsproxy_pppoes",
                  l.device);
    }
}

void say_route_fault(doctor *d, const line &l, const char *server, route_fault fault)
{
    switch (fault) {
    case route_fault::no_gateway:
        d->find("line %s: %s has no gateway of its own to the server %s", l.name(), l.device, server);
        d->remedy("give each line a default route with its own metric");
        break;
    case route_fault::source_specific:
        d->find("line %s: only a source-specific route leads to the server %s through %s", l.name(), server,
                l.device);
        d->remedy("set sourcefilter 0 in the network of %s", l.device);
        break;
    case route_fault::marked:
        d->find("line %s: the server %s does not answer through %s to queries that are marked by mwan3",
                l.name(), server, l.device);
        d->remedy("keep mwan3 from marking the queries of dnsproxyd");
        break;
    case route_fault::none:
        d->find("line %s: the server %s does not answer through %s", l.name(), server, l.device);
        d->remedy("check it, or set another: dnsproxyctl set %s SERVER", l.name());
        break;
    }
}

// Why a server is silent, of those reasons that the router can see. A mark counts where the server answers to
// a query that carries all marks.
route_fault reason(probe *p, const probe_query *query)
{
    uint32_t mask = 0;
    const route_fault fault = route_fault_of(p->device, p->server, &mask);
    if (fault != route_fault::marked)
        return fault;
    p->mark = mask;
    probes_ask(p, 1, query);
    return p->answered ? route_fault::marked : route_fault::none;
}

// Of the probes of one line. When all are silent for one reason, that is one finding.
void find_silent(doctor *d, const line &l, probe *probes, int count, const probe_query *query)
{
    int silent = 0;
    for (int i = 0; i < count; i++)
        silent += probes[i].answered ? 0 : 1;
    const bool is_whole = silent > 1 && silent == count;
    for (int i = 0; i < count; i++) {
        if (probes[i].answered)
            continue;
        const route_fault fault = reason(&probes[i], query);
        char address[INET6_ADDRSTRLEN];
        probes[i].text(address);
        if (is_whole && fault == route_fault::none) {
            d->find("line %s: none of its %d servers answers through %s", l.name(), count, l.device);
            d->remedy("check the line and its firewall rules");
            return;
        }
        say_route_fault(d, l, address, fault);
        if (is_whole)
            return;
    }
}

// A device that a line has by its record and the router has not.
void find_away(doctor *d, const line &l)
{
    if (!d->can_map)
        return;
    if (l.device[0] == '\0') {
        d->find("a line has no device: its name cannot be mapped");
        d->remedy("correct the name, or make the zone functions know it, then restart dnsproxyd");
        return;
    }
    d->find("line %s: its device %s is not there but counts as up", l.name(), l.device);
    d->remedy("bring it up or mark it down: dnsproxyctl down %s", l.device);
}

// Lines that are marked down are meant to be silent.
void check_lines(doctor *d)
{
    probe_query query;
    (void)query.set_name(".");
    const auto lines = static_cast<size_t>(d->table.count);
    auto *probes = static_cast<probe *>(calloc(lines * SERVERS_MOST + 1, sizeof(probe)));
    if (probes == nullptr)
        return;
    int count = 0;
    for (int i = 0; i < d->table.count; i++) {
        const line &l = d->table.lines[i];
        if (l.state == link_state::down)
            continue;
        if (device_exists(l.device))
            count += probes_of(&d->table, i, &probes[count]);
        else
            find_away(d, l);
    }
    probes_ask(probes, count, &query);
    for (int first = 0; first < count;) {
        int next = first;
        bool asked = true;
        for (; next < count && probes[next].line == probes[first].line; next++)
            asked = asked && probes[next].error != EPERM; // this user may not tie a socket to a device
        if (asked)
            find_silent(d, d->table.lines[probes[first].line], &probes[first], next - first, &query);
        first = next;
    }
    free(probes);
}

} // namespace

int run_check(const invocation &given)
{
    static doctor d;
    d.form = given.form;
    if (d.form == format::json)
        printf("{\"findings\":[");
    const bool has_rules = check_rules_file(&d);
    d.port = port53_owners();
    lines_read(&d.table, d.port);
    lines_name(&d.table);
    const bool running = d.table.known;
    if (!running)
        lines_read_files(&d.table);
    check_port(&d);
    check_zone_functions(&d);
    if (has_rules)
        check_rules(&d);
    check_resolver_file(&d);
    if (running && d.table.bus == bus_result::no_object) {
        d.find("no object dnsproxy on the bus, lines that fail are not passed over");
        d.remedy("start the bus first, then restart dnsproxyd");
    } else if (running && d.table.bus != bus_result::done) {
        d.find("%s, lines that fail are not passed over", bus_words(d.table.bus));
        d.remedy("start the bus first, then restart dnsproxyd");
    }
    check_pppoe_lines(&d);
    check_ipv6_servers(&d);
    check_netifd(&d);
    check_lines(&d);
    if (d.form == format::json)
        puts("]}");
    else if (d.findings == 0)
        puts("nothing found");
    lines_free(&d.table);
    const int printed = finish_output();
    return d.findings == 0 ? printed : EXIT_REFUSED;
}
