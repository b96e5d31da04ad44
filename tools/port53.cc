#include "port53.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

namespace {

constexpr int most_sockets = 64; // on one port: a resolver may have one per address

struct socket_list {
    unsigned long inode[most_sockets];
    int count;

    [[nodiscard]] bool has(unsigned long wanted) const
    {
        for (int i = 0; i < count; i++) {
            if (inode[i] == wanted)
                return true;
        }
        return false;
    }
};

class folder {
public:
    explicit folder(const char *path) : dir_(opendir(path)) {}
    ~folder()
    {
        if (dir_ != nullptr)
            (void)closedir(dir_);
    }
    folder(const folder &) = delete;
    folder &operator=(const folder &) = delete;

    // The next name that is a number; false at the end.
    bool next_number(int *number)
    {
        while (const dirent *entry = dir_ != nullptr ? readdir(dir_) : nullptr) {
            if (isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0)
                continue;
            *number = static_cast<int>(strtol(entry->d_name, nullptr, 10));
            return true;
        }
        return false;
    }

private:
    DIR *dir_;
};

// A line of the kernel's table: "sl: address:PORT peer state queues timer retransmits uid timeout inode ...".
void add_socket(socket_list *found, char *text)
{
    constexpr int address_field = 1;
    constexpr int inode_field = 9;
    const char *port = nullptr;
    char *rest = nullptr;
    const char *field = strtok_r(text, " ", &rest);
    for (int i = 0; field != nullptr && i < inode_field; i++) {
        if (i == address_field)
            port = strrchr(field, ':');
        field = strtok_r(nullptr, " ", &rest);
    }
    if (field != nullptr && port != nullptr && strcmp(port, ":0035") == 0 && found->count < most_sockets)
        found->inode[found->count++] = strtoul(field, nullptr, 10);
}

socket_list sockets_on_port(const char *table)
{
    socket_list found = {};
    FILE *file = fopen(table, "re");
    if (file == nullptr)
        return found;
    char line[256];
    while (fgets(line, sizeof line, file) != nullptr)
        add_socket(&found, line);
    (void)fclose(file);
    return found;
}

process process_of(pid_t pid)
{
    process p = {.pid = pid, .name = "?"};
    char path[32];
    (void)snprintf(path, sizeof path, "/proc/%d/comm", pid);
    FILE *file = fopen(path, "re");
    if (file == nullptr)
        return p;
    if (fgets(p.name, sizeof p.name, file) != nullptr)
        p.name[strcspn(p.name, "\n")] = '\0';
    (void)fclose(file);
    return p;
}

bool holds_one_of(pid_t pid, const socket_list &sockets)
{
    static constexpr char kind[] = "socket:[";
    char path[64];
    (void)snprintf(path, sizeof path, "/proc/%d/fd", pid);
    folder descriptors(path);
    for (int fd = 0; descriptors.next_number(&fd);) {
        char target[64] = {};
        (void)snprintf(path, sizeof path, "/proc/%d/fd/%d", pid, fd);
        if (readlink(path, target, sizeof target - 1) > 0 && strncmp(target, kind, strlen(kind)) == 0 &&
            sockets.has(strtoul(target + strlen(kind), nullptr, 10)))
            return true;
    }
    return false;
}

process owner(const char *table)
{
    const socket_list sockets = sockets_on_port(table);
    process found = {};
    if (sockets.count == 0)
        return found;
    found = {.pid = -1, .name = "?"};
    folder processes("/proc");
    for (pid_t pid = 0; processes.next_number(&pid);) {
        if (!holds_one_of(pid, sockets))
            continue;
        const process p = process_of(pid);
        if (p.is_daemon())
            return p;
        if (found.pid < 0)
            found = p;
    }
    return found;
}

} // namespace

bool process::is_daemon() const
{
    return pid > 0 && strcmp(name, "dnsproxyd") == 0;
}

bool process::is_other() const
{
    return pid > 0 && !is_daemon();
}

served port53::served() const
{
    if (ipv4.is_daemon() && ipv6.is_daemon())
        return served::yes;
    const bool may_be = (ipv4.is_daemon() || ipv4.is_hidden()) && (ipv6.is_daemon() || ipv6.is_hidden());
    return may_be ? served::unknown : served::no;
}

port53 port53_owners()
{
    return {.ipv4 = owner("/proc/net/udp"), .ipv6 = owner("/proc/net/udp6")};
}

gid_t group_of(const process &p)
{
    char path[32];
    auto group = static_cast<gid_t>(-1);
    (void)snprintf(path, sizeof path, "/proc/%d/status", p.pid);
    FILE *file = p.pid > 0 ? fopen(path, "re") : nullptr;
    if (file == nullptr)
        return group;
    char line[256];
    // "Gid:", then the real group, then the effective one.
    while (fgets(line, sizeof line, file) != nullptr) {
        char *effective = line + sizeof "Gid:" - 1;
        if (strncmp(line, "Gid:", sizeof "Gid:" - 1) == 0) {
            (void)strtoul(effective, &effective, 10);
            group = static_cast<gid_t>(strtoul(effective, nullptr, 10));
        }
    }
    (void)fclose(file);
    return group;
}

process find_daemon()
{
    folder processes("/proc");
    for (pid_t pid = 0; processes.next_number(&pid);) {
        const process p = process_of(pid);
        if (p.is_daemon())
            return p;
    }
    return {};
}
