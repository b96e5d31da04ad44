"""The forced road: a forced LAN's query leaves by its own line or not at all, to the server that answers."""

import contextlib
import subprocess
import time
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import AbstractContextManager
from typing import NamedTuple

import programs
import pytest

from lab import dns, files, plan, wait
from lab.client import Client
from lab.router import Lab
from lab.upstream import Policy, Upstream, answer, repeated, silent

LAN = {"name": "lan", "service_if": "LAN"}
GUEST = {"name": "guest", "service_if": "GUEST", "force_if": "on"}
RULES = [LAN, GUEST | {"out_if": "WAN2"}]

RECORD_LIFE = 10.0  # seconds that the daemon remembers a query


@contextlib.contextmanager
def nothing_wrong(_lab: Lab) -> Iterator[None]:
    yield


@contextlib.contextmanager
def device_down(lab: Lab) -> Iterator[None]:
    lab.line_set(2, up=False)
    try:
        yield
    finally:
        lab.line_set(2, up=True)


@contextlib.contextmanager
def device_deleted(lab: Lab) -> Iterator[None]:
    lab.line_delete(2)
    try:
        yield
    finally:
        lab.line_create(2)


class Case(NamedTuple):
    """A guest LAN forced to `out_if`, and what may be wrong. Its queries leave by WAN2 or not at all."""

    name: str
    out_if: str | None = "WAN2"
    section: tuple[str, ...] | None = plan.LINES[
        2
    ].addresses  # servers of `out_if`; None: no section
    trouble: Callable[[Lab], AbstractContextManager] = nothing_wrong
    socket_open: bool = False  # when the trouble begins
    servers: Policy = answer
    leaves: bool = False


CASES = [
    Case("nothing wrong", leaves=True),
    Case("servers silent", servers=silent, leaves=True),
    Case("device down", trouble=device_down),
    Case("device down with an open socket", trouble=device_down, socket_open=True),
    Case("device deleted", trouble=device_deleted),
    Case("device deleted with an open socket", trouble=device_deleted, socket_open=True),
    Case("not in the resolver file", section=None),
    Case("no server", section=()),
    Case("no out_if", out_if=None, section=None),
    Case("no such interface", out_if="NOWHERE", section=None),
    Case("no such device", out_if="IPTV"),
    Case("empty device name", out_if="NAMELESS"),
]


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_forced_queries_leave_by_no_other_line(lab, start, upstreams, departures, client, case):
    files.write_zone_api(plan.LOGICAL | {"NAMELESS": ""})
    rule = GUEST if case.out_if is None else GUEST | {"out_if": case.out_if}
    lines = files.resolv_of_lines(1, 3)
    if case.section is not None:
        lines[case.out_if] = case.section
    daemon = start([LAN, rule], lines)
    guests = {family: client("g1", family) for family in (4, 6)}
    hosts = {family: client("h1", family) for family in (4, 6)}
    if case.socket_open:
        for guest in guests.values():
            assert guest.ask() is not None

    with case.trouble(lab):
        departures.clear()
        upstreams[2].answer_with(case.servers)
        ports = {family: guest.open() for family, guest in guests.items()}
        for family, guest in guests.items():
            for ident in range(3):
                guest.send(dns.query(ident, "guest.test"), ports[family])
        daemon.settle()
        replies_due = 3 if case.leaves and case.servers is answer else 0
        for family, guest in guests.items():
            for _ in range(replies_due):
                assert guest.receive(ports[family]) is not None
        for family, host in hosts.items():
            # One of three lines may be the broken one.
            port = host.open()
            for ident in range(3):
                host.send(dns.query(ident, "lan.test"), port)
            assert host.receive(port) is not None, f"IPv{family}: other lines must go on serving"
        daemon.settle()

    left = Counter(
        (p.device, p.destination) for p in departures.catch_up() if b"guest" in p.message
    )
    first_servers = (plan.LINES[2].servers4[0], plan.LINES[2].servers6[0])
    assert left == (
        {("wan2", server.address): 3 for server in first_servers} if case.leaves else {}
    )
    for family, guest in guests.items():
        assert guest.waiting(ports[family]) == []


def test_every_reply_is_relayed_while_the_latest_query_is_forced(start, upstreams, client, family):
    start(RULES, files.resolv_of_lines(1, 2))
    upstreams[2].answer_with(repeated(3))
    guest = client("g1", family)
    port = guest.send(dns.query(7))
    replies = [guest.receive(port) for _ in range(3)]
    assert None not in replies
    assert [dns.ident(reply) for reply in replies] == [7, 7, 7]


@pytest.mark.parametrize("between", (4, 6), ids=("by IPv4", "by IPv6"))
def test_a_free_query_in_between_costs_the_forced_one_its_reply(
    start, upstreams, arrivals, client, family, between
):
    daemon = start(RULES, files.resolv_of_lines(1, 2))
    guest, host = client("g1", family), client("h1", between)
    upstreams[2].answer_with(silent)
    port = guest.send(dns.query(7))
    (query,) = upstreams[2].wait_for(1)
    assert host.ask() is not None, "the first line is not the silent one"

    before = arrivals.counts["wan2"]
    upstreams[2].answer_now(query)
    wait.until(lambda: arrivals.counts["wan2"] > before, "the late reply")
    daemon.settle()
    assert guest.waiting(port) == []

    upstreams[2].answer_with(answer)
    assert guest.ask() is not None, "the next query has the latest word"


def test_a_forced_query_in_between_costs_the_free_one_nothing(start, upstreams, client, family):
    start(RULES, files.resolv_of_lines(1, 2))
    guest, host = client("g1", family), client("h1", family)
    upstreams[1].answer_with(silent)
    port = host.send(dns.query(7))
    query, _ = upstreams[1].wait_for(2)
    assert guest.ask() is not None
    upstreams[1].answer_now(query)
    assert dns.ident(host.receive(port)) == 7


def server_reached(upstream: Upstream, host: Client, payload: bytes, port: int) -> int:
    """Sends a query; the slot of the server that it arrives at."""
    before = upstream.count
    host.send(payload, port)
    return upstream.wait_for(before + 1)[before].server.slot


# Three stages, ten seconds apart, of what each LAN asks: family, whether a server answers, and the server
# that the query is to reach. A record's expiry moves the line's index off a server that did not answer and
# pins it to one that did, for both families alike; the last expiry has the last word.
YES, NO = "answered", "silent"
STAGES = {
    # LAN and line
    ("h1", 1): (
        [(4, NO, 0)],
        [(4, NO, 1), (6, NO, 1)],  # unanswered: on to the next
        [(4, NO, 0), (6, NO, 0)],  # and back to the first, once for the two expiries
    ),
    ("g1", 2): (
        [(6, NO, 0)],
        [(4, NO, 1), (6, YES, 1)],  # an IPv6 query moves it for IPv4
        [(4, NO, 1), (6, NO, 1)],  # and an answered one pins it
    ),
    ("p1", 3): (
        [(4, NO, 0), (6, YES, 0)],
        [(4, YES, 0), (6, NO, 0)],  # pinned by the other family
        [(4, NO, 1), (6, NO, 1)],  # the later, unanswered one decides
    ),
    (None, 9): (
        [(4, YES, 0), (6, NO, 0)],
        [(4, NO, 0), (6, NO, 1)],  # IPv4 has only the first server, wherever the index stands
        [(4, NO, 0), (6, NO, 0)],
    ),
}


def test_lines_learn_which_server_answers(start, upstreams, client):
    def by_name(query):
        return () if NO.encode() in query.data else answer(query)

    for upstream in upstreams.values():
        upstream.answer_with(by_name)
    files.write_zone_api(plan.LOGICAL | {"PPP": "ppp0"})
    lans = {"LAN": "WAN1", "GUEST": "WAN2", "PPP": "WAN3", "loopback": "VPN"}
    rules = [
        {"name": lan, "service_if": lan, "force_if": "on", "out_if": out_if}
        for lan, out_if in lans.items()
    ]
    lines = files.resolv_of_lines(1, 2, 3, 9)
    lines["VPN"].remove(plan.LINES[9].servers4[1].address)
    start([{"name": "dnsproxy_pppoes", "service_if": "PPP"}, *rules], lines)
    hosts = {(name, family): client(name, family) for name, _ in STAGES for family in (4, 6)}

    for stage in range(3):
        for (name, line), stages in STAGES.items():
            for family, kind, slot in stages[stage]:
                host = hosts[name, family]
                port = host.open()
                payload = dns.query(host.fresh_ident(port), f"{kind}.test")
                reached = server_reached(upstreams[line], host, payload, port)
                assert reached == slot, f"stage {stage}: {name} over IPv{family} by line {line}"
                if kind == YES:
                    assert host.receive(port) is not None
        if stage < 2:
            # The last query of the stage was not answered: its expiry, the last of all, moves its line on.
            # Until then it is the same query when it is repeated, and goes to the same server.
            time.sleep(RECORD_LIFE)
            wait.until(
                lambda: server_reached(upstreams[line], host, payload, port) != slot,
                f"the expiry of {name}'s query over IPv{family}",
                timeout=30,
            )


def test_forced_network_keeps_to_a_dead_first_server(start, upstreams, client):
    """Two forced networks whose line's first server is dead. Guests share their line with a free network,
    whose answered query carries the first slot. A query of the router reaches the second server when it is
    repeated, and carries the first slot all the same. Both pin the dead server again.
    """
    router = {"name": "router", "service_if": "loopback", "force_if": "on", "out_if": "WAN3"}
    start([*RULES, router], files.resolv_of_lines(2, 3, ipv6=False))
    for line in (2, 3):
        upstreams[line].answer_with(silent, plan.LINES[line].servers4[0].address)
    lines = {"guest": (client("g1"), upstreams[2]), "router": (client(None), upstreams[3])}

    def ask(network: str) -> Callable[[], int]:
        """A new query; each call sends it again and gives the slot that it reaches."""
        host, upstream = lines[network]
        port = host.open()
        payload = dns.query(host.fresh_ident(port))
        return lambda: server_reached(upstream, host, payload, port)

    assert ask("guest")() == 0
    assert client("h1").ask() is not None
    assert ask("router")() == 0
    time.sleep(RECORD_LIFE / 2)
    retried = ask("router")
    assert retried() == 0
    time.sleep(RECORD_LIFE / 2)
    wait.until(lambda: retried() == 1, "the expiry of the router's first query", timeout=30)

    assert ask("guest")() == 0, "pinned by the free query"
    program = programs.path("tools/dnsproxyctl")
    subprocess.run([program, "set", "WAN2", plan.LINES[2].servers4[1].address], check=True, timeout=30)
    assert lines["guest"][0].ask() is not None, "the dead server was taken out"

    later = ask("router")
    assert later() == 1
    wait.until(lambda: later() == 0, "the expiry of the query that was repeated", timeout=30)
