"""What is dropped or cut on the road of a query, and that the next query is served all the same."""

import contextlib
from collections.abc import Callable, Iterator
from typing import NamedTuple

import pytest

from lab import dns, files, netns, plan
from lab.upstream import Query, Reply, answer, reply_to, silent

LARGEST = 1600  # bytes of a datagram that get through

LAN = {"name": "lan", "service_if": "LAN"}
FORCED_LAN = LAN | {"force_if": "on", "out_if": "WAN1"}
ROADS = {"free": [LAN], "forced": [FORCED_LAN]}


@pytest.fixture(params=ROADS)
def road(request):
    """Both roads share what they do with datagrams."""
    return request.param


def first_server(line: int, family: int) -> str:
    return plan.LINES[line].servers_of(family)[0].address


@pytest.mark.parametrize("size", (0, 1, 2, 11, 12, LARGEST, LARGEST + 1, 65507))
def test_datagrams_of_hosts(start, upstreams, client, family, road, size):
    daemon = start(ROADS[road], {"WAN1": [first_server(1, family)]})
    host = client("h1", family)
    payload = (b"\xca\xfe" + bytes(i % 251 for i in range(size)))[:size]
    host.send(payload)
    daemon.settle()

    assert host.ask() is not None, "the next query"
    forwarded = [query.data[2:] for query in upstreams[1].queries[:-1]]
    assert forwarded == ([payload[2:LARGEST]] if size >= 2 else [])


def cut(size: int) -> Callable[[Query], bytes]:
    """A reply's first bytes, with the response bit."""

    def make(query: Query) -> bytes:
        reply = reply_to(query)
        return (reply + bytes(i % 251 for i in range(len(reply), size)))[:size]

    return make


class BadReply(NamedTuple):
    """A server's bad reply in front of its good one."""

    name: str
    data: Callable[[Query], bytes]
    relayed: bool
    sender: int = 0  # slot of the server that it comes from; the first was asked


BAD_REPLIES = [
    BadReply("no bytes", cut(0), relayed=False),
    BadReply("1 byte", cut(1), relayed=False),
    BadReply("2 bytes", cut(2), relayed=False),
    BadReply("3 bytes", cut(3), relayed=True),
    BadReply("11 bytes", cut(11), relayed=True),
    BadReply("1600 bytes", cut(1600), relayed=True),
    BadReply("4000 bytes", cut(4000), relayed=True),
    BadReply("65507 bytes", cut(65507), relayed=True),
    BadReply("no response bit", lambda query: query.data, relayed=False),
    BadReply(
        "unknown identifier", lambda q: dns.with_ident(reply_to(q), q.ident ^ 0x8000), relayed=False
    ),
    BadReply("other question", lambda q: reply_to(q).replace(b"where", b"there"), relayed=True),
    BadReply("failure code", lambda q: q.data[:2] + b"\x81\x83" + q.data[4:], relayed=True),
    BadReply("of a server that was not asked", reply_to, relayed=True, sender=1),
]


@pytest.mark.parametrize("bad", BAD_REPLIES, ids=lambda bad: bad.name)
def test_replies_of_servers(start, upstreams, client, family, road, bad):
    servers = plan.LINES[1].servers_of(family)
    daemon = start(ROADS[road], {"WAN1": [servers[0].address]})

    def both(query: Query) -> list[Reply]:
        return [Reply(bad.data(query), sender=servers[bad.sender].address), Reply(reply_to(query))]

    upstreams[1].answer_with(both)
    host = client("h1", family)
    port = host.send(dns.query(7))

    (query,) = upstreams[1].wait_for(1)
    bad_one, good = (
        dns.with_ident(data, 7)[:LARGEST] for data in (bad.data(query), reply_to(query))
    )
    relayable = [bad_one, good] if bad.relayed else [good]
    expected = (
        relayable if road == "forced" else relayable[:1]
    )  # of free replies the first is enough
    assert [host.receive(port) for _ in expected] == expected
    daemon.settle()
    assert host.waiting(port) == []
    upstreams[1].answer_with(answer)
    assert host.ask() is not None, "the next query"


def test_a_reply_in_the_other_family_finds_no_query(start, upstreams, client, family):
    other = 10 - family
    daemon = start([LAN], {"WAN1": [first_server(1, 4), first_server(1, 6)]})
    asking, bystander = client("h1", family), client("h1", other)
    upstreams[1].answer_with(silent, first_server(1, family))
    port = asking.send(dns.query(7))
    (query,) = upstreams[1].wait_for(1)

    # The other family's server knows the identifier, and where to send it, from a query of its own.
    def under_its_identifier(own: Query) -> list[Reply]:
        return [Reply(dns.with_ident(reply_to(own), query.ident)), Reply(reply_to(own))]

    upstreams[1].answer_with(under_its_identifier, first_server(1, other))
    assert bystander.ask() is not None
    daemon.settle()
    assert asking.waiting(port) == []
    upstreams[1].answer_now(query)
    assert asking.receive(port) is not None


def test_a_device_without_a_rule_is_not_served(start, upstreams, departures, client, family):
    daemon = start([LAN], files.resolv_of_lines(1))
    guest, host = client("g1", family), client("h1", family)
    guest.send(dns.query(1, "guest.test"))
    daemon.settle()
    assert host.ask() is not None, "a served LAN's query"
    assert [p for p in departures.catch_up() if b"guest" in p.message] == []


SERVER_RULE = {"name": "dnsproxy_pppoes", "service_if": "PPPOES"}
SERVED_PPPOES = {"name": "pppoe", "service_if": "PPPOES"}
SERVED_PPP0 = {"name": "ppp", "service_if": "PPP0"}


@pytest.mark.parametrize(
    ("rules", "served"),
    [
        pytest.param(
            [SERVER_RULE, SERVED_PPPOES], {4: True, 6: False}, id="stands for the PPPoE server"
        ),
        pytest.param([SERVER_RULE], {4: False, 6: False}, id="of which no rule speaks"),
        pytest.param([SERVED_PPPOES], {4: False, 6: False}, id="no PPPoE server is named"),
        pytest.param([SERVED_PPP0], {4: False, 6: True}, id="by its own name"),
        pytest.param(
            [SERVER_RULE, SERVED_PPP0], {4: False, 6: True}, id="by its own name beside a server"
        ),
        pytest.param(
            [SERVER_RULE | {"service_if": "PPP0"}, SERVED_PPP0],
            {4: True, 6: True},
            id="is the server itself",
        ),
        pytest.param(
            [SERVER_RULE | {"service_if": "NOWHERE"}, SERVED_PPPOES, SERVED_PPP0],
            {4: False, 6: True},
            id="the server has no device",
        ),
    ],
)
def test_ppp_devices(start, upstreams, departures, client, family, rules, served):
    files.write_zone_api(plan.LOGICAL | {"PPP0": plan.PPP})
    daemon = start([LAN, *rules], files.resolv_of_lines(1))
    ppp, host = client("p1", family), client("h1", family)
    port = ppp.send(dns.query(7, "ppp.test"))
    daemon.settle()
    left = [p for p in departures.catch_up() if b"ppp" in p.message]
    assert bool(left) == served[family]
    if served[family]:
        assert ppp.receive(port) is not None
    assert host.ask() is not None, "the next query"


@contextlib.contextmanager
def device_down(lab) -> Iterator[None]:
    lab.line_set(1, up=False)
    try:
        yield
    finally:
        lab.line_set(1, up=True)


@contextlib.contextmanager
def device_deleted(lab) -> Iterator[None]:
    lab.line_delete(1)
    try:
        yield
    finally:
        lab.line_create(1)


@pytest.mark.parametrize("socket_open", (False, True), ids=("socket closed", "socket open"))
@pytest.mark.parametrize(
    "trouble", (device_down, device_deleted), ids=lambda trouble: trouble.__name__
)
def test_a_line_that_fails_costs_its_own_queries_only(
    lab, start, upstreams, departures, client, family, trouble, socket_open
):
    daemon = start([LAN], files.resolv_of_lines(1, 2))
    host = client("h1", family)
    if socket_open:
        for _ in range(2):
            assert host.ask() is not None
    with trouble(lab):
        departures.clear()
        port = host.open()
        for ident in range(6):
            host.send(dns.query(ident), port)
        daemon.settle()
        left = [p.destination for p in departures.catch_up()]
        assert left == [server.address for server in plan.LINES[2].servers_of(family)] * 3
        answered = {dns.ident(host.receive(port)) for _ in range(3)}
        assert answered == {
            1,
            3,
            5,
        }, "the line that failed goes to the end, and is tried again in its turn"


def test_a_host_that_has_gone(lab, start, upstreams, arrivals, client, family):
    daemon = start(
        [LAN, {"name": "guest", "service_if": "GUEST"}], {"WAN1": [first_server(1, family)]}
    )
    upstreams[1].answer_with(silent)
    guest, host = client("g1", family), client("h1", family)
    port = guest.send(dns.query(7))
    (query,) = upstreams[1].wait_for(1)

    # No road leads to the host while its LAN is down: the reply cannot be sent.
    netns.ip_batch([f"link set {plan.GUEST} down"])
    upstreams[1].answer_now(query)
    arrivals.wait_for(1)
    daemon.settle()
    netns.ip_batch([f"link set {plan.GUEST} up"])
    lab.host_wait("g1")
    assert guest.waiting(port) == []

    # The query still waits for its first reply, which the next one is.
    upstreams[1].answer_now(query)
    assert dns.ident(guest.receive(port)) == 7
    upstreams[1].answer_with(answer)
    assert host.ask() is not None, "the next query"
