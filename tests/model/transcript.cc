// A day of the daemon in every line of its log: prints all that it says at Trace level, with a heading before
// each thing that happens. What it says, in which order and with which status, is an interface; the script
// `transcript` compares it with the recorded one.
#include <cstring>
#include <iterator>
#include <sys/uio.h>
#include <unistd.h>

#include "cache/request_cache.h"
#include "core/log.h"
#include "tests/model/life.h"
#include "tests/model/model.h"
#include "tests/model/sandbox.h"

namespace {

std::string message(uint16_t id, bool response = false, size_t length = 12)
{
    std::string bytes(length + 3, '\0');
    bytes[2] = response ? '\x81' : '\1';
    return with_id(bytes, id).substr(0, length);
}

peer host(bool v6, uint8_t number = 7)
{
    peer p = {.v6 = v6, .port = 1000};
    p.address = {'\x0a'};
    p.address[v6 ? 15 : 3] = static_cast<char>(number);
    return p;
}

// By which the family's first free query leaves.
const char *first_line(bool v6)
{
    return v6 ? "wan2" : "wan1";
}

void ask_op(uint32_t op, const char *ifname, uint32_t flag = 1, uint32_t flag2 = 1,
            const char *pipe = reply_pipe)
{
    dnsproxy_public_msg m = {
        .op = op, .dnsFlag = flag, .dns2Flag = flag2, .dns = 0x0107'0a0a, .dns2 = 0x0207'0a0a};
    memcpy(m.ifname, ifname, strnlen(ifname, sizeof m.ifname));
    memcpy(m.pipeName, pipe, strnlen(pipe, sizeof m.pipeName));
    m.dns6.sin6_addr.s6_addr[0] = 0xfd;
    request({reinterpret_cast<const char *>(&m), sizeof m});
}

using step = void (*)(bool v6);
struct scene {
    const char *heading;
    step happen;
    bool both_families;
};

// Those of both families are played for IPv4 and then for IPv6.
constexpr scene scenes[] = {
    {"the kernel tells of its links", [](bool) { toggle_device(10); }, false},
    {"a free query", [](bool v6) { ask(host(v6), "br-lan", message(1)); }, true},
    {"its answer", [](bool v6) { answer(v6, first_line(v6), message(identifier(v6, 0), true)); }, true},
    {"the answer again", [](bool v6) { answer(v6, first_line(v6), message(identifier(v6, 0), true)); }, true},
    {"the query again", [](bool v6) { ask(host(v6), "br-lan", message(1)); }, true},
    {"an answer to nothing", [](bool v6) { answer(v6, first_line(v6), message(999, true)); }, true},
    {"an answer that is a query", [](bool v6) { answer(v6, first_line(v6), message(identifier(v6, 0))); },
     true},
    {"an answer of one byte", [](bool v6) { answer(v6, first_line(v6), message(0, true, 1)); }, true},
    {"a query of one byte", [](bool v6) { ask(host(v6), "br-lan", message(1, false, 1)); }, true},
    {"a query to all lines", [](bool v6) { ask(host(v6), "office", message(2)); }, true},
    {"a forced query, which dumps over IPv4", [](bool v6) { ask(host(v6), "br-guest", message(3)); }, true},
    {"a forced query of a PPP device", [](bool v6) { ask(host(v6), "ppp0", message(4)); }, true},
    {"a query of the router itself", [](bool v6) { ask(host(v6), "lo", message(5)); }, true},
    {"its answer over IPv6", [](bool) { answer(true, "wan2", message(identifier(true, 2), true)); }, false},
    {"a forced query without its line", [](bool v6) { ask(host(v6), "far", message(6)); }, true},
    {"a query on a device that is not served", [](bool v6) { ask(host(v6), "eth9", message(7)); }, true},
    {"a query without its device", [](bool v6) { ask(host(v6), "br-lan", message(8), arrival::not_told); },
     true},
    {"servers cannot be reached",
     [](bool v6) { sys.faults.upstream_unreachable = true, ask(host(v6), "br-lan", message(9)); }, true},
    {"nor by a forced query", [](bool v6) { ask(host(v6), "br-guest", message(10)); }, true},
    {"the host cannot be reached",
     [](bool v6) { sys.faults = {.hosts_unreachable = true}, ask(host(v6), "br-guest", message(30)); }, true},
    {"by its answer", [](bool v6) { answer(v6, "wan1", message(identifier(v6, 1), true)); }, true},
    {"a line's device goes", [](bool) { sys.faults = {}, toggle_device(1); }, false},
    {"a forced query by it", [](bool v6) { ask(host(v6), "br-guest", message(11)); }, true},
    {"a forced query without its device", [](bool v6) { ask(host(v6), "br-guest", message(12)); }, true},
    {"a free query meets it", [](bool v6) { set_link("wan2", false), ask(host(v6), "br-lan", message(13)); },
     true},
    {"the device comes back", [](bool) { toggle_device(1), set_link("wan2", true); }, false},
    {"no descriptors",
     [](bool v6) { sys.faults.no_descriptors = true, ask(host(v6), "br-guest", message(14)); }, true},
    {"descriptors that are too high",
     [](bool v6) { sys.faults = {.high_descriptors = true}, ask(host(v6), "br-guest", message(15)); }, true},
    {"ADD without memory", [](bool) { sys.faults = {.no_memory = true}, ask_op(3, "WAN3"); }, false},
    {"memory again",
     [](bool) {
         sys.faults = {};
         fake_clock::advance_ms(1);
     },
     false},
    {"a netlink message of another kind",
     [](bool) {
         netlink({"\x10\0\0\0\x14\0\0\0\0\0\0\0\0\0\0\0", 16});
     },
     false},
    {"all lines go down by the file",
     [](bool) {
         sys.online_state = "wan1=off\nwan2=off\npt-vpn0=off\nwan9=on\n=\nwan1\n", ask_op(3, "WAN3");
     },
     false},
    {"DEL", [](bool) { ask_op(4, "WAN3"); }, false},
    {"ADD without that file", [](bool) { sys.online_state.clear(), ask_op(3, "WAN3"); }, false},
    {"a free query then", [](bool v6) { set_link("wan3", false), ask(host(v6), "br-lan", message(17)); },
     true},
    {"a line comes up", [](bool v6) { set_link("wan2", true), ask(host(v6), "br-lan", message(18)); }, true},
    {"much at once, which is served in order",
     [](bool) {
         for (uint8_t number = 0; number < 7; number++) {
             for (const bool v6 : {false, true}) {
                 ask(host(v6, number), "br-lan", message(200));
                 answer(v6, number % 3 == 0 ? "wan1" : "wan2", message(identifier(v6, number), number != 5));
             }
         }
         ask(host(false), "lo", message(201));
         ask_op(1, "WAN1"), ask_op(4, "WAN3"), toggle_device(10);
     },
     false},
    {"GET", [](bool) { ask_op(1, "WAN1"); }, false},
    {"GET of no line", [](bool) { ask_op(1, "loopback"); }, false},
    {"SET, and a dump", [](bool) { ask_op(2, "WAN1"); }, false},
    {"SET of one server", [](bool) { ask_op(2, "WAN2", 0, 1); }, false},
    {"SET of no line", [](bool) { ask_op(2, "loopback"); }, false},
    {"ADD with one flag", [](bool) { ask_op(3, "WAN1", 1, 0); }, false},
    {"ADD of a line that is there", [](bool) { ask_op(3, "WAN1"); }, false},
    {"ADD of the loopback", [](bool) { ask_op(3, "loopback"); }, false},
    {"ADD without a name", [](bool) { ask_op(3, "NAMELESS"); }, false},
    {"a query goes by that line", [](bool v6) { ask(host(v6), "office", message(19)); }, true},
    {"DEL of it", [](bool) { ask_op(4, "NAMELESS"); }, false},
    {"DEL again", [](bool) { ask_op(4, "NAMELESS"); }, false},
    {"GETALL", [](bool) { ask_op(5, "WAN1"); }, false},
    {"ADDORSET of no line", [](bool) { ask_op(6, "loopback", 0, 1); }, false},
    {"ADDORSET of a line", [](bool) { ask_op(6, "WAN2"); }, false},
    {"GETADDRS, and a dump", [](bool) { ask_op(7, "loopback"); }, false},
    {"GETIFS", [](bool) { ask_op(8, "loopback"); }, false},
    {"GETIFS without memory", [](bool) { sys.faults.no_memory = true, ask_op(8, "loopback"); }, false},
    {"a reply pipe that is full", [](bool) { sys.faults = {.full_pipe = true}, ask_op(8, "loopback"); },
     false},
    {"no operation", [](bool) { sys.faults = {}, ask_op(0, "loopback"); }, false},
    {"an unknown operation", [](bool) { ask_op(10, "loopback"); }, false},
    {"a name that is not mapped", [](bool) { ask_op(1, "nothing"); }, false},
    {"a name that no shell may see", [](bool) { ask_op(1, ";"); }, false},
    {"strings without their end",
     [](bool) { ask_op(1, "xxxxxxxxxxxxxxxx", 1, 1, std::string(100, 'y').c_str()); }, false},
    {"the request pipe as reply pipe", [](bool) { ask_op(1, "WAN1", 1, 1, "dnsproxypublicrecvpipe"); },
     false},
    {"a message of another length", [](bool) { request("short"); }, false},
    {"ten seconds, behind a dump of the caches",
     [](bool) { dnsproxy_cache_show(), fake_clock::advance_ms(10'000); }, false},
    {"a minute", [](bool) { fake_clock::advance_ms(60'000); }, false},
    {"DELALL, and dumps", [](bool) { ask_op(9, "loopback"); }, false},
    {"a free query without a line", [](bool v6) { ask_op(4, "VPN"), ask(host(v6), "br-lan", message(20)); },
     true},
    {"a line without servers",
     [](bool) {
         dnsproxy_public_msg m = {.op = 3, .ifname = "WAN1", .dnsFlag = 1, .dns2Flag = 1};
         request({reinterpret_cast<const char *>(&m), sizeof m});
     },
     false},
    {"GETIFS of it", [](bool) { ask_op(8, "loopback"); }, false},
    {"a free query", [](bool v6) { ask(host(v6), "br-lan", message(21)); }, true},
    {"a forced query", [](bool v6) { ask(host(v6), "br-guest", message(22)); }, true},
    {"servers in the second slot alone", [](bool) { ask_op(2, "WAN1", 0, 1); }, false},
    {"a forced query", [](bool v6) { ask(host(v6), "br-guest", message(23)); }, true},
    {"its line is deleted", [](bool) { ask_op(4, "WAN1"); }, false},
    {"the record ends", [](bool) { fake_clock::advance_ms(10'000); }, false},
    {"a minute", [](bool) { fake_clock::advance_ms(60'000); }, false},
};

} // namespace

int main()
{
    require_sandbox();
    sys.online_state = "wan2=off\n";
    sys.dumps = true;
    const scene *next = scenes;
    bool v6 = false;
    live(65533, DNSPROXY_LOG_TRACE, [&] {
        if (sys.waiting() > 0)
            return true; // one thing after the other
        if (next == std::end(scenes))
            return false;
        dprintf(STDOUT_FILENO, "\n=== %s%s\n", next->heading,
                !next->both_families ? ""
                : v6                 ? ", IPv6"
                                     : ", IPv4");
        sys.dumps = strstr(next->heading, "dump") != nullptr;
        next->happen(v6);
        v6 = next->both_families && !v6;
        next += v6 ? 0 : 1;
        return true;
    });
    return EXIT_SUCCESS;
}
