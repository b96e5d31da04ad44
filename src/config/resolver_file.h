// The upstream servers that the router's network scripts learned, from "/tmp/resolv.conf.auto": one section
// per line, which begins with "#Interface NAME", with lines "nameserver ADDRESS".
#ifndef CONFIG_RESOLVER_FILE_H
#define CONFIG_RESOLVER_FILE_H

#include "config/text_file.h"

constexpr char DNSPROXY_RESOLVER_FILE[] = "/tmp/resolv.conf.auto";

// A line of the file that has a word in it.
struct resolver_entry {
    const char *keyword;
    const char *value; // the word behind it; nullptr: none

    [[nodiscard]] bool is_heading() const; // the value is a logical name
    [[nodiscard]] bool is_server() const;  // the value, where there is one, should be an address
};

// The walk over the file, for every program that must read it as the daemon does.
class resolver_file {
public:
    [[nodiscard]] bool is_open() const { return text_.is_open(); }

    // The next entry, valid until the next call; false at the end of the file.
    bool next(resolver_entry *entry);

private:
    text_file text_{DNSPROXY_RESOLVER_FILE};
};

// The family of an address in the file, AF_INET or AF_INET6, or 0 for a text that is none. `address`, 16
// bytes, gets it in network order.
int resolver_address(const char *text, void *address);

// Makes one server interface per section, with the first two IPv4 and the first two IPv6 servers of it. Lines
// that do not fit are skipped; a missing file loads nothing and counts as done. A section whose name cannot
// be mapped to a device, or whose server interface cannot be made, ends the load with that status: what
// follows is not read. Otherwise 0.
int dnsproxy_load_servers();

#endif
