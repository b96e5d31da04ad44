// What the daemon must do, in the plainest form: one list of the queries in flight, one of the lines. Each
// function takes in one thing that happens and leaves behind what must be so and what must be sent.
#ifndef TESTS_MODEL_MODEL_H
#define TESTS_MODEL_MODEL_H

#include <bitset>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "iface/server_if.h"
#include "tests/model/fake_system.h"

constexpr int64_t record_life_ns = 10'000'000'000;
constexpr int64_t lateness_ns = 100'000'000;   // of an expiry while nothing else wakes the daemon
constexpr int64_t alarm_slack_ns = 75'000'000; // by which the alarm may go off too early
constexpr int64_t socket_life_ns = 60'000'000'000;

// Who asked what: what makes a query the same query. One of the router itself that goes on to the IPv6
// servers keeps its IPv4 address.
struct asker {
    peer host;
    uint16_t id;
    bool operator==(const asker &) const = default;
};

// A query in flight.
struct record {
    bool v6; // of the servers
    asker who;
    uint16_t new_id;
    std::string line;
    int slot;
    int64_t deadline;
    bool answered;
    bool operator==(const record &) const = default;
};

struct model {
    std::vector<record> records;           // oldest first
    std::vector<dnsproxy_server_if> lines; // in order; 0 is a socket that opens in this step
    uint16_t next_id = 0;
    bool latest_was_forced = false;
    std::bitset<1024> marks; // whose first reply is to be relayed
    int silent = 0;          // expiries without an accepted reply in between
    int reports = 0;
    bool report_armed = true;
    bool all_down = false;       // at the latest change of a link state
    bool has_list = false;       // of the devices; without memory it is made at the next pass
    std::vector<device> devices; // that it holds: those when the kernel told of a link last

    // Of the step in hand.
    std::vector<sending> sendings;
    std::string forced_line; // "": the query may leave by any line
    std::vector<std::string> pipe_replies;

    void query(const datagram &d);
    bool reply(const datagram &d, bool v6); // false: it is dropped
    bool let_expire();                      // whether anything was due
    void request(const std::string &bytes);
    void netlink(std::string batch);
    void list_devices();
    void read_online_state();
    bool set_link(const std::string &line, bool down); // false: there is no such line

    dnsproxy_server_if *find_line(const std::string &name);
    [[nodiscard]] std::vector<record> of_family(bool v6) const;

private:
    struct question;
    int carry_out(dnsproxy_public_msg *m, std::string *trailing);
    record *newest(bool v6, const auto &fits); // of a family; nullptr: none fits
    void go_forced(question q, const char *out_ifname);
    void go_free(question q, bool polling);
    void identify(question *q);
    bool send(const question &q, const dnsproxy_server_if &line, int slot);
    void remember(question *q, const dnsproxy_server_if &line, int slot);
};

// Addresses in network order.
template <class Address> peer peer_at(const Address &address, uint16_t port)
{
    peer p = {.v6 = sizeof address == sizeof(in6_addr), .port = port};
    memcpy(p.address.data(), &address, sizeof address);
    return p;
}

// The members of a line's record that a family has.
inline int32_t &fd_of(dnsproxy_server_if &line, bool v6)
{
    return v6 ? line.serverFd6 : line.serverFd;
}

inline ipcom_tmo2 &timer_of(dnsproxy_server_if &line, bool v6)
{
    return v6 ? line.serverTmo6 : line.serverTmo;
}

// The identifier of a message, and the message with another one.
uint16_t id_of(const std::string &bytes);
std::string with_id(std::string bytes, uint16_t id);

size_t mark_of(uint16_t id); // its place among the marks

#endif
