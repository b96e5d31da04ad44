// The upstream servers that the router's network scripts learned, from "/tmp/resolv.conf.auto".
#ifndef CONFIG_RESOLVER_FILE_H
#define CONFIG_RESOLVER_FILE_H

// Makes one server interface per "#Interface NAME" section, with the first two IPv4 and the first two IPv6
// "nameserver ADDRESS" lines of it. Lines that do not fit are skipped; a missing file loads nothing and
// counts as done. A section whose name cannot be mapped to a device, or whose server interface cannot be
// made, ends the load with that status: what follows is not read. Otherwise 0.
int dnsproxy_load_servers();

#endif
