// Input: datagrams. Two bytes say how each comes in (below), two its length (65535: the longest there is),
// one how many of its bytes follow; the others are zeros. A reply gets the identifier of a query in flight,
// or keeps its own.

#include <algorithm>

#include "core/log.h"
#include "tests/fuzz/fuzz.h"
#include "tests/model/life.h"
#include "tests/model/model.h"

namespace {

constexpr size_t longest = 65507; // what a UDP datagram can hold
constexpr const char *listen_devices[] = {"br-lan", "office", "br-guest", "ppp0",
                                          "far",    "lo",     "eth9",     "none"};
constexpr const char *lines[] = {"wan1", "wan2", "wan3", "pt-vpn0"};

void datagram_arrives(fuzz_reader *in)
{
    const unsigned how = in->take_value<uint8_t>();
    const unsigned where = in->take_value<uint8_t>();
    const unsigned number = in->take_value<uint16_t>();
    const size_t length = number == 65535 ? longest : number % 2048;
    const fuzz_bytes given = in->take(std::min<size_t>(in->take_value<uint8_t>(), length));
    std::string bytes(given.begin(), given.end());
    bytes.resize(length);
    const bool v6 = (how & 1) != 0;
    if ((how & 2) != 0) {
        if ((how & 4) == 0 && bytes.size() >= 2)
            bytes = with_id(bytes, identifier(v6, where >> 2));
        answer(v6, lines[where & 3], bytes);
        return;
    }
    peer host = {.v6 = v6, .port = static_cast<uint16_t>(how)};
    std::fill_n(host.address.begin(), v6 ? 16 : 4, static_cast<char>(1 + (where >> 3)));
    const arrival told = (how & 12) == 12 ? arrival::told_otherwise
                         : (how & 8) != 0 ? arrival::not_told
                                          : arrival::told;
    ask(host, listen_devices[where & 7], bytes, told);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz_reader in(bytes, size);
    live(1, size % 64 == 63 ? DNSPROXY_LOG_TRACE : 0, [&in] {
        if (!in.is_empty())
            datagram_arrives(&in);
        return !in.is_empty();
    });
    return 0;
}
