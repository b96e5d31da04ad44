// Input: datagrams. Two bytes say how each comes in (below), two its length, then come its bytes; those that
// the input no longer has are zeros. A reply's identifier is replaced by that of a query in flight, or left.

#include <iterator>

#include "core/log.h"
#include "tests/fuzz/life.h"
#include "tests/fuzz/model.h"

namespace {

constexpr size_t longest = 65507; // what a UDP datagram can hold
constexpr const char *listen_devices[] = {"br-lan", "office", "br-guest", "ppp0",
                                          "far",    "lo",     "eth9",     "none"};
constexpr const char *lines[] = {"wan1", "wan2", "wan3", "pt-vpn0"};

void datagram_arrives(fuzz_input *in)
{
    const unsigned how = in->byte();
    const unsigned where = in->byte();
    std::string bytes = in->take(in->word() % (longest + 1));
    const bool v6 = (how & 1) != 0;
    if ((how & 2) != 0) {
        if ((how & 4) == 0 && bytes.size() >= 2)
            bytes = with_id(bytes, identifier(v6, where >> 2));
        answer(v6, lines[where & 3], bytes);
        return;
    }
    const std::string address(v6 ? 16 : 4, static_cast<char>(1 + (where >> 3)));
    const arrival told = (how & 12) == 12 ? arrival::told_otherwise
                         : (how & 8) != 0 ? arrival::not_told
                                          : arrival::told;
    ask({v6, address, static_cast<uint16_t>(how)}, listen_devices[where & 7], bytes, told);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz_input in(bytes, size);
    live(1, size % 64 == 63 ? DNSPROXY_LOG_TRACE : 0, [&in] {
        if (!in.is_over())
            datagram_arrives(&in);
        return !in.is_over();
    });
    return 0;
}
