"""Upstream sockets close a minute after the last query through them, which also heals a dead one."""

import time

from lab import dns, files, plan, wait

IDLE_TIME = 60.0  # seconds

RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "VPN"},
]


def test_a_minute_without_queries(lab, start, upstreams, departures, client):
    daemon = start(RULES, files.resolv_of_lines(1, 2, 9))
    hosts = {family: client("h1", family) for family in (4, 6)}
    guest = client("g1", 4)

    def open_upstream() -> int:
        return sum(sock.port != 53 for family in (4, 6) for sock in daemon.udp_sockets(family))

    def devices_used(queries: int) -> list[list[str]]:
        """The devices of so many queries in turn over each family, of which some may be lost."""
        devices = []
        for host in hosts.values():
            departures.clear()
            for _ in range(queries):
                host.send(dns.query(host.fresh_ident(0)))
                daemon.settle()
            devices.append([p.device for p in departures.catch_up()][::2])
        return devices

    turns = ["wan1", "wan2", "pt-vpn0"]
    assert devices_used(3) == [turns, turns]
    descriptors = len(daemon.fds())
    assert open_upstream() == 6, "one per line and family"

    # On the free road a failed send closes nothing: the line stays dead, and the others do its work.
    lab.line_delete(1)
    lab.line_create(1)
    last_query = time.monotonic()
    assert devices_used(6) == [turns[1:] * 2, turns[1:] * 2]
    assert open_upstream() == 6

    # The guest keeps one socket in use.
    def only_the_guests_is_left() -> bool:
        assert guest.ask() is not None
        time.sleep(1)
        return open_upstream() <= 1

    wait.until(only_the_guests_is_left, "the other sockets to close", timeout=IDLE_TIME + 30)
    assert time.monotonic() - last_query >= IDLE_TIME
    assert open_upstream() == 1
    assert len(daemon.fds()) == descriptors - 5

    assert sorted(devices_used(3)[0]) == sorted(turns)
    assert sorted(devices_used(3)[1]) == sorted(turns)
    assert open_upstream() == 6
    assert [host.ask() is not None for host in hosts.values()] == [True, True]
    assert plan.LINES[1].servers4[0].address in {
        query.server.address for query in upstreams[1].queries
    }
