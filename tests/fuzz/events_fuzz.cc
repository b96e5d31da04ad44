// Input: a byte for the log (0xff: everything is printed), two for the first identifier, then events. An
// event's first byte has its kind in the low four bits, a number in the next three, and in the highest
// whether the next event belongs to the same pass of the loop.

#include <cstring>

#include "core/log.h"
#include "tests/fuzz/fuzz.h"
#include "tests/model/life.h"
#include "tests/model/model.h"

namespace {

constexpr size_t lengths[] = {12, 0, 1, 2, 3, 1600, 1601, 65507};
constexpr int64_t waits_ms[] = {0, 1, 4999, 5000, 9999, 10000, 10010, 60000};
constexpr const char *listen_devices[] = {"br-lan", "office", "br-guest", "ppp0",
                                          "far",    "lo",     "eth9",     "wan1"};
constexpr const char *lines[] = {"wan1", "wan2", "wan3", "pt-vpn0"};
constexpr const char *logical_names[] = {"WAN1",     "WAN2",     "WAN3",    "VPN",
                                         "loopback", "NAMELESS", "nothing", ";"};

unsigned byte(fuzz_reader *in)
{
    return in->take_value<uint8_t>();
}

std::string message(unsigned id, bool response, size_t length)
{
    std::string bytes(length + 3, '\0');
    bytes[2] = response ? '\x80' : '\x01';
    return with_id(bytes, static_cast<uint16_t>(id)).substr(0, length);
}

void query(fuzz_reader *in, unsigned number)
{
    const unsigned who = byte(in);
    const unsigned id = byte(in);
    const bool v6 = (who & 8) != 0;
    peer host = {.v6 = v6, .port = static_cast<uint16_t>(1000 + (who >> 6))};
    host.address[0] = '\xfd';
    host.address[3] = static_cast<char>(who >> 4 & 3);
    ask(host, listen_devices[who & 7], message(id, false, lengths[number]));
}

void reply(fuzz_reader *in, unsigned number)
{
    const unsigned how = byte(in);
    const bool v6 = (how & 4) != 0;
    answer(v6, lines[how & 3], message(identifier(v6, byte(in)), (how & 8) == 0, lengths[number]));
}

void change_servers(fuzz_reader *in, unsigned number)
{
    const unsigned how = byte(in);
    const unsigned servers = byte(in);
    dnsproxy_public_msg m = {};
    m.op = how & 15;
    strcpy(m.ifname, logical_names[number]);
    strcpy(m.pipeName, (how & 16) != 0 ? reply_pipe : "");
    m.dnsFlag = how >> 5 & 1;
    m.dns2Flag = how >> 6 & 1;
    m.noV4 = static_cast<int32_t>(servers & 1);
    m.noV6 = static_cast<int32_t>(servers >> 1 & 1);
    m.dns = (servers & 4) == 0 ? 0 : 0x0108'0808;
    m.dns2 = (servers & 8) == 0 ? 0 : 0x0208'0808;
    m.dns6.sin6_addr.s6_addr[15] = static_cast<uint8_t>(servers >> 4 & 3);
    m.dns6_2.sin6_addr.s6_addr[15] = static_cast<uint8_t>(servers >> 6);
    std::string bytes(reinterpret_cast<const char *>(&m), sizeof m);
    if ((how & 128) != 0) { // any bytes, of any length
        const fuzz_bytes given = in->take(byte(in));
        bytes = {given.begin(), given.end()};
        bytes.resize(in->take_value<uint8_t>() == 0 ? sizeof m : bytes.size());
    }
    request(bytes);
}

void link_state(fuzz_reader *in, unsigned number)
{
    static constexpr const char *files[] = {"", "wan1=off\nwan2=off\nwan3=off\n", "pt-vpn0=off\nwan3=on\n",
                                            "="};
    if (number < 4)
        set_link(lines[number], (byte(in) & 1) != 0);
    else
        sys.online_state = files[number - 4];
}

void device_or_netlink(fuzz_reader *in, unsigned number)
{
    const unsigned which = byte(in);
    if (number < 4)
        toggle_device(which);
    else {
        const fuzz_bytes batch = in->take(which % 40);
        netlink({batch.begin(), batch.end()});
    }
}

void fault(fuzz_reader *in, unsigned number)
{
    const unsigned bits = byte(in);
    if (number < 4)
        sys.allocations_left = static_cast<int>(bits % 16);
    else
        sys.faults = {(bits & 1) != 0,  (bits & 2) != 0,  (bits & 4) != 0, (bits & 8) != 0,
                      (bits & 16) != 0, (bits & 32) != 0, (bits & 64) != 0};
}

// Whether the next event belongs to the same pass.
bool happen(fuzz_reader *in)
{
    const unsigned event = byte(in);
    const unsigned number = event >> 4 & 7;
    switch (event & 15) {
    case 0:
    case 1:
    case 2:
    case 3:
        query(in, (event & 2) != 0 ? 0 : number);
        break;
    case 4:
    case 5:
    case 6:
        reply(in, (event & 2) != 0 ? 0 : number);
        break;
    case 7:
        fake_clock::advance_ms(waits_ms[number]);
        break;
    case 8:
        change_servers(in, number);
        break;
    case 9:
        link_state(in, number);
        break;
    case 10:
        device_or_netlink(in, number);
        break;
    case 11:
        fault(in, number);
        break;
    case 12:
        set_next_identifier(in->take_value<uint16_t>());
        break;
    default:
        break;
    }
    return (event & 128) != 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    fuzz_reader in(bytes, size);
    const int log_level = byte(&in) == 255 ? DNSPROXY_LOG_TRACE : 0;
    live(in.take_value<uint16_t>(), log_level, [&in] {
        while (!in.is_empty() && happen(&in)) {
        }
        return !in.is_empty();
    });
    return 0;
}
