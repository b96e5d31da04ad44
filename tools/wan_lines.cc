#include "wan_lines.h"

#include <dnsproxy/client.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <uci.h>

#include "answer.h"
#include "config/effect_devices.h"
#include "config/resolver_file.h"
#include "config/rule.h"
#include "iface/listen_if.h"
#include "iface/server_if.h"

namespace {

constexpr char bus_call[] = "ubus -S -t 5 -s /var/run/ubus.sock call dnsproxy get_state 2>/dev/null";
constexpr char log_call[] = "logread 2>/dev/null";
constexpr long log_end = 256L * 1024; // bytes of a log file that are looked at; a dump is far shorter

line *add_line(line_table *table, const char *device)
{
    line *known = table->find(device);
    if (known != nullptr || table->count == LINES_MOST)
        return known;
    line *added = &table->lines[table->count++];
    *added = {};
    (void)snprintf(added->device, sizeof added->device, "%s", device);
    added->uses = -1;
    return added;
}

in_addr address_of(uint64_t slot)
{
    return {.s_addr = static_cast<uint32_t>(slot)};
}

// The devices with IPv4 servers, in the order in which they are tried.
int read_list(line_table *table)
{
    dnsproxy_public_msg m = {};
    m.op = DNSPROXY_DNS_SERVER_GETIFS;
    (void)snprintf(m.ifname, sizeof m.ifname, "loopback");
    const int status = dnsproxy_public_dnsServer(&m);
    if (status < 0)
        return status;
    const auto *entries = static_cast<const dnsproxy_public_if *>(trailing_data(&m));
    for (uint64_t i = 0; i < std::min(m.count, m.dataLen / sizeof *entries); i++) {
        char device[IF_NAMESIZE + 1] = {};
        memcpy(device, entries[i].ifname, sizeof entries[i].ifname);
        line *l = add_line(table, device);
        if (l == nullptr)
            continue;
        l->ipv4[0] = address_of(entries[i].dns);
        l->ipv4[1] = address_of(entries[i].dns2);
    }
    free(trailing_data(&m));
    return 0;
}

// Asks for the line that a logical name stands for, which also tells its IPv6 servers.
void read_line(line_table *table, const char *logical)
{
    char device[IF_NAMESIZE] = {};
    dnsproxy_public_msg m = {};
    if (strlen(logical) >= sizeof m.ifname || dnsproxy_get_effect_devices(logical, device) < 0)
        return;
    line *l = table->find(device);
    if (l != nullptr && l->logical[0] != '\0')
        return;
    m.op = DNSPROXY_DNS_SERVER_GET;
    (void)snprintf(m.ifname, sizeof m.ifname, "%s", logical);
    if (dnsproxy_public_dnsServer(&m) < 0)
        return;
    l = add_line(table, device);
    if (l == nullptr)
        return;
    (void)snprintf(l->logical, sizeof l->logical, "%s", logical);
    l->ipv4[0] = address_of(m.dns);
    l->ipv4[1] = address_of(m.dns2);
    l->ipv6[0] = m.dns6.sin6_addr;
    l->ipv6[1] = m.dns6_2.sin6_addr;
    l->ipv6_known = true;
}

bool read_line_of_rule(const dnsproxy_rule *rule, void *table)
{
    if (rule->is_forced() && rule->out_if != nullptr)
        read_line(static_cast<line_table *>(table), rule->out_if);
    return true;
}

// The lines that the files name.
void read_named_lines(line_table *table)
{
    resolver_file file;
    for (resolver_entry entry = {}; file.is_open() && file.next(&entry);) {
        if (entry.is_heading() && entry.value != nullptr)
            read_line(table, entry.value);
    }
    (void)rules_walk(read_line_of_rule, table);
}

// What a started daemon would load, by the daemon's own reader.
void read_files(line_table *table)
{
    if (dnsproxy_if_init() < 0)
        return;
    (void)dnsproxy_load_servers();
    for (const auto *sif = ipcom_first<dnsproxy_server_if>(dnsproxy_data.serverIfList); sif != nullptr;
         sif = ipcom_next(sif)) {
        line *l = add_line(table, sif->ifname);
        if (l == nullptr)
            continue;
        for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
            l->ipv4[slot] = address_of(sif->dnsServer[slot]);
            l->ipv6[slot] = sif->dnsServer6[slot].sin6_addr;
        }
        l->ipv6_known = true;
    }
}

// The bus's answer: {"wan1":{"dev":"wan1","status":"on"},...}, with or without blanks.
void read_states(line_table *table)
{
    FILE *answer = popen(bus_call, "re");
    if (answer == nullptr)
        return;
    static constexpr char dev_key[] = "\"dev\":\"";
    static constexpr char status_key[] = "\"status\":\"";
    char text[LINES_MOST * 80];
    size_t length = 0;
    for (int c = 0; (c = getc(answer)) != EOF;) {
        if (strchr(" \t\r\n", c) == nullptr && length < sizeof text - 1)
            text[length++] = static_cast<char>(c);
    }
    text[length] = '\0';
    table->on_bus = pclose(answer) == 0;
    for (char *dev = strstr(text, dev_key); dev != nullptr; dev = strstr(dev, dev_key)) {
        dev += strlen(dev_key);
        const char *status = strstr(dev, status_key);
        const size_t end = strcspn(dev, "\"");
        if (status == nullptr || dev[end] == '\0')
            break;
        dev[end] = '\0';
        line *l = end < IF_NAMESIZE ? add_line(table, dev) : nullptr;
        if (l != nullptr)
            l->state =
                strncmp(status + strlen(status_key), "on\"", 3) == 0 ? link_state::up : link_state::down;
        dev += end + 1;
    }
}

// The daemon's standard output when that is a file, else the log, which has it where a service manager
// passes it on.
FILE *open_output(const process &daemon, bool *is_file)
{
    char path[32];
    struct stat st = {};
    (void)snprintf(path, sizeof path, "/proc/%d/fd/1", daemon.pid);
    *is_file = stat(path, &st) == 0 && S_ISREG(st.st_mode);
    if (!*is_file)
        return popen(log_call, "re");
    FILE *file = fopen(path, "re");
    if (file != nullptr && st.st_size > log_end)
        (void)fseek(file, -log_end, SEEK_END);
    return file;
}

// The last dump counts. A log puts a head of its own before each line.
void read_uses(line_table *table, const process &daemon)
{
    bool is_file = false;
    FILE *output = open_output(daemon, &is_file);
    if (output == nullptr)
        return;
    char text[512];
    line *current = nullptr;
    while (fgets(text, sizeof text, output) != nullptr) {
        static constexpr char ifname[] = "ifname:";
        static constexpr char uses[] = "The useCount:";
        char *at = strstr(text, ifname);
        char *end = at != nullptr ? strstr(at, " ifindex:") : nullptr;
        if (end != nullptr) {
            *end = '\0';
            current = table->find(at + strlen(ifname));
        } else if ((at = strstr(text, uses)) != nullptr && current != nullptr) {
            current->uses = strtol(at + strlen(uses), nullptr, 10);
        }
    }
    (void)(is_file ? fclose(output) : pclose(output));
}

} // namespace

bool line::has_server() const
{
    for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS; slot++) {
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

void lines_read(line_table *table, const port53 &port)
{
    *table = {};
    table->status = port.served() ? read_list(table) : DNSPROXY_ERESOURCE;
    if (table->status < 0) {
        read_files(table);
        return;
    }
    read_states(table);
    read_named_lines(table);
    // The daemon dumps its tables after each reply: by the next one the dump is written.
    read_line(table, "loopback");
    read_uses(table, port.ipv4);
}

bool device_exists(const char *device)
{
    return if_nametoindex(device) != 0;
}

int rules_walk(bool (*each)(const dnsproxy_rule *rule, void *context), void *context)
{
    uci_context *store = uci_alloc_context();
    if (store == nullptr)
        return -1;
    uci_package *package = nullptr;
    const int status = uci_load(store, "dns", &package);
    uci_element *e = nullptr;
    if (status == 0) {
        uci_foreach_element(&package->sections, e)
        {
            uci_section *section = uci_to_section(e);
            if (strcmp(section->type, "rule") != 0)
                continue;
            const dnsproxy_rule rule = dnsproxy_rule_read(section);
            if (!each(&rule, context))
                break;
        }
    }
    uci_free_context(store);
    return status == 0 ? 0 : -1;
}
