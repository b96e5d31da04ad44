// dnsproxyctl: shows and changes the upstream DNS servers of the running daemon, through its request pipe,
// and tells whether it serves and what is wrong.

#include <dnsproxy/client.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <iterator>

#include "answer.h"
#include "check.h"
#include "servers.h"
#include "status.h"

namespace {

constexpr char program[] = "dnsproxyctl";
constexpr char any_interface[] = "loopback"; // can always be mapped

enum exit_status {
    EXIT_DONE = 0,
    EXIT_REFUSED = 1,
    EXIT_USAGE = 2,
    EXIT_UNREACHABLE = 3,
};

constexpr char help[] =
    R"(Usage: dnsproxyctl [OPTION...] COMMAND
Shows and changes the upstream DNS servers of the running dnsproxyd.

Commands:
  list                  show the devices that have IPv4 servers
  addrs                 show all IPv4 servers
  get IF                show the servers of an interface
  set IF [SERVER...]    change servers of an interface; what is not given stays
  add IF SERVER...      make an interface
  put IF SERVER...      change the interface if it is there, else make it
  del IF                delete an interface
  delall [IF]           delete all interfaces but VPN devices, whatever IF is
  status                show whether the daemon serves, its lines and their servers
  check                 look for what keeps hosts from getting answers

IF is a logical interface name. SERVER is an IPv4 or IPv6 address, at most two of each.

Options:
  -i, --interface=IF    name that list, addrs and delall send along (loopback)
  -j, --json            answer with a JSON document
  -h, --help            show this
  -V, --version         show the version

Exit status: 0 done, 1 refused by the daemon, 2 wrong usage, 3 daemon cannot be reached;
1 also when status finds that it does not serve both families, or check finds anything.
)";

using msg = dnsproxy_public_msg;

int send_servers(msg *m, const server_list *servers)
{
    servers_to_msg(servers, m);
    return dnsproxy_public_dnsServer(m);
}

int send_plain(msg *m, const server_list *)
{
    return dnsproxy_public_dnsServer(m);
}

// Both flags are needed to make an interface, whatever the number of its servers.
int send_new(msg *m, const server_list *servers)
{
    servers_to_msg(servers, m);
    m->dnsFlag = 1;
    m->dns2Flag = 1;
    return dnsproxy_public_dnsServer(m);
}

// An IPv4 address of 0 leaves what is there, but an IPv6 address is taken whenever the flag that it shares
// with the IPv4 address is set. One of IPv6 beside two of IPv4 would clear the second IPv6 server: then each
// family gets a request of its own.
int send_set(msg *m, const server_list *servers)
{
    if (servers->v6_count == 0 || servers->v6_count >= servers->v4_count)
        return send_servers(m, servers);
    server_list v4 = *servers;
    v4.v6_count = 0;
    const int status = send_servers(m, &v4);
    if (status < 0)
        return status;
    server_list v6 = *servers;
    v6.v4_count = 0;
    return send_servers(m, &v6);
}

enum class operand { none, optional, required };

struct command {
    const char *name;
    uint32_t op;
    operand interface;
    int servers_min;
    int servers_max;
    int (*send)(msg *m, const server_list *servers);
    void (*show)(const msg *reply, format form);
};

int report_failure(int status, const msg *m);
int finish_output();

int run_status(format form)
{
    const status_result result = show_status(form);
    const int printed = finish_output();
    if (!result.serving)
        return EXIT_REFUSED;
    if (result.daemon == 0)
        return printed;
    msg m = {};
    return report_failure(result.daemon, &m);
}

int run_check(format form)
{
    const int findings = show_check(form);
    const int printed = finish_output();
    return findings == 0 ? printed : EXIT_REFUSED;
}

// Commands that are more than one request; they take no operands.
constexpr struct {
    const char *name;
    int (*run)(format form);
} reports[] = {
    {"status", run_status},
    {"check", run_check},
};

constexpr int most_servers = 4;

constexpr command commands[] = {
    {"list", DNSPROXY_DNS_SERVER_GETIFS, operand::none, 0, 0, send_plain, show_interfaces},
    {"addrs", DNSPROXY_DNS_SERVER_GETADDRS, operand::none, 0, 0, send_plain, show_addresses},
    {"get", DNSPROXY_DNS_SERVER_GET, operand::required, 0, 0, send_plain, show_servers},
    {"set", DNSPROXY_DNS_SERVER_SET, operand::required, 0, most_servers, send_set, show_change},
    {"add", DNSPROXY_DNS_SERVER_ADD, operand::required, 1, most_servers, send_new, show_change},
    {"put", DNSPROXY_DNS_SERVER_ADDORSET, operand::required, 1, most_servers, send_new, show_change},
    {"del", DNSPROXY_DNS_SERVER_DEL, operand::required, 0, 0, send_plain, show_change},
    {"delall", DNSPROXY_DNS_SERVER_DELALL, operand::optional, 0, 0, send_plain, show_change},
};

constexpr int most_operands = 2 + most_servers; // command, interface, servers

struct arguments {
    const char *operands[most_operands];
    int count;
    const char *interface; // of --interface
    format form;
};

[[gnu::format(printf, 1, 2)]] int usage_error(const char *text, ...)
{
    va_list values;
    va_start(values, text);
    fprintf(stderr, "%s: ", program);
    vfprintf(stderr, text, values);
    fprintf(stderr, "\nTry '%s --help'.\n", program);
    va_end(values);
    return EXIT_USAGE;
}

// Whether everything could be printed.
int finish_output()
{
    if (fflush(stdout) == 0 && ferror(stdout) == 0)
        return EXIT_DONE;
    fprintf(stderr, "%s: standard output: %s\n", program, strerror(errno));
    return EXIT_REFUSED;
}

const char *words_for(int status, const msg *m)
{
    switch (status) {
    case DNSPROXY_EINVALID:
        return "cannot be mapped to a device";
    case DNSPROXY_ENOMEMORY:
        return "out of memory";
    case DNSPROXY_EEXISTS:
        return m->noV6 == 0 ? "interface exists; its IPv6 servers were replaced" : "interface exists";
    case DNSPROXY_ENOTFOUND:
        return "no such interface";
    default:
        return "refused";
    }
}

int report_failure(int status, const msg *m)
{
    if (status == DNSPROXY_ERESOURCE) {
        fprintf(stderr, "%s: the daemon cannot be reached (%d)\n", program, status);
        return EXIT_UNREACHABLE;
    }
    fprintf(stderr, "%s: %s: %s (%d)\n", program, m->ifname, words_for(status, m), status);
    return EXIT_REFUSED;
}

int run(const command *c, const char *interface, const server_list *servers, format form)
{
    msg m = {};
    m.op = c->op;
    memcpy(m.ifname, interface, strlen(interface) + 1);
    const int status = c->send(&m, servers);
    if (status < 0)
        return report_failure(status, &m);
    c->show(&m, form);
    if (c->op == DNSPROXY_DNS_SERVER_GETADDRS || c->op == DNSPROXY_DNS_SERVER_GETIFS)
        free(trailing_data(&m));
    return finish_output();
}

// Checks the operands of a command and runs it.
int dispatch(const arguments *args)
{
    if (args->count == 0)
        return usage_error("a command is missing");
    const char *name = args->operands[0];
    for (const auto &report : reports) {
        if (strcmp(report.name, name) == 0)
            return args->count > 1 ? usage_error("%s: too many arguments", name) : report.run(args->form);
    }
    const command *c = std::find_if(std::begin(commands), std::end(commands),
                                    [name](const command &each) { return strcmp(each.name, name) == 0; });
    if (c == std::end(commands))
        return usage_error("no such command: %s", name);
    if (c->interface == operand::required && args->count < 2)
        return usage_error("%s: the interface is missing", name);
    const bool named = c->interface != operand::none && args->count > 1;
    if (named && args->interface != nullptr)
        return usage_error("%s: the interface is given twice", name);

    const char *interface = named ? args->operands[1] : args->interface != nullptr ? args->interface : any_interface;
    if (interface[0] == '\0')
        return usage_error("%s: the interface name is empty", name);
    if (strlen(interface) >= sizeof msg::ifname)
        return usage_error("%s: longer than %zu characters", interface, sizeof msg::ifname - 1);

    const int first = named ? 2 : 1;
    const int given = args->count - first;
    if (given < c->servers_min)
        return usage_error("%s: a server is missing", name);
    if (given > c->servers_max)
        return usage_error("%s: too many arguments", name);
    server_list servers = {};
    for (int i = first; i < args->count; i++) {
        const char *wrong = servers_append(&servers, args->operands[i]);
        if (wrong != nullptr)
            return usage_error("%s: %s", args->operands[i], wrong);
    }
    return run(c, interface, &servers, args->form);
}

bool append(arguments *args, const char *operand)
{
    if (args->count == most_operands)
        return false;
    args->operands[args->count++] = operand;
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    static constexpr option options[] = {
        {"interface", required_argument, nullptr, 'i'},
        {"json", no_argument, nullptr, 'j'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    arguments args = {.operands = {}, .count = 0, .interface = nullptr, .form = format::columns};
    bool fits = true;
    // With the "-" operands come as option 1, among the options and in their order, whichever C library
    // this is.
    for (int c = 0; (c = getopt_long(argc, argv, "-i:jhV", options, nullptr)) != -1;) {
        switch (c) {
        case 1:
            fits = fits && append(&args, optarg);
            break;
        case 'i':
            args.interface = optarg;
            break;
        case 'j':
            args.form = format::json;
            break;
        case 'h':
            fputs(help, stdout);
            return finish_output();
        case 'V':
            printf("%s %s\n", program, DNSPROXYCTL_VERSION);
            return finish_output();
        default:
            fprintf(stderr, "Try '%s --help'.\n", program);
            return EXIT_USAGE;
        }
    }
    for (; optind < argc; optind++) // after "--"
        fits = fits && append(&args, argv[optind]);
    if (!fits)
        return usage_error("too many arguments");
    return dispatch(&args);
}
