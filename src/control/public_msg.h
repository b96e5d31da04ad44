// The layout of the messages of the request pipe, held by the compiler.
#ifndef CONTROL_PUBLIC_MSG_H
#define CONTROL_PUBLIC_MSG_H

#include <cstddef>
#include <dnsproxy/client.h>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<dnsproxy_public_msg>);
static_assert(sizeof(dnsproxy_public_msg) == 240);
static_assert(offsetof(dnsproxy_public_msg, op) == 0);
static_assert(offsetof(dnsproxy_public_msg, pipeName) == 4);
static_assert(offsetof(dnsproxy_public_msg, ifname) == 104);
static_assert(offsetof(dnsproxy_public_msg, dnsFlag) == 120);
static_assert(offsetof(dnsproxy_public_msg, dns2Flag) == 124);
static_assert(offsetof(dnsproxy_public_msg, dns) == 128);
static_assert(offsetof(dnsproxy_public_msg, dns2) == 136);
static_assert(offsetof(dnsproxy_public_msg, dns6) == 144);
static_assert(offsetof(dnsproxy_public_msg, dns6_2) == 172);
static_assert(offsetof(dnsproxy_public_msg, noV4) == 200);
static_assert(offsetof(dnsproxy_public_msg, noV6) == 204);
static_assert(offsetof(dnsproxy_public_msg, count) == 208);
static_assert(offsetof(dnsproxy_public_msg, data) == 216);
static_assert(offsetof(dnsproxy_public_msg, dataLen) == 224);
static_assert(offsetof(dnsproxy_public_msg, result) == 232);
static_assert(offsetof(dnsproxy_public_msg, reserved) == 236);

static_assert(sizeof(dnsproxy_public_if) == 32);
static_assert(offsetof(dnsproxy_public_if, dns) == 16);
static_assert(offsetof(dnsproxy_public_if, dns2) == 24);

#endif
