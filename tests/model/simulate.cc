// A router's life of many hours, drawn from a seed, beside the model: see usage below and scripts/simulate.
//
// Each drawn event is made of the seed and its own number, and none of the others, so that a life that breaks
// a law can be lived again with fewer of them. Its consequences (answers of servers, hosts that ask again,
// devices that come back) follow from what the daemon does, and are drawn from the seed, the time and their
// place.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/model/life.h"
#include "tests/model/model.h"
#include "tests/model/sandbox.h"

namespace {

constexpr char usage[] = "usage: simulate [--seed N] [--hours H] [--seconds S] [--only EVENT,...]\n"
                         "A life of H hours, or lives of the following seeds until S seconds have passed.\n";
constexpr int64_t ms = 1'000'000, s = 1000 * ms;

// Every kind must be met; one that was not is told.
constexpr const char *kinds[] = {"query, IPv4",
                                 "query, IPv6",
                                 "query asked again",
                                 "burst of queries",
                                 "query without its device",
                                 "query of an odd length",
                                 "answer",
                                 "answer after seconds",
                                 "answer after the record's end",
                                 "answer twice",
                                 "answer under a wrong identifier",
                                 "answer without the response bit",
                                 "answer that is cut",
                                 "server silent",
                                 "silence of all servers",
                                 "link state from the bus",
                                 "link state from the file",
                                 "device gone",
                                 "device back",
                                 "request",
                                 "request of a wrong length",
                                 "netlink message that is none",
                                 "jump of the clock",
                                 "quiet minutes",
                                 "identifiers wrap",
                                 fault_socket,
                                 fault_number,
                                 fault_dead,
                                 fault_upstream,
                                 fault_host,
                                 fault_memory,
                                 fault_pipe,
                                 "record expired unanswered",
                                 "record expired answered",
                                 "silence reported",
                                 "socket idle",
                                 "socket closed as dead",
                                 "reply relayed",
                                 "reply not relayed",
                                 "forced query without its line",
                                 "all lines down"};

// What a life leaves to its parent.
struct outcome {
    uint64_t event, queries;
    int64_t lived;
    char law[200];
    uint64_t met[std::size(kinds)];
};
outcome *out;

struct draw {
    uint64_t state;
    uint64_t next() // splitmix64
    {
        uint64_t z = state += 0x9e3779b97f4a7c15;
        z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
        z = (z ^ z >> 27) * 0x94d049bb133111eb;
        return z ^ z >> 31;
    }
    uint64_t below(uint64_t n) { return next() % n; }
    bool one_in(uint64_t n) { return below(n) == 0; }
    int64_t between(int64_t low, int64_t high)
    {
        return low + static_cast<int64_t>(below(static_cast<uint64_t>(high - low)));
    }
};

struct host {
    peer at;
    const char *device;
    arrival told;
    uint16_t id;
    size_t length;
    int tries;
};

class router {
public:
    router(uint64_t seed, double hours, const std::vector<uint64_t> *only, bool tells)
        : seed_(seed), end_(static_cast<int64_t>(hours * 3600e9)), only_(only), tells_(tells)
    {
    }

    // Between two waits of the daemon: time passes until something reaches it, or its alarm goes off.
    bool go_on()
    {
        if (began_ == 0)
            began_ = now();
        while (sys.waiting() == 0) {
            const int64_t then = std::min(next_, later_.empty() ? INT64_MAX : later_.begin()->first);
            if (then - began_ > end_)
                return false;
            if (sys.alarm_at <= then) {
                set_clock(sys.alarm_at);
                break;
            }
            set_clock(then);
            while (!later_.empty() && later_.begin()->first <= then) {
                const auto happen = std::move(later_.begin()->second);
                later_.erase(later_.begin());
                happen();
            }
            if (next_ <= then)
                happen();
        }
        out->lived = now() - began_;
        return true;
    }

    // The daemon has sent a datagram: a server answers it somehow, or a host has its answer.
    void sent(const sending &m)
    {
        if (m.device.empty()) {
            std::erase_if(asking_, [&](const auto &each) {
                return each.second.at == m.to && each.second.id == id_of(m.bytes);
            });
            return;
        }
        draw d = {seed_ ^ static_cast<uint64_t>(now()) ^ std::hash<std::string>()(m.device) ^
                  m.to.address[3] * 77U ^ id_of(m.bytes)};
        if (!m.sent)
            return;
        if (silent_until_ > now() || d.one_in(25))
            return met("server silent");
        const uint64_t how = d.below(100);
        const auto soon = [&] { return d.between(ms, 200 * ms); };
        if (how < 84)
            reply(m, "answer", soon());
        else if (how < 88)
            reply(m, "answer after seconds", d.between(s, 9 * s));
        else if (how < 90)
            reply(m, "answer after the record's end", d.between(10 * s, 20 * s));
        else if (how < 94) {
            reply(m, "answer", soon());
            reply(m, "answer twice", soon());
        } else if (how < 96)
            reply(m, "answer under a wrong identifier", soon(), static_cast<uint16_t>(d.next()));
        else if (how < 98)
            reply(m, "answer without the response bit", soon(), id_of(m.bytes), 12, '\1');
        else
            reply(m, "answer that is cut", soon(), id_of(m.bytes), d.below(12));
    }

private:
    static int64_t now() { return ipcom_tmo2_clock(); }
    static void set_clock(int64_t at) { fake_clock::advance_ns(std::max<int64_t>(0, at - now())); }
    void later(int64_t after, std::function<void()> what) { later_.emplace(now() + after, std::move(what)); }

    void reply(const sending &m, const char *kind, int64_t after, int id = -1, size_t length = 100,
               char flags = '\x80')
    {
        std::string bytes(length + 3, '\0');
        bytes[2] = flags;
        bytes = with_id(bytes, id < 0 ? id_of(m.bytes) : static_cast<uint16_t>(id)).substr(0, length);
        later(after, [=, v6 = m.to.v6, line = m.device] {
            met(kind);
            answer(v6, line, bytes);
        });
    }

    // Hosts ask again after 1 and 5 seconds.
    void query(const host &h)
    {
        std::string bytes(h.length + 3, '\1');
        met(h.tries > 0 ? "query asked again" : h.at.v6 ? "query, IPv6" : "query, IPv4");
        if (h.told != arrival::told)
            met("query without its device");
        out->queries++;
        ask(h.at, h.device, with_id(bytes, h.id).substr(0, h.length), h.told);
        if (h.tries == 2 || h.length < 12)
            return;
        const uint64_t number = ++asked_;
        asking_[number] = h;
        later(h.tries == 0 ? s : 5 * s, [=, this] {
            if (const auto still = asking_.extract(number)) {
                host again = still.mapped();
                again.tries++;
                query(again);
            }
        });
    }

    host any_host(draw *d)
    {
        static constexpr const char *devices[] = {"br-lan", "br-lan",   "br-lan",   "office",
                                                  "office", "br-guest", "br-guest", "ppp0",
                                                  "far",    "lo",       "eth9",     "br-lan"};
        static constexpr size_t odd[] = {0, 1, 2, 3, 11, 1599, 1600, 1601, 65507};
        host h = {};
        h.at.v6 = d->one_in(2);
        h.at.port = static_cast<uint16_t>(1024 + d->below(4));
        h.at.address[0] = '\xfd';
        h.at.address[3] = static_cast<char>(d->below(8));
        h.device = devices[d->below(std::size(devices))];
        h.id = static_cast<uint16_t>(d->one_in(4) ? d->below(4) : d->next());
        h.told = !d->one_in(100) ? arrival::told : d->one_in(2) ? arrival::not_told : arrival::told_otherwise;
        h.length = 12 + d->below(80);
        if (d->one_in(50)) {
            met("query of an odd length");
            h.length = odd[d->below(std::size(odd))];
        }
        return h;
    }

    // The next drawn event, and the time of the one behind it.
    void happen()
    {
        const uint64_t number = out->event++;
        draw d = {seed_ * 0x2545f4914f6cdd1d + number};
        const uint64_t kind = d.below(1000);
        if (only_ == nullptr || std::binary_search(only_->begin(), only_->end(), number)) {
            if (tells_)
                printf("%10.3f s  event %llu: ", static_cast<double>(now() - began_) / 1e9,
                       static_cast<unsigned long long>(number));
            const std::string what = happen(kind, &d);
            if (tells_) {
                puts(what.c_str());
                fflush(stdout);
            }
        }
        draw gap = {~seed_ * 0x2545f4914f6cdd1d + number};
        next_ = now() + static_cast<int64_t>(-std::log((static_cast<double>(gap.next() >> 11) + 1) / 0x1p53) *
                                             1.35e9);
        if (gap.one_in(600)) {
            met("quiet minutes");
            next_ += gap.between(0, 200 * s);
        }
    }

    std::string happen(uint64_t kind, draw *d)
    {
        static constexpr const char *lines[] = {"wan1", "wan2", "wan3", "pt-vpn0"};
        if (kind < 900) {
            const host h = any_host(d);
            query(h);
            return "query on " + std::string(h.device) +
                   (h.at.v6 ? ", IPv6, identifier " : ", IPv4, identifier ") + std::to_string(h.id);
        }
        if (kind < 905) {
            met("burst of queries");
            for (int64_t n = d->between(2, 60); n > 0; n--)
                query(any_host(d));
            return "burst of queries";
        }
        if (kind < 920) {
            const char *line = lines[d->below(4)];
            const bool up = !d->one_in(2);
            met("link state from the bus");
            set_link(line, up);
            later(d->between(s, 120 * s), [=] { set_link(line, true); });
            return std::string("the bus says ") + line + (up ? " is up" : " is down");
        }
        if (kind < 925) {
            met("link state from the file");
            sys.online_state.clear();
            for (const char *line : lines)
                sys.online_state += std::string(line) + (d->one_in(3) ? "=off\n" : "=on\n");
            return "another file of link states";
        }
        if (kind < 937) {
            const size_t device = d->below(sys.devices.size());
            if (!sys.devices[device].present)
                return "a device that is gone stays so";
            met("device gone");
            toggle_device(device);
            later(d->between(ms, 100 * s), [=] {
                met("device back");
                toggle_device(device);
            });
            return sys.devices[device].name + " goes";
        }
        if (kind < 965)
            return any_request(d);
        if (kind < 970) {
            met("netlink message that is none");
            std::string batch(d->below(40), '\0');
            for (char &c : batch)
                c = static_cast<char>(d->below(20));
            netlink(batch);
            return "a netlink message that is none";
        }
        if (kind < 988) {
            const uint64_t which = d->below(6);
            sys.faults = {which == 0, which == 1, which == 2, which == 3, which == 4, which == 5};
            later(d->between(0, 20 * s), [] { sys.faults = {}; });
            return "calls of kind " + std::to_string(which) + " fail for seconds";
        }
        if (kind < 991) {
            met("jump of the clock");
            fake_clock::advance_ns(d->between(0, 120 * s));
            return "the clock jumps";
        }
        if (kind < 994) {
            met("silence of all servers");
            silent_until_ = now() + d->between(s, 60 * s);
            return "all servers are silent for a time";
        }
        if (kind < 997) {
            met("identifiers wrap");
            set_next_identifier(static_cast<uint16_t>(65536 - d->below(8)));
            return "the identifiers come to their end";
        }
        return "nothing";
    }

    // Somebody sees to it that the router has its lines again.
    void add_lines(int64_t after)
    {
        later(after, [=, this] {
            for (const char *name : {"WAN1", "WAN2", "VPN"}) {
                dnsproxy_public_msg m = {.op = DNSPROXY_DNS_SERVER_ADDORSET,
                                         .dnsFlag = 1,
                                         .dns2Flag = 1,
                                         .dns = 0x0108'0808,
                                         .dns2 = 0x0208'0808};
                strcpy(m.ifname, name);
                m.dns6.sin6_addr.s6_addr[15] = 1;
                request({reinterpret_cast<const char *>(&m), sizeof m});
            }
        });
    }

    std::string any_request(draw *d)
    {
        static constexpr const char *names[] = {"WAN1",     "WAN2",     "WAN3",    "VPN", "WAN1",
                                                "loopback", "NAMELESS", "nothing", ";"};
        dnsproxy_public_msg m = {};
        m.op = static_cast<uint32_t>(d->below(12));
        strcpy(m.ifname, names[d->below(std::size(names))]);
        strcpy(m.pipeName, d->one_in(2) ? reply_pipe : "");
        if (m.op == DNSPROXY_DNS_SERVER_DEL || m.op == DNSPROXY_DNS_SERVER_DELALL)
            add_lines(d->between(s, 60 * s));
        m.dnsFlag = static_cast<uint32_t>(d->below(2));
        m.dns2Flag = static_cast<uint32_t>(d->below(2));
        m.noV4 = d->one_in(6) ? 1 : 0;
        m.noV6 = d->one_in(6) ? 1 : 0;
        m.dns = d->one_in(4) ? 0 : 0x0108'0808;
        m.dns2 = d->one_in(2) ? 0 : 0x0208'0808;
        m.dns6.sin6_addr.s6_addr[15] = static_cast<uint8_t>(d->below(4));
        m.dns6_2.sin6_addr.s6_addr[15] = static_cast<uint8_t>(d->below(2));
        std::string bytes(reinterpret_cast<const char *>(&m), sizeof m);
        met("request");
        if (d->one_in(10)) {
            met("request of a wrong length");
            bytes.resize(d->below(300));
        }
        request(bytes);
        return "request " + std::to_string(m.op) + " for " + m.ifname;
    }

    const uint64_t seed_;
    const int64_t end_;
    const std::vector<uint64_t> *only_;
    const bool tells_;
    int64_t began_ = 0, next_ = 0, silent_until_ = 0;
    std::multimap<int64_t, std::function<void()>> later_;
    std::map<uint64_t, host> asking_;
    uint64_t asked_ = 0;
};

router *life_in_hand;

void live_in_child(uint64_t seed, double hours, const std::vector<uint64_t> *only, bool tells)
{
    router r(seed, hours, only, tells);
    life_in_hand = &r;
    sys.sent = [](const sending &m) { life_in_hand->sent(m); };
    live(static_cast<uint16_t>(seed), 0, [&] { return r.go_on(); });
    for (size_t i = 0; i < std::size(kinds); i++)
        out->met[i] = times_met(kinds[i]);
    exit(EXIT_SUCCESS);
}

// Whether no law was broken.
bool lived_well(uint64_t seed, double hours, const std::vector<uint64_t> *only = nullptr, bool tells = false)
{
    fflush(stdout);
    *out = {};
    const pid_t child = fork();
    if (child == 0) {
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (!tells)
            dup2(nowhere, STDOUT_FILENO);
        if (only != nullptr && !tells)
            dup2(nowhere, STDERR_FILENO);
        broken_law = out->law;
        live_in_child(seed, hours, only, tells);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Leaves out as many events as can be, without another law being broken than before.
std::vector<uint64_t> cut_down(uint64_t seed, double hours)
{
    const std::string law = out->law;
    std::vector<uint64_t> events(out->event);
    std::iota(events.begin(), events.end(), 0);
    const auto fails = [&](const std::vector<uint64_t> &some) {
        return !lived_well(seed, hours, &some) && law == out->law;
    };
    for (size_t last = 8; last < events.size(); last *= 4) { // mostly the last ones do
        const std::vector<uint64_t> some(events.end() - static_cast<ptrdiff_t>(last), events.end());
        if (fails(some)) {
            events = some;
            break;
        }
    }
    for (size_t size = (events.size() + 1) / 2; size > 0; size = size > 1 ? (size + 1) / 2 : 0) {
        for (size_t at = 0; at < events.size();) {
            std::vector<uint64_t> some = events;
            const auto from = some.begin() + static_cast<ptrdiff_t>(at);
            some.erase(from, from + static_cast<ptrdiff_t>(std::min(size, some.size() - at)));
            if (fails(some))
                events = some;
            else
                at += size;
        }
    }
    return events;
}

} // namespace

int main(int argc, char **argv)
{
    require_sandbox();
    uint64_t seed = 0;
    double hours = 10, seconds = 0;
    std::vector<uint64_t> only;
    if (getentropy(&seed, 4) != 0 || argc % 2 == 0)
        return fputs(usage, stderr), 2;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--seed")
            seed = strtoull(argv[i + 1], nullptr, 10);
        else if (option == "--hours")
            hours = strtod(argv[i + 1], nullptr);
        else if (option == "--seconds")
            seconds = strtod(argv[i + 1], nullptr);
        else if (option == "--only") {
            for (const char *at = argv[i + 1]; *at != '\0'; at += *at == ',')
                only.push_back(strtoull(at, const_cast<char **>(&at), 10));
        } else
            return fputs(usage, stderr), 2;
    }
    out = static_cast<outcome *>(
        mmap(nullptr, sizeof *out, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (!only.empty())
        return lived_well(seed, hours, &only, true) ? EXIT_SUCCESS : EXIT_FAILURE;

    outcome sum = {};
    const uint64_t first = seed;
    const auto began = std::chrono::steady_clock::now();
    double took = 0;
    printf("seed %llu, %g hours each\n", static_cast<unsigned long long>(first), hours);
    do {
        if (!lived_well(seed, hours)) {
            printf("seed %llu: broken after %.3f hours and %llu events: %s\n",
                   static_cast<unsigned long long>(seed), static_cast<double>(out->lived) / 3600e9,
                   static_cast<unsigned long long>(out->event), out->law);
            std::string list;
            only = cut_down(seed, hours);
            for (const uint64_t event : only)
                list += (list.empty() ? "" : ",") + std::to_string(event);
            printf("cut down to %zu events; to live it again:\n    scripts/simulate --seed %llu --hours %g "
                   "--only %s\n",
                   only.size(), static_cast<unsigned long long>(seed), hours, list.c_str());
            (void)lived_well(seed, hours, &only, true);
            return EXIT_FAILURE;
        }
        sum.event += out->event;
        sum.queries += out->queries;
        sum.lived += out->lived;
        for (size_t i = 0; i < std::size(kinds); i++)
            sum.met[i] += out->met[i];
        seed++;
        took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    } while (took < seconds);
    for (size_t i = 0; i < std::size(kinds); i++)
        printf("%12llu  %s%s\n", static_cast<unsigned long long>(sum.met[i]), kinds[i],
               sum.met[i] == 0 ? ": NEVER MET" : "");
    const double lived = static_cast<double>(sum.lived) / 3600e9;
    printf("seeds %llu to %llu: no law broken in %.0f hours with %llu events and %llu queries; %.0f hours a "
           "minute\n",
           static_cast<unsigned long long>(first), static_cast<unsigned long long>(seed - 1), lived,
           static_cast<unsigned long long>(sum.event), static_cast<unsigned long long>(sum.queries),
           lived / took * 60);
    return EXIT_SUCCESS;
}
