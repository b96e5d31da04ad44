// The parts of a DNS message that the proxy reads and writes (RFC 1035, section 4.1.1): the identifier in
// bytes 0 and 1 and the QR bit, the highest of byte 2.
#ifndef CORE_DNS_HEADER_H
#define CORE_DNS_HEADER_H

#include <cstddef>
#include <cstdint>

constexpr size_t DNSPROXY_MESSAGE_SIZE = 1600; // receive buffers; longer datagrams are cut
constexpr size_t DNSPROXY_ID_SIZE = 2;         // a datagram below this has no identifier and is dropped
constexpr size_t DNSPROXY_HEADER_SIZE = 12;

// The identifier in host order.
inline uint16_t dns_id(const uint8_t *message)
{
    return static_cast<uint16_t>(message[0] << 8 | message[1]);
}

inline void dns_set_id(uint8_t *message, uint16_t id)
{
    message[0] = static_cast<uint8_t>(id >> 8);
    message[1] = static_cast<uint8_t>(id);
}

#endif
