#include "config/resolver_file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>

#include "config/effect_devices.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/server_if.h"

namespace {

constexpr char blanks[] = " \t\r\n";
constexpr char op[] = "dnsproxy_load_servers";
constexpr size_t logical_size = 36; // one character more than can be mapped, so that no cut name is mapped

// The section that is being read.
struct section {
    bool opened;
    char logical[logical_size];
    uint64_t dns[DNSPROXY_SERVER_SLOTS]; // as in dnsproxy_server_if
    int dns_count;
    sockaddr_in6 dns6[DNSPROXY_SERVER_SLOTS]; // only the address is filled
    int dns6_count;
};

int finish(const section *s)
{
    char device[IF_NAMESIZE] = {};
    int status = dnsproxy_get_effect_devices(s->logical, device);
    if (status < 0) {
        DNSPROXY_LOG(ERROR, op, status, "dnsproxy_get_effect_devices faield.");
        return status;
    }
    DNSPROXY_LOG(DEBUG, op, 0, "dev:%s,dns0:%x,dns1:%x", device, static_cast<uint32_t>(s->dns[0]),
                 static_cast<uint32_t>(s->dns[1]));
    if (strcmp(s->logical, "loopback") == 0)
        return 0;
    status = dnsproxy_server_if_new(device, s->dns[0], s->dns[1], &s->dns6[0], &s->dns6[1], 0, 0);
    if (status < 0)
        DNSPROXY_LOG(ERROR, op, status, "Fail to create a new dns server.");
    return status;
}

int begin_section(section *s, const char *logical)
{
    if (s->opened) {
        const int status = finish(s);
        if (status < 0)
            return status;
    }
    // A heading without a name leaves the section just finished open, to be finished again.
    if (logical == nullptr)
        return 0;
    DNSPROXY_LOG(DEBUG, op, 0, "token:%s", logical);
    *s = {};
    s->opened = true;
    memcpy(s->logical, logical, strnlen(logical, logical_size - 1));
    return 0;
}

void add_server(section *s, const char *text)
{
    DNSPROXY_LOG(DEBUG, op, 0, "token:%s", text);
    in6_addr address = {};
    const int family = resolver_address(text, &address);
    if (family == AF_INET6) {
        if (dnsproxy_log_is_on(DNSPROXY_LOG_DEBUG)) {
            char printed[INET6_ADDRSTRLEN] = {};
            DNSPROXY_LOG(DEBUG, op, 0, "addrv6:%s", inet_ntop(AF_INET6, &address, printed, sizeof printed));
        }
        if (s->dns6_count < DNSPROXY_SERVER_SLOTS)
            s->dns6[s->dns6_count++].sin6_addr = address;
    } else if (family == AF_INET) {
        in_addr_t v4 = 0;
        memcpy(&v4, &address, sizeof v4);
        DNSPROXY_LOG(DEBUG, op, 0, "addr:%x", v4);
        if (s->dns_count < DNSPROXY_SERVER_SLOTS)
            s->dns[s->dns_count++] = v4;
    }
}

int read_sections(resolver_file *file)
{
    section s = {};
    for (resolver_entry entry = {}; file->next(&entry);) {
        DNSPROXY_LOG(DEBUG, op, 0, "token:%s", entry.keyword);
        if (entry.is_heading()) {
            const int status = begin_section(&s, entry.value);
            if (status < 0)
                return status;
        } else if (entry.is_server() && entry.value != nullptr) {
            add_server(&s, entry.value);
        }
    }
    return s.opened ? finish(&s) : 0;
}

} // namespace

bool resolver_entry::is_heading() const
{
    return strcmp(keyword, "#Interface") == 0;
}

bool resolver_entry::is_server() const
{
    return strcmp(keyword, "nameserver") == 0;
}

bool resolver_file::next(resolver_entry *entry)
{
    while (char *line = text_.next_line()) {
        char *rest = nullptr;
        entry->keyword = strtok_r(line, blanks, &rest);
        if (entry->keyword != nullptr) {
            entry->value = strtok_r(nullptr, blanks, &rest);
            return true;
        }
    }
    return false;
}

int resolver_address(const char *text, void *address)
{
    if (strchr(text, ':') != nullptr)
        return inet_pton(AF_INET6, text, address) == 1 ? AF_INET6 : 0;
    const in_addr_t v4 = inet_addr(text);
    if (v4 == INADDR_NONE) // also 255.255.255.255, which is no server
        return 0;
    memcpy(address, &v4, sizeof v4);
    return AF_INET;
}

int dnsproxy_load_servers()
{
    resolver_file file;
    if (!file.is_open()) {
        const int error = errno;
        DNSPROXY_LOG(ERROR, op, 0, "failed to read %s: %s", DNSPROXY_RESOLVER_FILE, strerror(error));
        return 0;
    }
    return read_sections(&file);
}
