// A life of the whole daemon in its own loop over the fake system, beside the model. Before every wait of the
// loop, and before every datagram that the loop takes, what the daemon has done is compared with the model,
// and what must hold of its tables at any time is checked; a law that does not hold ends the program.
//
// The router: hosts on br-lan (free), office (free, all lines at once), br-guest (forced out by wan1), far
// (forced out by wan3, a line that is not there at first), lo (free), and ppp0, which stands for br-pppoe
// (forced out by pt-vpn0); eth9 is not served. Lines wan1, wan2 and pt-vpn0.
#ifndef TESTS_MODEL_LIFE_H
#define TESTS_MODEL_LIFE_H

#include <cstdint>
#include <functional>
#include <string>

#include "tests/model/fake_clock.h"
#include "tests/model/fake_system.h"

// From the daemon's start until the last of its timers and the return of its memory. `events` is called
// before every wait and brings about what happens until the next one, by the functions below, fake_clock and
// sys; false: nothing more happens. What waits then is still served.
void live(uint16_t first_id, int log_level, const std::function<bool()> &events);

// A query of a host that comes in on a device.
void ask(const peer &host, const std::string &device, const std::string &bytes, arrival told = arrival::told);

// A datagram that comes in at a line's upstream socket, if that is open.
void answer(bool v6, const std::string &line, const std::string &bytes, arrival told = arrival::told);

// The identifier that one of the family's queries in flight was sent on under, or another one.
uint16_t identifier(bool v6, unsigned choice);

// So many queries were asked and forgotten meanwhile that the counter stands here.
void set_next_identifier(uint16_t id);

// What comes in at the request pipe and at the netlink socket.
void request(const std::string &bytes);
void netlink(const std::string &batch);

// The bus reports a link.
void set_link(const char *line, bool up);

// A device goes or comes back, and the kernel says so.
void toggle_device(size_t number);

#endif
