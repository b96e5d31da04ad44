#include "tests/model/model.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sstream>
#include <tuple>

#include "core/dnsproxy_data.h"
#include "core/status.h"

namespace {

constexpr size_t message_max = 1600;
constexpr uint16_t dns_port = 0x3500; // 53 in network order

// What the rule file says. A device of the PPPoE server stands for br-pppoe.
constexpr struct {
    const char *device;
    const char *forced_to; // nullptr: free
    bool polling;
} rules[] = {{"br-lan", nullptr, false},     {"office", nullptr, true}, {"br-guest", "wan1", false},
             {"br-pppoe", "pt-vpn0", false}, {"far", "wan3", false},    {"lo", nullptr, false}};

int64_t now()
{
    return ipcom_tmo2_clock();
}

peer server_of(const dnsproxy_server_if &line, bool v6, int slot)
{
    return v6 ? peer_at(line.dnsServer6[slot].sin6_addr, dns_port)
              : peer_at(static_cast<uint32_t>(line.dnsServer[slot]), dns_port);
}

bool has_server(const dnsproxy_server_if &line, bool v6, int slot)
{
    return v6 ? !IN6_IS_ADDR_UNSPECIFIED(&line.dnsServer6[slot].sin6_addr) : line.dnsServer[slot] != 0;
}

// A socket whose device has gone, or has come back as another one, stays dead.
bool is_dead(const dnsproxy_server_if &line, bool v6)
{
    const int fd = v6 ? line.serverFd6 : line.serverFd;
    return fd > 0 && sys.find_device(sys.files.at(fd).ifindex) == nullptr;
}

// Opens the upstream socket where it is not open; using it starts its idle time anew.
bool use_socket(dnsproxy_server_if *line, bool v6)
{
    if (fd_of(*line, v6) < 0) {
        if (sys.faults.no_descriptors || sys.faults.high_descriptors ||
            sys.find_device(std::string(line->ifname)) == nullptr)
            return false;
        fd_of(*line, v6) = 0;
    }
    timer_of(*line, v6).deadline = now() + socket_life_ns;
    return true;
}

// The device that a query came in on. IPv4 goes by the daemon's own list, IPv6 by the kernel's.
std::string arrival_device(const datagram &d, const std::vector<device> &known_to_daemon)
{
    const int index = d.told == arrival::told ? d.ifindex : 0;
    const device *known = sys.find_device(index);
    if (d.from.v6)
        return known == nullptr ? "" : known->name;
    for (const device &each : known_to_daemon) {
        if (each.index == index)
            return each.name.starts_with("ppp") ? "br-pppoe" : each.name;
    }
    return "";
}

} // namespace

uint16_t id_of(const std::string &bytes)
{
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[0]) << 8 | static_cast<uint8_t>(bytes[1]));
}

std::string with_id(std::string bytes, uint16_t id)
{
    bytes[0] = static_cast<char>(id >> 8);
    bytes[1] = static_cast<char>(id);
    return bytes;
}

// djb2 over low and high byte.
size_t mark_of(uint16_t id)
{
    return ((5381U * 33 + (id & 0xffU)) * 33 + (id >> 8)) % 1024;
}

dnsproxy_server_if *model::find_line(const std::string &name)
{
    const auto line =
        std::find_if(lines.begin(), lines.end(), [&](const auto &each) { return each.ifname == name; });
    return line == lines.end() ? nullptr : &*line;
}

record *model::newest(bool v6, const auto &fits)
{
    const auto r = std::find_if(records.rbegin(), records.rend(),
                                [&](const record &each) { return each.v6 == v6 && fits(each); });
    return r == records.rend() ? nullptr : &*r;
}

std::vector<record> model::of_family(bool v6) const
{
    std::vector<record> some = records;
    std::erase_if(some, [&](const record &r) { return r.v6 != v6; });
    return some;
}

struct model::question {
    bool v6; // of the servers that it goes to
    asker who;
    std::string bytes;
    uint16_t new_id = 0;
    bool identified = false, recorded = false;
};

void model::query(const datagram &d)
{
    const std::string name = arrival_device(d, devices);
    const auto *rule =
        std::find_if(std::begin(rules), std::end(rules), [&](const auto &r) { return r.device == name; });
    if (rule == std::end(rules) || d.bytes.size() < 2)
        return;
    question q = {.v6 = d.from.v6, .who = {d.from, id_of(d.bytes)}, .bytes = d.bytes.substr(0, message_max)};
    latest_was_forced = rule->forced_to != nullptr;
    if (latest_was_forced)
        return go_forced(q, rule->forced_to);
    go_free(q, rule->polling);
    if (!q.v6 && name == "lo") { // the router itself: both families
        q.v6 = true;
        go_free(q, rule->polling);
    }
}

// One server of one line. The identifier is taken even when the socket then fails.
void model::go_forced(question q, const char *out_ifname)
{
    forced_line = out_ifname;
    dnsproxy_server_if *line = find_line(out_ifname);
    if (line == nullptr)
        return met("forced query without its line");
    int slot = line->dnsIndex;
    if (!has_server(*line, q.v6, slot) && !has_server(*line, q.v6, slot = 1 - slot))
        return;
    identify(&q);
    line->useCount++;
    if (!use_socket(line, q.v6))
        return;
    if (send(q, *line, slot))
        remember(&q, *line, slot);
    else if (is_dead(*line, q.v6)) {
        met("socket closed as dead");
        fd_of(*line, q.v6) = -1;
    }
}

// Both servers of the first line that can be used, which is the last one afterwards; or all of all lines. A
// failure ends it, and that line is the last one too.
void model::go_free(question q, bool polling)
{
    if (all_down)
        met("all lines down");
    polling = polling || (!q.v6 && all_down);
    for (size_t i = 0; i < lines.size(); i++) {
        dnsproxy_server_if &line = lines[i];
        if (!q.v6 && !polling && line.is_down != 0)
            continue;
        bool used = false, failed = false;
        for (int slot = 0; slot < DNSPROXY_SERVER_SLOTS && !failed; slot++) {
            if (!has_server(line, q.v6, slot))
                continue;
            failed = !use_socket(&line, q.v6);
            if (failed)
                break;
            identify(&q);
            failed = !send(q, line, slot);
            if (!failed) {
                marks.set(mark_of(q.new_id));
                remember(&q, line, slot);
            }
            used = true;
        }
        if (failed || (used && !polling)) {
            const auto at = lines.begin() + static_cast<ptrdiff_t>(i);
            std::rotate(at, at + 1, lines.end());
            return;
        }
    }
}

// A repeated query keeps its identifier as long as its record lives, any other gets the next one.
void model::identify(question *q)
{
    if (q->identified)
        return;
    const record *in_flight = newest(q->v6, [&](const record &r) { return r.who == q->who; });
    q->identified = true;
    q->recorded = in_flight != nullptr;
    q->new_id = q->recorded ? in_flight->new_id : next_id++;
    q->bytes = with_id(q->bytes, q->new_id);
}

bool model::send(const question &q, const dnsproxy_server_if &line, int slot)
{
    const bool sent = !is_dead(line, q.v6) && !sys.faults.upstream_unreachable;
    sendings.push_back({line.ifname, server_of(line, q.v6, slot), q.bytes, sent});
    return sent;
}

void model::remember(question *q, const dnsproxy_server_if &line, int slot)
{
    if (!q->recorded)
        records.push_back({q->v6, q->who, q->new_id, line.ifname, slot, now() + record_life_ns, false});
    q->recorded = true;
}

// A reply belongs to the newest query under its identifier. It is relayed when the latest query was a forced
// one, or when the identifier has its mark, which is good for one relay.
bool model::reply(const datagram &d, bool v6)
{
    if (d.bytes.size() < 3 || (d.bytes[2] & 0x80) == 0)
        return false;
    const uint16_t id = id_of(d.bytes);
    record *r = newest(v6, [&](const record &each) { return each.new_id == id; });
    if (r == nullptr)
        return false;
    if (latest_was_forced || marks[mark_of(id)]) {
        const bool sent = !sys.faults.hosts_unreachable || !r->who.host.is_odd();
        sendings.push_back({"", r->who.host, with_id(d.bytes.substr(0, message_max), r->who.id), sent});
        if (!sent)
            return false;
        marks.reset(mark_of(id));
        met("answer relayed");
    } else
        met("answer not relayed");
    r->answered = true;
    silent = 0;
    report_armed = true;
    return true;
}

// Each record that is due teaches its line: answered, the slot is kept; unanswered, an index that stands on
// it moves to the other server or back to the first slot. Then the sockets that nobody used are closed.
bool model::let_expire()
{
    bool due = false;
    while (!records.empty() && records.front().deadline <= now()) {
        due = true;
        const record r = records.front();
        records.erase(records.begin());
        met(r.answered ? "record expired answered" : "record expired unanswered");
        if (dnsproxy_server_if *line = find_line(r.line); line != nullptr) {
            if (r.answered)
                line->dnsIndex = r.slot;
            else if (line->dnsIndex == r.slot)
                line->dnsIndex = r.slot == 0 && has_server(*line, r.v6, 1) ? 1 : 0;
        }
        if (++silent >= 10 && report_armed) {
            met("silence reported");
            reports++;
            report_armed = false;
        }
        silent %= 10;
    }
    for (auto &line : lines) {
        for (const bool v6 : {false, true}) {
            if (fd_of(line, v6) >= 0 && timer_of(line, v6).deadline <= now()) {
                met("socket idle");
                fd_of(line, v6) = -1;
                due = true;
            }
        }
    }
    return due;
}

bool model::set_link(const std::string &line, bool down)
{
    dnsproxy_server_if *known = find_line(line);
    if (known == nullptr)
        return false;
    known->is_down = down ? 1 : 0;
    all_down = std::all_of(lines.begin(), lines.end(), [](const auto &each) { return each.is_down != 0; });
    return true;
}

void model::read_online_state()
{
    std::istringstream file(sys.online_state);
    for (std::string line; std::getline(file, line);) {
        const size_t separator = line.find('=');
        if (separator != 0 && separator != std::string::npos)
            (void)set_link(line.substr(0, separator), line.substr(separator + 1).starts_with("off"));
    }
}

void model::list_devices()
{
    has_list = !sys.faults.no_memory;
    devices = sys.devices;
    std::erase_if(devices, [this](const device &d) { return !d.present || !has_list; });
}

// The kernel's own macros say what a batch holds.
void model::netlink(std::string batch)
{
    batch.resize(std::min(batch.size(), size_t{4096})); // of one receive
    auto left = static_cast<unsigned>(batch.size());
    for (auto *m = reinterpret_cast<nlmsghdr *>(batch.data()); NLMSG_OK(m, left); m = NLMSG_NEXT(m, left)) {
        if (m->nlmsg_type == RTM_NEWLINK || m->nlmsg_type == RTM_DELLINK) {
            return list_devices();
        }
        if (NLMSG_ALIGN(m->nlmsg_len) > left)
            return; // the macros would count below zero
    }
}

// A message of the right length is carried out, and answered where its pipe can be opened; lines that are
// gone have no sockets.
void model::request(const std::string &bytes)
{
    dnsproxy_public_msg m;
    if (bytes.size() != sizeof m)
        return;
    memcpy(&m, bytes.data(), sizeof m);
    std::string trailing;
    m.result = carry_out(&m, &trailing);
    if (strncmp(m.pipeName, reply_pipe, sizeof m.pipeName) != 0)
        return;
    if (sys.faults.full_pipe)
        return met(fault_pipe);
    pipe_replies.emplace_back(reinterpret_cast<const char *>(&m), sizeof m);
    if (!trailing.empty())
        pipe_replies.push_back(trailing);
}

int model::carry_out(dnsproxy_public_msg *m, std::string *trailing)
{
    const std::string device = device_of({m->ifname, strnlen(m->ifname, sizeof m->ifname)});
    if (device == no_device)
        return DNSPROXY_EINVALID;
    dnsproxy_server_if *line = find_line(device);
    uint32_t op = m->op;
    if (op == DNSPROXY_DNS_SERVER_ADDORSET)
        op = line != nullptr ? DNSPROXY_DNS_SERVER_SET : DNSPROXY_DNS_SERVER_ADD;
    if (line == nullptr &&
        (op == DNSPROXY_DNS_SERVER_GET || op == DNSPROXY_DNS_SERVER_SET || op == DNSPROXY_DNS_SERVER_DEL))
        return DNSPROXY_ENOTFOUND;
    const auto put_entry = [&](const auto &entry) {
        trailing->append(reinterpret_cast<const char *>(&entry), sizeof entry);
        m->count++;
    };
    switch (op) {
    case DNSPROXY_DNS_SERVER_GET:
        m->dnsFlag = m->dns2Flag = 1;
        m->dns = line->dnsServer[0], m->dns2 = line->dnsServer[1];
        m->dns6 = line->dnsServer6[0], m->dns6_2 = line->dnsServer6[1];
        return 0;
    case DNSPROXY_DNS_SERVER_SET:
        for (const auto &[slot, flag, server, server6] :
             {std::tuple(0, m->dnsFlag, m->dns, m->dns6), {1, m->dns2Flag, m->dns2, m->dns6_2}}) {
            if (flag != 0 && m->noV4 != 1 && server != 0)
                line->dnsServer[slot] = server;
            if (flag != 0 && m->noV6 != 1)
                line->dnsServer6[slot] = server6;
        }
        return 0;
    case DNSPROXY_DNS_SERVER_ADD: {
        if (m->dnsFlag == 0 || m->dns2Flag == 0)
            return DNSPROXY_EINVALID;
        if (device != "lo") {
            dnsproxy_server_if added = {};
            strcpy(added.ifname, device.c_str());
            added.serverFd = added.serverFd6 = -1;
            if (m->noV4 != 1)
                added.dnsServer[0] = m->dns, added.dnsServer[1] = m->dns2;
            dnsproxy_server_if *to = line != nullptr ? line : &added;
            if (m->noV6 != 1) {
                to->dnsServer6[0] = m->dns6, to->dnsServer6[1] = m->dns6_2;
                to->serverFd6 = -1;
            }
            if (line != nullptr)
                return DNSPROXY_EEXISTS;
            lines.push_back(added);
        }
        read_online_state();
        return 0;
    }
    case DNSPROXY_DNS_SERVER_DEL:
        lines.erase(lines.begin() + (line - lines.data()));
        return 0;
    case DNSPROXY_DNS_SERVER_GETADDRS:
    case DNSPROXY_DNS_SERVER_GETIFS:
        m->count = 0;
        for (const auto &each : lines) {
            if (op == DNSPROXY_DNS_SERVER_GETADDRS) {
                for (const uint64_t server : each.dnsServer) {
                    if (server != 0)
                        put_entry(server);
                }
            } else if (each.dnsServer[0] != 0 || each.dnsServer[1] != 0) {
                dnsproxy_public_if entry = {
                    .ifname = {}, .dns = each.dnsServer[0], .dns2 = each.dnsServer[1]};
                strcpy(entry.ifname, each.ifname);
                put_entry(entry);
            }
        }
        // Room for every line, whether it has servers or not.
        m->dataLen = lines.size() *
                     (op == DNSPROXY_DNS_SERVER_GETIFS ? sizeof(dnsproxy_public_if) : 2 * sizeof(uint64_t));
        trailing->resize(m->dataLen);
        return 0;
    case DNSPROXY_DNS_SERVER_DELALL:
        std::erase_if(lines, [](const auto &each) { return !std::string(each.ifname).starts_with("pt-"); });
        return 0;
    default:
        return DNSPROXY_EINVALID;
    }
}
