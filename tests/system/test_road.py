"""The free road: which servers a query goes to, under which identifier, and what the host gets."""

import threading
from collections import Counter
from typing import NamedTuple

import pytest

from lab import dns, files, plan
from lab.upstream import silent

FIXED = [{"name": "lan", "service_if": "LAN"}]
POLLING = [{"name": "lan", "service_if": "LAN", "out_type": "polling"}]
ALL_IDENTIFIERS = 65536

# Identifiers share a bit of the daemon's pending map 287 apart. Three lines in turn keep queries of at most
# 3 * 64 successive identifiers waiting for the second of their two replies.
OUTSTANDING = 64


class Departure(NamedTuple):
    device: str
    ident: int
    destination: str


def seen(daemon, sniffer) -> list[Departure]:
    """All that has left, once the daemon has nothing more to do."""
    daemon.settle()
    return [Departure(p.device, p.ident, p.destination) for p in sniffer.catch_up()]


def to_all_servers(ident: int, lines, family: int) -> list[Departure]:
    """What one query is to leave as when every server of these lines is asked."""
    return [
        Departure(plan.LINES[number].device, ident, server.address)
        for number in lines
        for server in plan.LINES[number].servers_of(family)
    ]


def test_lines_take_turns(start, upstreams, departures, arrivals, client, family):
    daemon = start(FIXED, files.resolv_of_lines(1, 2, 3))
    host = client("h1", family)
    port = host.open()
    turns = [1, 2, 3, 1]

    for number in turns:
        servers = [server.address for server in plan.LINES[number].servers_of(family)]
        assert host.ask(port=port).answer in servers

    expected = [
        departure
        for ident, number in enumerate(turns, start=1)
        for departure in to_all_servers(ident, [number], family)
    ]
    assert seen(daemon, departures) == expected
    arrivals.wait_for(len(expected))
    daemon.settle()
    assert host.waiting(port) == [], "the second server's replies are not for the host"


def test_polling_asks_every_server_and_relays_the_first_reply(
    start, upstreams, departures, arrivals, client, family
):
    daemon = start(POLLING, files.resolv_of_lines(1, 2, 3))
    for upstream in upstreams.values():
        upstream.answer_with(silent)
    host = client("h1", family)
    port = host.send(dns.query(1))
    expected = to_all_servers(1, [1, 2, 3], family)
    assert seen(daemon, departures) == expected

    asked = [
        (upstreams[number], query)
        for number in (1, 2, 3)
        for query in upstreams[number].wait_for(2)
    ]
    upstream, query = asked.pop()
    upstream.answer_now(query)
    assert dns.parse(host.receive(port)).answer == query.server.address
    for upstream, query in asked:
        upstream.answer_now(query)
    arrivals.wait_for(len(expected))
    daemon.settle()
    assert host.waiting(port) == [], "later replies are not for the host"


def test_only_the_identifier_is_changed(start, upstreams, client, family):
    start(FIXED, {"WAN1": [plan.LINES[1].servers_of(family)[0].address]})
    host = client("h1", family)
    query = b"\xbe\xef\xff\xff" + bytes(range(256))
    port = host.send(query)
    assert host.receive(port) == query, "a server's echo of any bytes, under the host's identifier"
    assert [arrived.data for arrived in upstreams[1].queries] == [b"\0\1" + query[2:]]


def test_a_repeated_query_keeps_its_identifier(start, upstreams, departures, client, family):
    # One server per line: a second one's late reply to a query would do for the repeated query as well.
    servers = {number: plan.LINES[number].servers_of(family)[0] for number in (1, 2)}
    daemon = start(FIXED, {"WAN1": [servers[1].address], "WAN2": [servers[2].address]})
    host, other = client("h1", family), client("h2", family)
    port, another = host.open(), host.open()
    asked = [
        # who, port, own identifier, identifier upstream, line
        (host, port, 7, 1, 1),
        (host, port, 7, 1, 2),
        (host, port, 8, 2, 1),
        (host, another, 7, 3, 2),
        (other, other.open(port), 7, 4, 1),
        (host, port, 7, 1, 2),
    ]
    for who, from_port, ident, _, line in asked:
        assert who.ask(ident=ident, port=from_port).answer == servers[line].address
    expected = [Departure(f"wan{line}", new, servers[line].address) for *_, new, line in asked]
    assert seen(daemon, departures) == expected


def test_every_identifier_in_turn(start, upstreams, departures, arrivals, client):
    count = ALL_IDENTIFIERS + 64
    daemon = start(FIXED, files.resolv_of_lines(1, 2, 3, ipv6=False))
    host = client("h1")

    run = host.bulk(count, outstanding=OUTSTANDING)
    found = (run.answered, run.lost, run.duplicates, run.wrong_ident, run.wrong_question)
    assert found == (count, 0, 0, 0, 0)

    packets = departures.wait_for(2 * count)
    for slot in (0, 1):
        address = {line.servers4[slot].address for line in plan.LINES.values()}
        idents = [packet.ident for packet in packets if packet.destination in address]
        expected = [number % ALL_IDENTIFIERS for number in range(1, count + 1)]
        wrong = next(
            (i for i, pair in enumerate(zip(idents, expected)) if pair[0] != pair[1]), None
        )
        assert wrong is None, f"query {wrong}: left as {idents[wrong]}, not as {expected[wrong]}"
        assert len(idents) == count
    arrivals.wait_for(2 * count)
    daemon.settle()
    assert [host.waiting(port) for port in host.ports()] == [[]] * 8, "replies beyond the first"
    assert (departures.lost(), arrivals.lost()) == (0, 0)


def test_both_families_at_once(start, upstreams, departures, client):
    count = 10000
    start(FIXED, files.resolv_of_lines(1, 2, 3))
    hosts = {4: client("h1", 4), 6: client("h2", 6)}
    runs = {}

    def drive(family: int) -> None:
        runs[family] = hosts[family].bulk(count, outstanding=OUTSTANDING // 2)

    threads = [threading.Thread(target=drive, args=(family,)) for family in hosts]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()

    found = {
        f: (r.answered, r.lost, r.duplicates, r.wrong_ident, r.wrong_question)
        for f, r in runs.items()
    }
    assert found == {4: (count, 0, 0, 0, 0), 6: (count, 0, 0, 0, 0)}
    packets = departures.wait_for(4 * count)
    assert Counter(packet.family for packet in packets) == {4: 2 * count, 6: 2 * count}


@pytest.mark.parametrize(
    ("lines", "asked"),
    [
        ({"WAN1": (), "WAN2": (0,)}, [("wan2", 0)]),
        ({"WAN1": (0,), "WAN2": (0, 1)}, [("wan1", 0)]),
        ({"WAN1": (), "WAN2": ()}, []),
        ({}, []),
    ],
    ids=("first line without a server", "one server", "no server", "no line"),
)
def test_lines_without_servers_are_passed_over(
    start, upstreams, departures, client, family, lines, asked
):
    numbers = {"WAN1": 1, "WAN2": 2}
    servers = {name: plan.LINES[number].servers_of(family) for name, number in numbers.items()}
    daemon = start(
        FIXED, {name: [servers[name][i].address for i in slots] for name, slots in lines.items()}
    )
    host = client("h1", family)
    port = host.send(dns.query(1))
    expected = [
        Departure(device, 1, servers[device.upper()][slot].address) for device, slot in asked
    ]
    assert seen(daemon, departures) == expected
    assert (host.receive(port) is not None) if asked else (host.waiting(port) == [])
