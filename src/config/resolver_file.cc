#include "config/resolver_file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>

#include "config/effect_devices.h"
#include "config/lines.h"
#include "core/log.h"
#include "core/status.h"
#include "iface/server_if.h"

namespace {

constexpr char path[] = "/tmp/resolv.conf.auto";
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

void add_server_v6(section *s, const char *address)
{
    in6_addr parsed = {};
    if (inet_pton(AF_INET6, address, &parsed) != 1)
        return;
    if (dnsproxy_log_is_on(DNSPROXY_LOG_DEBUG)) {
        char text[INET6_ADDRSTRLEN] = {};
        DNSPROXY_LOG(DEBUG, op, 0, "addrv6:%s", inet_ntop(AF_INET6, &parsed, text, sizeof text));
    }
    if (s->dns6_count < DNSPROXY_SERVER_SLOTS)
        s->dns6[s->dns6_count++].sin6_addr = parsed;
}

void add_server(section *s, const char *address)
{
    DNSPROXY_LOG(DEBUG, op, 0, "token:%s", address);
    if (strchr(address, ':') != nullptr) {
        add_server_v6(s, address);
        return;
    }
    const in_addr_t parsed = inet_addr(address);
    if (parsed == INADDR_NONE) // also 255.255.255.255, which is no server
        return;
    DNSPROXY_LOG(DEBUG, op, 0, "addr:%x", parsed);
    if (s->dns_count < DNSPROXY_SERVER_SLOTS)
        s->dns[s->dns_count++] = parsed;
}

int read_sections(text_file *file)
{
    section s = {};
    while (char *line = file->next_line()) {
        char *rest = nullptr;
        const char *keyword = strtok_r(line, blanks, &rest);
        if (keyword == nullptr)
            continue;
        DNSPROXY_LOG(DEBUG, op, 0, "token:%s", keyword);
        if (strcmp(keyword, "#Interface") == 0) {
            const int status = begin_section(&s, strtok_r(nullptr, blanks, &rest));
            if (status < 0)
                return status;
        } else if (strcmp(keyword, "nameserver") == 0) {
            const char *address = strtok_r(nullptr, blanks, &rest);
            if (address != nullptr)
                add_server(&s, address);
        }
    }
    return s.opened ? finish(&s) : 0;
}

} // namespace

int dnsproxy_load_servers()
{
    text_file file(path);
    if (!file.is_open()) {
        const int error = errno;
        DNSPROXY_LOG(ERROR, op, 0, "failed to read %s: %s", path, strerror(error));
        return 0;
    }
    return read_sections(&file);
}
