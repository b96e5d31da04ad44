#include "wan_lines.h"

#include <dnsproxy/client.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <uci.h>
#include <unistd.h>

#include "config/effect_devices.h"
#include "config/resolver_file.h"
#include "config/rule.h"
#include "iface/if_init.h"
#include "iface/server_if.h"
#include "request.h"

namespace {

line *add_line(line_table *table, const char *device)
{
    line *known = table->find(device);
    if (known != nullptr)
        return known;
    if (table->count == table->capacity) {
        const int capacity = table->capacity == 0 ? 16 : 2 * table->capacity;
        void *longer = realloc(table->lines, static_cast<size_t>(capacity) * sizeof(line));
        if (longer == nullptr) {
            fputs("dnsproxyctl: out of memory\n", stderr);
            exit(1);
        }
        table->lines = static_cast<line *>(longer);
        table->capacity = capacity;
    }
    line *added = &table->lines[table->count++];
    *added = {};
    (void)snprintf(added->device, sizeof added->device, "%s", device);
    added->sent = json_unknown;
    added->uses = json_unknown;
    for (auto &family : added->answered)
        std::fill(family, family + SLOTS, -1);
    return added;
}

in_addr address_of(uint64_t slot)
{
    return {.s_addr = static_cast<uint32_t>(slot)};
}

void take_numbers(line_table *table, const line_numbers &numbers)
{
    line *l = add_line(table, numbers.device);
    l->state = numbers.state;
    if (numbers.families[0].sent != json_unknown && numbers.families[1].sent != json_unknown)
        l->sent = numbers.families[0].sent + numbers.families[1].sent;
    l->uses = numbers.uses;
    l->ipv4_known = true;
    l->ipv6_known = true;
    for (int slot = 0; slot < SLOTS; slot++) {
        const server_numbers &v4 = numbers.families[0].servers[slot];
        const server_numbers &v6 = numbers.families[1].servers[slot];
        if (v4.address[0] != '\0' && inet_pton(AF_INET, v4.address, &l->ipv4[slot]) != 1)
            l->ipv4_known = false;
        if (v6.address[0] != '\0' && inet_pton(AF_INET6, v6.address, &l->ipv6[slot]) != 1)
            l->ipv6_known = false;
        l->answered[0][slot] = share_of(v4.times.replies, v4.sent);
        l->answered[1][slot] = share_of(v6.times.replies, v6.sent);
    }
}

bool read_statistics(line_table *table)
{
    statistics s = {};
    table->bus = statistics_read(&s);
    if (table->bus != bus_result::done)
        return false;
    table->uptime = s.uptime;
    for (int i = 0; i < s.count; i++)
        take_numbers(table, s.lines[i]);
    statistics_free(&s);
    return true;
}

// {"wan1":{"dev":"wan1","status":"on"},...}: all lines in the order in which they are tried.
bool read_states(line_table *table)
{
    char *text = nullptr;
    table->bus = bus_call("dnsproxy", "get_state", "{}", &text);
    if (table->bus != bus_result::done)
        return false;
    for (json name = json_read(text).first_name(); name; name = name.value().next()) {
        char device[IF_NAMESIZE];
        if (name.value().member("dev").copy(device, sizeof device))
            add_line(table, device)->state = state_of(name.value().member("status"));
    }
    free(text);
    return true;
}

// The devices with IPv4 servers, in the order in which they are tried.
bool read_list(line_table *table)
{
    dnsproxy_public_msg m = {};
    m.op = DNSPROXY_DNS_SERVER_GETIFS;
    (void)snprintf(m.ifname, sizeof m.ifname, "loopback");
    const int status = request_within(&m, REPORT_WAIT_MS, &table->pipe_error);
    if (status < 0)
        return false;
    const auto *entries = static_cast<const dnsproxy_public_if *>(trailing_data(&m));
    for (uint64_t i = 0; i < std::min(m.count, m.dataLen / sizeof *entries); i++) {
        char device[IF_NAMESIZE + 1] = {};
        memcpy(device, entries[i].ifname, sizeof entries[i].ifname);
        line *l = add_line(table, device);
        l->ipv4[0] = address_of(entries[i].dns);
        l->ipv4[1] = address_of(entries[i].dns2);
    }
    for (int i = 0; i < table->count; i++)
        table->lines[i].ipv4_known = true;
    free(trailing_data(&m));
    return true;
}

void name_line(line_table *table, const char *logical)
{
    char device[IF_NAMESIZE] = {};
    if (strlen(logical) >= logical_size || !device_of(logical, device))
        return;
    line *l = table->find(device);
    if (l != nullptr && l->logical[0] == '\0')
        memcpy(l->logical, logical, strlen(logical) + 1);
}

bool name_line_of_rule(uci_section *section, void *table)
{
    const dnsproxy_rule rule = dnsproxy_rule_read(section);
    if (rule.is_forced() && rule.out_if != nullptr)
        name_line(static_cast<line_table *>(table), rule.out_if);
    return true;
}

// Keeps what a shell complains about from the user.
class silenced_errors {
public:
    silenced_errors() : users_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3))
    {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (users_ >= 0 && nowhere >= 0)
            (void)dup2(nowhere, STDERR_FILENO);
        if (nowhere >= 0)
            (void)close(nowhere);
    }
    ~silenced_errors()
    {
        if (users_ >= 0) {
            (void)dup2(users_, STDERR_FILENO);
            (void)close(users_);
        }
    }
    silenced_errors(const silenced_errors &) = delete;
    silenced_errors &operator=(const silenced_errors &) = delete;

private:
    int users_;
};

} // namespace

bool line::has_server() const
{
    for (int slot = 0; slot < SLOTS; slot++) {
        const in6_addr v6 = ipv6[slot];
        if (ipv4[slot].s_addr != 0 || !IN6_IS_ADDR_UNSPECIFIED(&v6))
            return true;
    }
    return false;
}

line *line_table::find(const char *device)
{
    for (int i = 0; i < count; i++) {
        if (strcmp(lines[i].device, device) == 0)
            return &lines[i];
    }
    return nullptr;
}

bool line_table::has_server() const
{
    return std::any_of(lines, lines + count, [](const line &l) { return l.has_server(); });
}

bool line_table::servers_known() const
{
    return std::all_of(lines, lines + count, [](const line &l) { return l.ipv4_known && l.ipv6_known; });
}

void lines_read(line_table *table, const port53 &port)
{
    table->uptime = json_unknown;
    if (port.served() == served::no)
        return;
    table->known = read_statistics(table);
    if (!table->known) {
        // A bus that was silent once is not asked again: the whole takes ten seconds at most.
        const bool on_bus = table->bus != bus_result::silent && read_states(table);
        const bool on_pipe = read_list(table);
        table->known = on_bus || on_pipe;
    }
}

void lines_name(line_table *table)
{
    resolver_file file;
    for (resolver_entry entry = {}; file.is_open() && file.next(&entry);) {
        if (entry.is_heading() && entry.value != nullptr)
            name_line(table, entry.value);
    }
    (void)rules_walk(name_line_of_rule, table);
}

void lines_read_files(line_table *table)
{
    const silenced_errors silence;
    if (dnsproxy_if_init() < 0)
        return;
    (void)dnsproxy_load_servers();
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        line *l = add_line(table, sif->ifname);
        for (int slot = 0; slot < SLOTS; slot++) {
            l->ipv4[slot] = address_of(sif->dnsServer[slot]);
            l->ipv6[slot] = sif->dnsServer6[slot].sin6_addr;
        }
        l->ipv4_known = true;
        l->ipv6_known = true;
    }
    lines_name(table);
}

void lines_free(line_table *table)
{
    free(table->lines);
    *table = {};
}

bool device_exists(const char *device)
{
    return if_nametoindex(device) != 0;
}

bool device_of(const char *logical, char *device)
{
    const silenced_errors silence;
    return dnsproxy_get_effect_devices(logical, device) >= 0 && device[0] != '\0';
}

const char *rules_walk(bool (*each)(uci_section *rule, void *context), void *context)
{
    static char *reason;
    free(reason);
    reason = nullptr;
    uci_context *store = uci_alloc_context();
    if (store == nullptr)
        return "out of memory";
    uci_package *package = nullptr;
    const int status = uci_load(store, "dns", &package);
    uci_element *e = nullptr;
    if (status == 0) {
        uci_foreach_element(&package->sections, e)
        {
            uci_section *section = uci_to_section(e);
            if (strcmp(section->type, "rule") == 0 && !each(section, context))
                break;
        }
    } else {
        uci_get_errorstr(store, &reason, nullptr);
    }
    uci_free_context(store);
    return status == 0 ? nullptr : reason != nullptr ? reason : "it cannot be read";
}
