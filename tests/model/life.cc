#include "tests/model/life.h"

#include <algorithm>
#include <csetjmp>
#include <cstddef>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <set>

#include "cache/request_cache.h"
#include "daemon/start.h"
#include "forward/relay.h"
#include "iface/listen_if.h"
#include "tests/model/model.h"

// Linked by --wrap, see fake_system.cc.
extern "C" void __wrap_if_freenameindex(struct if_nameindex *list);
extern "C" void __wrap_free(void *block);

namespace {

model expected;
size_t records_before_step;      // of the model
std::vector<ipcom_tmo2> timers;  // that somebody owns
std::set<int> descriptors;       // that lines own
std::deque<sending> replies_due; // they may leave together, before the daemon waits
enum { RUNNING, DRAINING, ENDING } phase;
size_t waiting_before;    // datagrams at the last wait
std::string turn_ended;   // of this line, since that wait
int64_t waited_at;        // when it ended
bool answers_wait;        // at that wait
int passes, request_pass; // so far; that took the last request
bool settled;             // and nothing has been due since
const std::function<bool()> *script;
jmp_buf end_of_loop;

// A list's records, and as many must be in its table.
template <class Record> const std::vector<Record *> &records_of(const ipcom_list &list, ipcom_hash *table)
{
    static std::vector<Record *> records; // each call's own result goes with the next one
    records.clear();
    for (auto *r = ipcom_first<Record>(list); r != nullptr; r = ipcom_next(r))
        records.push_back(r);
    must(list.size == static_cast<int>(records.size()), "a list's size is the number of its records");
    size_t count = 0;
    ipcom_hash_for_each(
        table, [](void *, void *n) { return static_cast<int>(++*static_cast<size_t *>(n)); }, &count);
    must(count == records.size(), "a table holds what its list holds");
    return records;
}

peer host_of(const dnsproxy_cache_entry &e)
{
    return peer_at(static_cast<uint32_t>(e.from), e.port);
}

peer host_of(const dnsproxy_cache_entry_v6 &e)
{
    return e.from != 0 ? peer_at(static_cast<uint32_t>(e.from), e.port) : peer_at(e.from6, e.port);
}

const dnsproxy_cache_entry *find_by_host(const dnsproxy_cache_entry &e)
{
    return dnsproxy_entry_find(e.from, e.port, e.id);
}

const dnsproxy_cache_entry_v6 *find_by_host(const dnsproxy_cache_entry_v6 &e)
{
    sockaddr_in6 client = {};
    client.sin6_addr = e.from6;
    return dnsproxy_entry_find_v6(e.from, &client, e.port, e.id);
}

// A reply is accepted when it has left.
bool is_same(const record &is, record should)
{
    if (!replies_due.empty())
        should.answered = is.answered;
    return is == should;
}

template <class Entry>
void check_cache(bool v6, const ipcom_list &list, ipcom_hash *hosts, ipcom_hash *ids,
                 Entry *(*find_by_id)(uint16_t))
{
    static constexpr char remembered[] =
        "a query is remembered for its time: who asked, under which identifier, where it went, if answered";
    (void)records_of<Entry>(list, ids);
    const std::vector<Entry *> &entries = records_of<Entry>(list, hosts);
    static std::vector<record> records;
    records.clear();
    for (const Entry *e : entries) {
        must(ipcom_tmo2_is_armed(&e->tmo) && e->tmo.arg == e, "a record has its timer");
        timers.push_back(e->tmo);
        records.push_back({v6,
                           {host_of(*e), e->id},
                           e->new_id,
                           e->ifname,
                           e->dnsIndex,
                           e->tmo.deadline,
                           e->flags == DNSPROXY_ENTRY_ANSWERED});
    }
    // A look-up finds this record, or a newer one under the same key.
    for (size_t i = 0; i < entries.size(); i++) {
        const Entry *by_id = find_by_id(entries[i]->new_id), *by_host = find_by_host(*entries[i]);
        const auto is_this_or_newer = [&](const Entry *e) {
            return e != nullptr &&
                   std::find(entries.begin() + static_cast<ptrdiff_t>(i), entries.end(), e) != entries.end();
        };
        must(is_this_or_newer(by_id) && by_id->new_id == entries[i]->new_id,
             "the newest record is found by its identifier");
        must(is_this_or_newer(by_host) && host_of(*by_host) == records[i].who.host &&
                 by_host->id == records[i].who.id,
             "the newest record is found by its host");
    }
    // Without memory a query may have gone out unrecorded, or less far.
    if (sys.allocation_failed) {
        const size_t known = expected.of_family(v6).size();
        expected.records.insert(expected.records.end(),
                                records.begin() + static_cast<ptrdiff_t>(std::min(known, records.size())),
                                records.end());
    }
    auto at = records.begin();
    for (const record &r : expected.records) {
        if (r.v6 == v6)
            must(at != records.end() && is_same(*at++, r), remembered);
    }
    must(at == records.end(), remembered);
}

void check_line(dnsproxy_server_if *line)
{
    must(dnsproxy_server_if_get(line->ifname) == line, "a line is found by its name");
    for (const bool v6 : {false, true}) {
        const int fd = fd_of(*line, v6);
        must(ipcom_tmo2_is_armed(&timer_of(*line, v6)) == (fd > 0), "an open socket has its idle time");
        if (fd < 0)
            continue;
        must(sys.files.contains(fd) && sys.files.at(fd).device == line->ifname,
             "an upstream socket is open and tied to its line's device");
        must(descriptors.insert(fd).second, "a descriptor has one owner");
        timers.push_back(timer_of(*line, v6));
    }
}

void check_lines()
{
    std::vector<dnsproxy_server_if> lines;
    for (auto *line :
         records_of<dnsproxy_server_if>(dnsproxy_data.serverIfList, dnsproxy_data.serverIfHash)) {
        check_line(line);
        lines.push_back(*line);
    }
    std::swap(lines, expected.lines);
    must(sys.allocation_failed || expected.all_down == (dnsproxy_data.allServerIfDown == 1),
         "the daemon knows when no line is up");
    if (sys.allocation_failed) {
        expected.has_list = dnsproxy_data.ifNameIndex != nullptr;
        expected.all_down = dnsproxy_data.allServerIfDown == 1;
        return;
    }
    must(lines.size() == expected.lines.size(), "only requests add and remove lines");
    for (size_t i = 0; i < lines.size(); i++) {
        dnsproxy_server_if &is = expected.lines[i], &should = lines[i];
        must(strcmp(is.ifname, should.ifname) == 0, "lines take turns");
        must(is.dnsIndex == should.dnsIndex, "a line learns its server from expiries");
        must(is.useCount == should.useCount, "forced queries are counted");
        must(is.is_down == should.is_down, "a line is down when the bus or the file says so");
        must(memcmp(is.dnsServer, should.dnsServer, sizeof is.dnsServer) == 0 &&
                 memcmp(is.dnsServer6, should.dnsServer6, sizeof is.dnsServer6) == 0,
             "requests alone change servers");
        for (const bool v6 : {false, true}) {
            const bool open = fd_of(should, v6) >= 0;
            must(open == (fd_of(is, v6) >= 0), "sockets open for queries and close when idle or dead");
            must(!open || timer_of(is, v6).deadline == timer_of(should, v6).deadline,
                 "a query starts the idle time anew");
        }
    }
}

// Takes the replies among what was sent.
std::vector<sending> take_replies(std::vector<sending> *sent)
{
    const auto replies =
        std::stable_partition(sent->begin(), sent->end(), [](const sending &s) { return !s.device.empty(); });
    std::vector<sending> taken(replies, sent->end());
    sent->erase(replies, sent->end());
    return taken;
}

void check_sendings()
{
    if (sys.allocation_failed)
        relay_flush(); // the daemon's own state counts below
    std::ranges::copy(take_replies(&expected.sendings), std::back_inserter(replies_due));
    for (const sending &s : take_replies(&sys.sendings)) {
        must(!replies_due.empty() && s == replies_due.front(), "a reply leaves once, and in its turn");
        replies_due.pop_front();
    }
    for (const sending &s : sys.sendings)
        must(expected.forced_line.empty() || s.device == expected.forced_line,
             "a forced query leaves by its own line alone");
    if (!sys.allocation_failed) {
        must(sys.sendings == expected.sendings, "what is sent is what must be sent, once, and nothing else");
        must(dnsproxy_data.nextNewId == expected.next_id, "identifiers are given one after the other");
        return;
    }
    // Without memory a query may have ended anywhere on its way: the model goes on from there.
    must(static_cast<uint16_t>(expected.next_id - dnsproxy_data.nextNewId) <= 2,
         "a query takes one identifier per family");
    expected.next_id = dnsproxy_data.nextNewId;
    for (size_t i = 0; i < expected.marks.size(); i++)
        expected.marks[i] = (dnsproxy_data.pendingIdMap[i / 8] >> i % 8 & 1) != 0;
    expected.records.resize(std::min(expected.records.size(), records_before_step));
}

// Ends a step.
void settle()
{
    check_sendings();
    must(sys.allocation_failed || sys.pipe_replies == expected.pipe_replies,
         "a request that names a pipe gets its reply, and behind it the data that this announces");
    must(sys.reports == expected.reports, "ten unanswered queries in a row are reported once");
    timers.clear();
    descriptors.clear();
    check_cache(false, dnsproxy_data.cacheList, dnsproxy_data.cacheHash, dnsproxy_data.cacheIdHash,
                dnsproxy_entry_findById);
    check_cache(true, dnsproxy_data.cacheList6, dnsproxy_data.cacheHash6, dnsproxy_data.cacheIdHash6,
                dnsproxy_entry_findById_v6);
    check_lines();
    records_before_step = expected.records.size();
    expected.sendings.clear();
    expected.pipe_replies.clear();
    expected.forced_line.clear();
    sys.sendings.clear();
    sys.pipe_replies.clear();
    sys.allocation_failed = false;
}

// The loop has taken a datagram: one step is over, the next begins.
void received(int fd, const datagram &d)
{
    if (!settled)
        settle();
    settled = false;
    if (sys.faults.slow) {
        met(fault_slow);
        fake_clock::advance_ms(2);
    }
    const open_file &file = sys.files.at(fd);
    if (fd == dnsproxy_data.listenFd || fd == dnsproxy_data.listenFd6)
        expected.query(d);
    else if (!file.device.empty()) {
        const bool v6 = file.family == AF_INET6;
        must(!v6 || turn_ended != file.device, "a reply that is dropped ends its line's turn");
        if (!expected.reply(d, v6) && !v6)
            turn_ended = file.device;
    } else if (file.kind == open_file::REQUEST_PIPE) {
        must(!answers_wait || passes != request_pass + 1, "an answer waits for one request at most");
        request_pass = passes;
        expected.request(d.bytes);
    } else if (fd == dnsproxy_data.intfFd)
        expected.netlink(d.bytes);
}

// The alarm goes off in time for the first of the timers that somebody owns, and is set for nothing else: a
// timer of a freed owner would wake the daemon.
void check_wake(int limit_ms)
{
    if (phase == ENDING)
        return;
    int64_t wake = INT64_MAX;
    for (const ipcom_tmo2 &t : timers) {
        must(t.deadline > waited_at, "what was due at the last wait has run");
        wake = std::min(wake, t.deadline + lateness_ns);
    }
    must(limit_ms == (sys.read_ahead() ? 0 : -1),
         "the daemon waits for descriptors and the alarm, if nothing was read ahead");
    must(sys.alarm_at <= wake, "the daemon wakes for the first timer");
    must(wake == INT64_MAX || sys.alarm_at > wake - alarm_slack_ns,
         "the daemon does not wake for a timer that is gone");
    must(!sys.alarm_was_set || sys.alarm_at == wake, "the daemon wakes for its timers and for nothing else");
    must(!sys.alarm_was_set || sys.alarm_before > wake || sys.alarm_before <= wake - alarm_slack_ns,
         "the alarm is moved only when it would go off too late, or much too early");
    sys.alarm_was_set = false;
}

// The loop's wait.
int wait(epoll_event *ready, int limit_ms)
{
    settle();
    must(replies_due.empty(), "no reply waits while the daemon waits");
    check_wake(limit_ms);
    must(sys.files.size() == descriptors.size() + 6,
         "open are the lines' sockets, two listen sockets, the netlink socket, the request pipe, and two to "
         "wait with");
    must(waiting_before == 0 || sys.waiting() < waiting_before, "a pass serves something that is ready");
    sys.allocations_left = -1;
    if (phase == RUNNING && !(*script)())
        phase = DRAINING;
    waiting_before = sys.waiting();
    turn_ended.clear();
    answers_wait = std::any_of(sys.files.begin(), sys.files.end(), [](const auto &file) {
        return !file.second.device.empty() && !file.second.waiting.empty();
    });
    passes++;
    if (phase == DRAINING && waiting_before == 0)
        longjmp(end_of_loop, 1);
    int count = 0;
    for (auto &[fd, file] : sys.files) {
        file.served = 0;
        const bool goes_off = file.kind == open_file::ALARM && sys.alarm_at <= ipcom_tmo2_clock();
        if (goes_off)
            sys.alarm_at = INT64_MAX;
        if (file.waiting.empty() && !goes_off)
            continue;
        must(goes_off || sys.watched.contains(fd), "the loop waits for every open descriptor");
        ready[count].events = EPOLLIN;
        ready[count++].data.fd = fd;
    }
    waited_at = ipcom_tmo2_clock();
    settled = !expected.let_expire() && expected.has_list;
    if (!expected.has_list)
        expected.list_devices();
    return count;
}

// Its files make the rules and the lines.
void start(uint16_t first_id, int log_level)
{
    dnsproxy_data = {};
    dnsproxy_data.dnsproxyQueryMax = 4; // records share buckets
    dnsproxy_data.nextNewId = first_id;
    dnsproxy_data.logLevel = log_level;
    static constexpr struct {
        const char *name, *options;
    } rules[] = {{"LAN", "option out_if WAN1"},
                 {"OFFICE", "option out_type polling"},
                 {"GUEST", "option force_if on\n option out_if WAN1"},
                 {"PPPOES", "option name dnsproxy_pppoes"},
                 {"PPPOES", "list force_if off\n list force_if on\n option out_if VPN"},
                 {"FAR", "option force_if on\n option out_if WAN3"},
                 {"loopback", ""},
                 {"GUEST", ""}};
    // Where the configuration store finds it, whichever library it is.
    [[maybe_unused]] static const bool written = [] {
        std::ofstream file("/etc/config/dns");
        for (const auto &r : rules)
            file << std::string("config rule\n option service_if ") + r.name + "\n " + r.options + "\n";
        return true;
    }();
    sys.resolv =
        "#Interface WAN1\nnameserver 1.0.0.0\nnameserver ::1\nnameserver 17.0.0.0\nnameserver ::100\n"
        "#Interface WAN2\nnameserver 2.0.0.0\nnameserver ::2\nnameserver 18.0.0.0\nnameserver ::200\n"
        "#Interface VPN\nnameserver 3.0.0.0\nnameserver ::3\nnameserver 19.0.0.0\nnameserver ::300\n"
        "#Interface loopback\nnameserver 9.9.9.9\n"
        "#Interface WAN2\nnameserver 8.8.8.8\nnameserver ::2\nnameserver ::200\n"
        "#Interface WAN3\nnameserver 8.8.8.8\n"; // not read: there are two of one name
    for (uint8_t number = 1; number <= 3; number++) {
        dnsproxy_server_if line = {};
        strcpy(line.ifname, number == 1 ? "wan1" : number == 2 ? "wan2" : "pt-vpn0");
        line.dnsServer[0] = number;
        line.dnsServer[1] = number + 16;
        line.dnsServer6[0].sin6_addr.s6_addr[15] = line.dnsServer6[1].sin6_addr.s6_addr[14] = number;
        line.serverFd = line.serverFd6 = -1;
        expected.lines.push_back(line);
    }
    expected.read_online_state();
}

// Time goes on after the loop has been left.
void let_pass(int64_t ms)
{
    fake_clock::advance_ms(ms);
    (void)ipcom_tmo2_select(dnsproxy_data.tmo2Head, 0, nullptr, nullptr, nullptr, nullptr);
    settle();
}

// When nobody asks any more, all that queries brought goes by itself. Taken down, the daemon leaves no memory
// behind but the loop's message buffer.
void end()
{
    phase = ENDING;
    let_pass(10'000);
    must(expected.records.empty(), "no record outlives its time");
    let_pass(60'000);
    must(descriptors.empty() && timers.empty(), "no upstream socket outlives its use");
    let_pass(1'000'000);
    for (const auto &line : expected.lines)
        must(dnsproxy_server_if_destroy(line.ifname) == 0, "a line can be deleted");
    while (const auto *rule = ipcom_first<dnsproxy_listen_if>(dnsproxy_data.listenIfList))
        must(dnsproxy_listen_if_destroy(std::string(rule->ifname_receive).c_str()) == 0,
             "a rule can be deleted");
    __wrap_if_freenameindex(dnsproxy_data.ifNameIndex);
    dnsproxy_cleanup();
    must(sys.pipes == 0, "the request pipe goes with its daemon");
    must(sys.blocks.size() == 1 && sys.blocks.begin()->second == sizeof(dnsproxy_public_msg),
         "all memory comes back");
    __wrap_free(sys.blocks.begin()->first);
}

} // namespace

void live(uint16_t first_id, int log_level, const std::function<bool()> &events)
{
    const fake_clock clock;
    for (const char *name :
         {"lo", "wan1", "wan2", "wan3", "pt-vpn0", "br-lan", "br-guest", "office", "ppp0", "far", "eth9"})
        sys.devices.push_back({name, static_cast<int>(sys.devices.size() + 1), true});
    sys.wait = wait;
    sys.received = received;
    start(first_id, log_level);
    expected.next_id = first_id;
    expected.list_devices();
    script = &events;
    phase = RUNNING;
    waiting_before = 0;
    if (setjmp(end_of_loop) == 0) {
        (void)dnsproxy_start();
        must(false, "the daemon starts");
    }
    end();
    sys = {};
    expected = {};
    timers = {};
    descriptors = {};
}

void ask(const peer &host, const std::string &device, const std::string &bytes, arrival told)
{
    const auto *d = sys.find_device(device);
    sys.files.at(host.v6 ? dnsproxy_data.listenFd6 : dnsproxy_data.listenFd)
        .waiting.push_back({bytes, host, d == nullptr ? 9999 : d->index, told});
}

void answer(bool v6, const std::string &line, const std::string &bytes, arrival told)
{
    dnsproxy_server_if *sif = expected.find_line(line);
    if (sif != nullptr && fd_of(*sif, v6) > 0)
        sys.files.at(fd_of(*sif, v6)).waiting.push_back({.bytes = bytes, .from = {.v6 = v6}, .told = told});
}

uint16_t identifier(bool v6, unsigned choice)
{
    const std::vector<record> records = expected.of_family(v6);
    choice %= static_cast<unsigned>(records.size() + 1);
    return choice < records.size() ? records[choice].new_id : static_cast<uint16_t>(expected.next_id + 7);
}

void set_next_identifier(uint16_t id)
{
    expected.next_id = dnsproxy_data.nextNewId = id;
}

void request(const std::string &bytes)
{
    for (auto &[fd, file] : sys.files) {
        if (file.kind == open_file::REQUEST_PIPE)
            file.waiting.push_back({.bytes = bytes});
    }
}

void netlink(const std::string &batch)
{
    sys.files.at(dnsproxy_data.intfFd).waiting.push_back({.bytes = batch});
}

void set_link(const char *line, bool up)
{
    const uint64_t is_down = up ? 0 : 1;
    must((dnsproxy_server_if_state_up(line, &is_down) == 0) == expected.set_link(line, !up),
         "known lines have a state");
}

void toggle_device(size_t number)
{
    device &d = sys.devices[number % sys.devices.size()];
    d.present = !d.present;
    if (d.present)
        d.index += static_cast<int>(sys.devices.size());
    nlmsghdr said = {};
    said.nlmsg_len = sizeof said;
    said.nlmsg_type = d.present ? RTM_NEWLINK : RTM_DELLINK;
    netlink({reinterpret_cast<const char *>(&said), sizeof said});
}
