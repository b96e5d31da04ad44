// A router's life of many hours, drawn from a seed, beside the model: see scripts/simulate.
//
// Each drawn event is made of the seed and its own number, and of none of the others, so that a life that
// breaks a law can be lived again with fewer of them. Its consequences (answers of servers, hosts that ask
// again, devices that come back) follow from what the daemon does, and are drawn from the seed, the time and
// their place.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <map>
#include <numeric>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/model/life.h"
#include "tests/model/model.h"
#include "tests/model/sandbox.h"

namespace {

constexpr int64_t ms = 1'000'000, s = 1000 * ms;

// Every kind must be met; one that was not is told.
constexpr const char *kinds[] = {"query, IPv4",
                                 "query, IPv6",
                                 "query asked again",
                                 "burst of queries",
                                 "query without its device",
                                 "query of an odd length",
                                 "query that is damaged",
                                 "forced query without its line",
                                 "server silent",
                                 "silence of all servers",
                                 "answer",
                                 "answer after seconds",
                                 "answer after its record's end",
                                 "answer twice",
                                 "answer under a wrong identifier",
                                 "answer without the response bit",
                                 "answer that is cut",
                                 "answer that is damaged",
                                 "answer relayed",
                                 "answer not relayed",
                                 "record expired answered",
                                 "record expired unanswered",
                                 "silence reported",
                                 "socket idle",
                                 "socket closed as dead",
                                 "link state from the bus",
                                 "link state from the file",
                                 "all lines down",
                                 "device gone",
                                 "device back",
                                 "request",
                                 "request of a wrong length",
                                 "requests before an answer",
                                 "netlink message that is none",
                                 "jump of the clock",
                                 "quiet minutes",
                                 "read ahead",
                                 "replies sent together",
                                 "identifiers wrap",
                                 fault_socket,
                                 fault_number,
                                 fault_dead,
                                 fault_upstream,
                                 fault_host,
                                 fault_memory,
                                 fault_pipe,
                                 fault_slow};

// What a life leaves to its parent.
struct outcome {
    unsigned long long events, queries, met[std::size(kinds)];
    int64_t lived;
    char law[200];
};
outcome *out;

// splitmix64
struct draw {
    uint64_t state;
    uint64_t next()
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
    template <class T, size_t N> T of(const T (&some)[N]) { return some[below(N)]; }
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
        began_ = began_ == 0 ? now() : began_;
        next_ = std::max(next_, began_);
        while (sys.waiting() == 0) {
            const int64_t then = std::min(next_, later_.empty() ? INT64_MAX : later_.begin()->first);
            if (then - began_ > end_)
                return false;
            set_clock(std::min(then, sys.alarm_at));
            if (sys.alarm_at <= then)
                break;
            while (!later_.empty() && later_.begin()->first <= now())
                later_.extract(later_.begin()).mapped()();
            if (next_ <= then)
                happen();
        }
        out->lived = now() - began_;
        return true;
    }

    // The daemon has sent a datagram: a server answers it somehow, or a host has its answer.
    void sent(const sending &m)
    {
        const uint16_t id = id_of(m.bytes);
        if (m.device.empty())
            std::erase_if(asking_, [&](const auto &a) { return a.second.at == m.to && a.second.id == id; });
        if (m.device.empty() || !m.sent)
            return;
        draw d = {seed_ ^ static_cast<uint64_t>(now()) ^ std::hash<std::string>()(m.device) ^
                  static_cast<unsigned char>(m.to.address[3]) * 77U ^ id};
        const uint64_t how = d.below(100);
        const int64_t soon = d.between(1, 5) * 50 * ms - now() % (50 * ms); // many come at one time
        if (silent_until_ > now() || how < 3)
            met("server silent");
        else if (how < 4)
            reply(m, "answer that is damaged", soon, id, 100, '\x80', arrival::damaged);
        else if (how < 86)
            reply(m, "answer", soon, id);
        else if (how < 89)
            reply(m, "answer after seconds", d.between(s, 9 * s), id);
        else if (how < 91)
            reply(m, "answer after its record's end", d.between(10 * s, 20 * s), id);
        else if (how < 94) {
            reply(m, "answer", soon, id);
            reply(m, "answer twice", 2 * soon, id);
        } else if (how < 96)
            reply(m, "answer under a wrong identifier", soon, static_cast<uint16_t>(d.next()));
        else if (how < 98)
            reply(m, "answer without the response bit", soon, id, 12, '\1');
        else
            reply(m, "answer that is cut", soon, id, d.below(12));
    }

private:
    static int64_t now() { return ipcom_tmo2_clock(); }
    static void set_clock(int64_t at) { fake_clock::advance_ns(std::max<int64_t>(0, at - now())); }
    void later(int64_t after, std::function<void()> what) { later_.emplace(now() + after, std::move(what)); }

    void reply(const sending &m, const char *kind, int64_t after, uint16_t id, size_t length = 100,
               char flags = '\x80', arrival told = arrival::told)
    {
        std::string bytes(length + 3, '\0');
        bytes[2] = flags;
        bytes = with_id(bytes, id).substr(0, length);
        later(after, [=, v6 = m.to.v6, line = m.device] {
            met(kind);
            answer(v6, line, bytes, told);
        });
    }

    // Hosts ask again after 1 and 5 seconds.
    void query(const host &h)
    {
        met(h.tries > 0 ? "query asked again" : h.at.v6 ? "query, IPv6" : "query, IPv4");
        out->queries++;
        ask(h.at, h.device, with_id(std::string(h.length + 3, '\1'), h.id).substr(0, h.length), h.told);
        if (h.tries == 2 || h.length < 12)
            return;
        asking_[++asked_] = h;
        later(h.tries == 0 ? s : 5 * s, [=, this, number = asked_] {
            if (auto still = asking_.extract(number)) {
                still.mapped().tries++;
                query(still.mapped());
            }
        });
    }

    static host any_host(draw *d)
    {
        static constexpr const char *devices[] = {"br-lan", "br-lan", "br-lan",   "br-lan",
                                                  "office", "office", "br-guest", "br-guest",
                                                  "ppp0",   "far",    "lo",       "eth9"};
        static constexpr size_t odd[] = {0, 1, 2, 3, 11, 1599, 1600, 1601, 65507};
        host h = {};
        h.at = {.v6 = d->one_in(2), .port = static_cast<uint16_t>(1024 + d->below(4))};
        h.at.address = {'\xfd', 0, 0, static_cast<char>(d->below(8))};
        h.device = d->of(devices);
        h.id = static_cast<uint16_t>(d->one_in(4) ? d->below(4) : d->next());
        h.length = d->one_in(50) ? d->of(odd) : 12 + d->below(80);
        if (h.length < 12 || h.length > 100)
            met("query of an odd length");
        if (d->one_in(100)) {
            met("query without its device");
            h.told = d->one_in(2) ? arrival::not_told : arrival::told_otherwise;
        }
        if (d->one_in(200)) {
            met("query that is damaged");
            h.told = arrival::damaged;
        }
        return h;
    }

    // The next drawn event, and the time of the one behind it.
    void happen()
    {
        const uint64_t number = out->events++;
        draw d = {seed_ * 0x2545f4914f6cdd1d + number}, gap = {~seed_ * 0x2545f4914f6cdd1d + number};
        next_ = now() + static_cast<int64_t>(-std::log((static_cast<double>(gap.next() >> 11) + 1) / 0x1p53) *
                                             1.35e9);
        if (gap.one_in(600)) {
            met("quiet minutes");
            next_ += gap.between(0, 200 * s);
        }
        if (only_ != nullptr && !std::binary_search(only_->begin(), only_->end(), number))
            return;
        const double at = static_cast<double>(now() - began_) / 1e9;
        const std::string what = happen(d.below(1000), &d);
        if (tells_)
            printf("%10.3f s  event %llu: %s\n", at, static_cast<unsigned long long>(number), what.c_str());
        if (tells_)
            fflush(stdout);
    }

    std::string happen(uint64_t kind, draw *d)
    {
        static constexpr const char *lines[] = {"wan1", "wan2", "wan3", "pt-vpn0"};
        if (kind < 910) {
            const host h = any_host(d);
            query(h);
            return std::string("query on ") + h.device +
                   (h.at.v6 ? ", IPv6, identifier " : ", IPv4, identifier ") + std::to_string(h.id);
        }
        if (kind < 915) {
            met("burst of queries");
            for (int64_t n = d->between(2, d->one_in(8) ? 400 : 60); n > 0; n--)
                query(any_host(d));
            return "burst of queries";
        }
        if (kind < 930) {
            const char *line = d->of(lines);
            const bool up = d->one_in(2);
            met("link state from the bus");
            set_link(line, up);
            later(d->between(s, 120 * s), [=] { set_link(line, true); });
            return std::string("the bus says that ") + line + (up ? " is up" : " is down");
        }
        if (kind < 935) {
            met("link state from the file");
            sys.online_state.clear();
            for (const char *line : lines)
                sys.online_state += line + std::string(d->one_in(3) ? "=off\n" : "=on\n");
            return "another file of link states";
        }
        if (kind < 947) {
            const size_t device = d->below(sys.devices.size());
            if (!sys.devices[device].present)
                return "a device that has gone stays away";
            met("device gone");
            toggle_device(device);
            later(d->between(ms, 100 * s), [=] {
                met("device back");
                toggle_device(device);
            });
            return sys.devices[device].name + " goes";
        }
        if (kind < 977)
            return any_request(d);
        if (kind < 982) {
            met("netlink message that is none");
            std::string batch(d->below(40), '\0');
            for (char &c : batch)
                c = static_cast<char>(d->below(20));
            netlink(batch);
            return "a netlink message that is none";
        }
        if (kind < 992) {
            bool *faults[] = {&sys.faults.no_descriptors,
                              &sys.faults.high_descriptors,
                              &sys.faults.upstream_unreachable,
                              &sys.faults.hosts_unreachable,
                              &sys.faults.no_memory,
                              &sys.faults.full_pipe,
                              &sys.faults.slow};
            const uint64_t which = d->below(std::size(faults));
            *faults[which] = true;
            later(d->between(0, 20 * s), [] { sys.faults = {}; });
            return "calls of kind " + std::to_string(which) + " fail for seconds";
        }
        if (kind < 995) {
            met("jump of the clock");
            fake_clock::advance_ns(d->between(0, 120 * s));
            return "the clock jumps";
        }
        if (kind < 998) {
            met("silence of all servers");
            silent_until_ = now() + d->between(s, 60 * s);
            return "all servers are silent for a time";
        }
        met("identifiers wrap");
        set_next_identifier(static_cast<uint16_t>(65536 - d->below(8)));
        return "the identifiers come to their end";
    }

    static void send_request(uint32_t op, const char *ifname, draw *d)
    {
        dnsproxy_public_msg m = {
            .op = op, .dnsFlag = 1, .dns2Flag = 1, .dns = 0x0108'0808, .dns2 = 0x0208'0808};
        strcpy(m.ifname, ifname);
        m.dns6.sin6_addr.s6_addr[15] = 1;
        std::string bytes(reinterpret_cast<const char *>(&m), sizeof m);
        if (d != nullptr) {
            strcpy(m.pipeName, d->one_in(2) ? reply_pipe : "");
            m.dnsFlag = static_cast<uint32_t>(d->below(3));
            m.dns2Flag = static_cast<uint32_t>(d->below(3));
            m.noV4 = static_cast<int32_t>(d->below(12)) / 10;
            m.noV6 = static_cast<int32_t>(d->below(12)) / 10;
            m.dns *= d->below(2);
            m.dns2 *= d->below(2);
            m.dns6.sin6_addr.s6_addr[15] = static_cast<uint8_t>(d->below(4));
            m.dns6_2.sin6_addr.s6_addr[15] = static_cast<uint8_t>(d->below(2));
            bytes = {reinterpret_cast<const char *>(&m), sizeof m};
            if (d->one_in(10)) {
                met("request of a wrong length");
                bytes.resize(d->below(300));
            }
        }
        met("request");
        request(bytes);
    }

    std::string any_request(draw *d)
    {
        static constexpr const char *names[] = {"WAN1",     "WAN2",     "WAN3",    "VPN",
                                                "loopback", "NAMELESS", "nothing", ";"};
        const auto op =
            static_cast<uint32_t>(d->one_in(3) ? DNSPROXY_DNS_SERVER_GETIFS - d->below(2) : d->below(12));
        const char *name = d->of(names);
        if (d->one_in(10)) {
            met("requests before an answer");
            answer(d->one_in(2), "wan1", std::string(12, '\x80'));
            send_request(DNSPROXY_DNS_SERVER_GET, name, nullptr);
        }
        send_request(op, name, d);
        if (op == DNSPROXY_DNS_SERVER_DEL || op == DNSPROXY_DNS_SERVER_DELALL) {
            later(d->between(s, 60 * s), [] { // somebody sees to it that the router has its lines again
                for (const char *line : {"WAN1", "WAN2", "VPN"})
                    send_request(DNSPROXY_DNS_SERVER_ADDORSET, line, nullptr);
            });
        }
        return "request " + std::to_string(op) + " for " + name;
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

struct options {
    uint64_t seed = 0;
    double hours = 10, seconds = 0;
    std::vector<uint64_t> only = {};
};

router *in_hand;

// In a process of its own; whether no law was broken.
bool live_well(const options &o, const std::vector<uint64_t> *only, bool tells)
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
        router r(o.seed, o.hours, only, tells);
        in_hand = &r;
        sys.sent = [](const sending &m) { in_hand->sent(m); };
        live(static_cast<uint16_t>(o.seed), 0, [&] { return r.go_on(); });
        std::transform(std::begin(kinds), std::end(kinds), out->met, times_met);
        exit(EXIT_SUCCESS);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Leaves out as many events as can be, without another law being broken than before.
std::vector<uint64_t> cut_down(const options &o)
{
    const std::string law = out->law;
    std::vector<uint64_t> events(out->events);
    std::iota(events.begin(), events.end(), 0);
    const auto fails = [&](const std::vector<uint64_t> &some) {
        return !live_well(o, &some, false) && law == out->law;
    };
    for (size_t last = 8; last < events.size(); last *= 4) { // mostly the last ones do
        const std::vector<uint64_t> some(events.end() - static_cast<ptrdiff_t>(last), events.end());
        if (fails(some))
            events = some;
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

int tell_broken(const options &o)
{
    printf("seed %lu: broken after %.3f hours and %llu events: %s\n", o.seed,
           static_cast<double>(out->lived) / 3600e9, out->events, out->law);
    const std::vector<uint64_t> events = cut_down(o);
    printf("cut down to %zu events; to live it again:\n    scripts/simulate --seed %lu --hours %g --only ",
           events.size(), o.seed, o.hours);
    for (const uint64_t event : events)
        printf("%lu,", event);
    puts("");
    (void)live_well(o, &events, true);
    return EXIT_FAILURE;
}

bool read_options(int argc, char **argv, options *o)
{
    (void)getentropy(&o->seed, 4);
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        char *at = argv[i + 1];
        if (name == "--seed")
            o->seed = strtoull(at, nullptr, 10);
        else if (name == "--hours")
            o->hours = strtod(at, nullptr);
        else if (name == "--seconds")
            o->seconds = strtod(at, nullptr);
        else if (name == "--only")
            while (*at != '\0')
                o->only.push_back(strtoull(at + (*at == ','), &at, 10));
        else
            return false;
    }
    return argc % 2 == 1;
}

} // namespace

int main(int argc, char **argv)
{
    require_sandbox();
    options o;
    if (!read_options(argc, argv, &o))
        return fputs("usage: simulate [--seed N] [--hours H] [--seconds S] [--only EVENT,...]\n", stderr), 2;
    out = static_cast<outcome *>(
        mmap(nullptr, sizeof *out, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (!o.only.empty())
        return live_well(o, &o.only, true) ? EXIT_SUCCESS : EXIT_FAILURE;

    outcome sum = {};
    const uint64_t first = o.seed;
    const auto began = std::chrono::steady_clock::now();
    double took = 0;
    for (printf("seed %lu, %g hours each\n", first, o.hours); took == 0 || took < o.seconds; o.seed++) {
        if (!live_well(o, nullptr, false))
            return tell_broken(o);
        sum.events += out->events;
        sum.queries += out->queries;
        sum.lived += out->lived;
        std::transform(std::begin(sum.met), std::end(sum.met), out->met, sum.met, std::plus<>());
        took = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    }
    for (size_t i = 0; i < std::size(kinds); i++)
        printf("%12llu  %s%s\n", sum.met[i], kinds[i], sum.met[i] == 0 ? ": NEVER MET" : "");
    rusage used = {};
    (void)getrusage(RUSAGE_CHILDREN, &used);
    const double lived = static_cast<double>(sum.lived) / 3600e9;
    const double minutes = (static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
                            static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6) /
                           60;
    printf("seeds %lu to %lu: no law broken in %.0f hours with %llu events and %llu queries; %.0f hours a "
           "minute of a core\n",
           first, o.seed - 1, lived, sum.events, sum.queries, lived / minutes);
    return EXIT_SUCCESS;
}
