"""The router asking itself: an IPv4 query goes to the servers of both families and is answered over IPv4."""

from typing import NamedTuple

import pytest

from lab import dns, plan

SELF = {"name": "self", "service_if": "loopback"}
POLLING_SELF = SELF | {"out_type": "polling"}
FORCED_SELF = SELF | {"force_if": "on", "out_if": "WAN2"}


class Case(NamedTuple):
    name: str
    rule: dict[str, str]
    lines: dict[str, tuple[int, ...]]  # the families of each line's servers
    asked4: list[
        tuple[int, str, int]
    ]  # identifier, device and family of what an IPv4 query leaves as
    asked6: list[tuple[int, str, int]]  # and an IPv6 query


# The two families are two queries with identifiers of their own, each in its turn of the lines.
CASES = [
    Case("no servers", SELF, {"WAN1": ()}, [], []),
    Case("IPv4 servers", SELF, {"WAN1": (4,)}, [(1, "wan1", 4)], []),
    Case("IPv6 servers", SELF, {"WAN1": (6,)}, [(1, "wan1", 6)], [(1, "wan1", 6)]),
    Case(
        "both on one line",
        SELF,
        {"WAN1": (4, 6)},
        [(1, "wan1", 4), (2, "wan1", 6)],
        [(1, "wan1", 6)],
    ),
    Case(
        "both on two lines",
        SELF,
        {"WAN1": (4, 6), "WAN2": (4, 6)},
        [(1, "wan1", 4), (2, "wan2", 6)],
        [(1, "wan1", 6)],
    ),
    Case(
        "a line for each family",
        SELF,
        {"WAN1": (6,), "WAN2": (), "WAN3": (4,)},
        [(1, "wan3", 4), (2, "wan1", 6)],
        [(1, "wan1", 6)],
    ),
    Case(
        "polling",
        POLLING_SELF,
        {"WAN1": (4, 6), "WAN2": (4, 6)},
        [(1, "wan1", 4), (1, "wan2", 4), (2, "wan1", 6), (2, "wan2", 6)],
        [(1, "wan1", 6), (1, "wan2", 6)],
    ),
    Case(
        "forced", FORCED_SELF, {"WAN1": (4, 6), "WAN2": (4, 6)}, [(1, "wan2", 4)], [(1, "wan2", 6)]
    ),
]


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_the_router_asks_itself(start, upstreams, departures, arrivals, client, family, case):
    numbers = {name: number for number, name in ((1, "WAN1"), (2, "WAN2"), (3, "WAN3"))}
    lines = {
        name: [plan.LINES[numbers[name]].servers_of(of)[0].address for of in families]
        for name, families in case.lines.items()
    }
    daemon = start([case.rule], lines)
    router = client(None, family)
    port = router.send(dns.query(7))
    daemon.settle()
    asked = case.asked4 if family == 4 else case.asked6
    left = [(p.ident, p.device, p.family) for p in departures.catch_up() if p.device != "lo"]
    assert left == asked

    # One reply to each query that left, under the asker's identifier.
    arrivals.wait_for(len(asked))
    daemon.settle()
    replies = router.waiting(port)
    assert [dns.ident(reply) for reply in replies] == [7] * len({ident for ident, _, _ in asked})
