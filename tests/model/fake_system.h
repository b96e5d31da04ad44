// The system under the daemon, for fuzz targets: devices, sockets, pipes, files and memory that live in this
// process and fail when they are told to. The daemon's code is linked with --wrap for what it calls
// (fake_system.cc has the list); its named pipes and the event report are replaced as a whole. No call here
// waits, and nothing is drawn: the same calls have the same results.
#ifndef TESTS_MODEL_FAKE_SYSTEM_H
#define TESTS_MODEL_FAKE_SYSTEM_H

#include <array>
#include <cstdint>
#include <deque>
#include <dnsproxy/client.h>
#include <map>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/epoll.h>
#include <vector>

// Says which law does not hold, also at `broken_law` where that is set, and ends the program.
void must(bool holds, const char *law);
extern char *broken_law; // room for 200 bytes

// Counts what a life met by its name, so that nobody takes for tested what never happened.
void met(const char *what);
uint64_t times_met(const char *what);

// Calls that failed.
constexpr char fault_socket[] = "no socket", fault_number[] = "descriptor too high",
               fault_dead[] = "send on a dead socket", fault_upstream[] = "send to a server failed",
               fault_host[] = "send to a host failed", fault_memory[] = "no memory",
               fault_pipe[] = "reply pipe full", fault_slow[] = "slow machine";

struct device {
    std::string name;
    int index; // another one each time that the device comes back
    bool present;
};

// The other side of a datagram.
struct peer {
    bool v6 = false;
    std::array<char, 16> address = {}; // the first four of IPv4
    uint16_t port = 0;                 // network order
    bool operator==(const peer &) const = default;
    [[nodiscard]] bool is_odd() const { return ((address[3] + address[15]) & 1) != 0; }
};

// How the control message names the device; `damaged`: the kernel finds its checksum wrong when it is taken.
enum class arrival { told, not_told, told_otherwise, damaged };

struct datagram {
    std::string bytes;
    peer from = {};
    int ifindex = 0;
    arrival told = arrival::told;
};

struct open_file {
    enum { SOCKET, REQUEST_PIPE, REPLY_PIPE, EPOLL, ALARM } kind = SOCKET;
    int family = 0;
    std::string device = {}; // that the socket is tied to; "": none
    int ifindex = 0;         // of that device when it was tied
    std::deque<datagram> waiting = {};
    std::deque<datagram> read = {}; // by the daemon, ahead of their turn
    int served = 0;                 // datagrams since the last wait
};

// A datagram that the daemon handed to a socket.
struct sending {
    std::string device; // of the socket
    peer to;
    std::string bytes;
    bool sent;
    bool operator==(const sending &) const = default;
};

struct system_faults {
    bool no_descriptors;       // socket() fails
    bool high_descriptors;     // socket() gives numbers that do not fit into an fd_set
    bool upstream_unreachable; // tied sockets cannot send
    bool hosts_unreachable;    // other sockets cannot send to odd addresses
    bool no_memory;
    bool full_pipe; // a reply pipe takes nothing
    bool slow;      // a datagram takes 2 ms
};

struct fake_system {
    std::vector<device> devices;
    std::map<int, open_file> files; // by descriptor
    std::set<int> watched;          // by epoll, beside the alarm
    int64_t alarm_at = INT64_MAX;   // when it goes off, by the clock of the timers
    bool alarm_was_set = false;     // since the wait before
    int64_t alarm_before = 0;       // when it would have gone off else
    std::vector<sending> sendings;
    std::vector<std::string> pipe_replies; // blocks written to the reply pipe by this step
    std::string online_state;              // text of the link-state file; empty: no file
    std::string resolv;                    // of the resolver file
    std::string output;                    // behind the command that runs; one at a time does
    int reports = 0;                       // events reported
    int pipes = 0;                         // request pipes made and not deleted
    bool dumps = false;                    // whether there is memory for the text of a dump
    system_faults faults = {};
    int allocations_left = -1; // until one fails; negative: none does
    bool allocation_failed = false;
    std::map<void *, size_t> blocks; // memory that the daemon holds

    // Called by epoll_wait: fills in what is ready and gives the number, and for every datagram whose turn
    // comes.
    int (*wait)(epoll_event *ready, int limit_ms) = nullptr;
    void (*received)(int fd, const datagram &d) = nullptr;
    // Where it is set, called behind every send.
    void (*sent)(const sending &s) = nullptr;

    [[nodiscard]] const device *find_device(const std::string &name) const;
    [[nodiscard]] const device *find_device(int index) const; // nullptr also for one that is not present
    [[nodiscard]] size_t waiting() const;                     // datagrams at all files, and those read
    [[nodiscard]] bool read_ahead() const;                    // whether datagrams are
};

extern fake_system sys;
extern const char reply_pipe[]; // the one that can be opened

// The device that the zone functions know by a logical name, or no_device.
std::string device_of(const std::string &logical);
constexpr char no_device[] = "?";

#endif
