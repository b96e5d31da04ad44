"""The file of link states: what it marks as down, and what that means for queries."""

import re
from typing import NamedTuple

import pytest

from lab import dns, files, plan

LAN = {"name": "lan", "service_if": "LAN"}
POLLING_LAN = LAN | {"out_type": "polling"}
GUEST = {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN1"}

LONGEST = "wan123456789012"  # 15 characters

STATE_FILES = [
    # name, text, devices that are down
    ("missing", None, []),
    ("empty", "", []),
    ("off", "wan1=off\n", ["wan1"]),
    ("on", "wan1=on\n", []),
    ("begins with off", "wan1=offline\n", ["wan1"]),
    ("begins with on", "wan1=online\n", []),
    ("capitals", "wan1=OFF\n", []),
    ("any other word", "wan1=down\n", []),
    ("cut short", "wan1=of\n", []),
    ("no state", "wan1=\n", []),
    ("no separator", "wan1\nwan2 off\n", []),
    ("no final line feed", "wan1=off", ["wan1"]),
    ("carriage returns", "wan1=off\r\nwan2=on\r\n", ["wan1"]),
    ("blank before the name", " wan1=off\n", []),
    ("blank after the name", "wan1 =off\n", []),
    ("blank before the state", "wan1= off\n", []),
    ("run of separators", "wan1===off\n", ["wan1"]),
    ("separator in front", "=wan1=off\n", ["wan1"]),
    ("third piece", "wan1=off=on\n", ["wan1"]),
    ("only separators", "===\n=\nwan2=off\n", ["wan2"]),
    ("twice, at last on", "wan1=off\nwan1=on\n", []),
    ("twice, at last off", "wan1=on\nwan1=off\n", ["wan1"]),
    ("empty lines", "\n\nwan1=off\n\nwan2=off\n", ["wan1", "wan2"]),
    ("unknown device", "wan7=off\nwan2=off\n", ["wan2"]),
    ("15 characters", f"{LONGEST}=off\n", [LONGEST]),
    ("16 characters", f"{LONGEST}3=off\n", []),
    ("17 characters", f"{LONGEST}34=off\n", []),
    ("long line", "x" * 5000 + "\nwan1=off\n", ["wan1"]),
    ("every device", f"wan1=off\nwan2=off\n{LONGEST}=off\n", ["wan1", "wan2", LONGEST]),
]


@pytest.mark.parametrize(
    ("text", "down"), [row[1:] for row in STATE_FILES], ids=[row[0] for row in STATE_FILES]
)
def test_state_files(start, upstreams, client, text, down):
    files.write_zone_api(plan.LOGICAL | {"LONG": LONGEST})
    if text is not None:
        files.write(files.ONLINE_STATE, text)
    daemon = start([GUEST], files.resolv_of_lines(1, 2) | {"LONG": ["10.0.3.53"]})
    assert client("g1", family=6).ask() is not None, "the dump comes with a forced IPv6 query"
    dump = daemon.output().rpartition("***Show server interface(size:3)***")[2]
    states = re.findall(r"^ifname:(\S+) ifindex:0\.\n(?:The .*\n)*The is_down:(\d)$", dump, re.M)
    assert states == [(device, str(int(device in down))) for device in ("wan1", "wan2", LONGEST)]


class Case(NamedTuple):
    name: str
    rule: dict[str, str]
    off: tuple[str, ...]
    turns4: list[tuple[int, ...]]  # lines that each IPv4 query leaves by
    turns6: list[tuple[int, ...]]


IN_TURN = [(1,), (2,), (3,), (1,)]

CASES = [
    Case("one line", LAN, ("wan1",), [(2,), (3,), (2,), (3,)], IN_TURN),
    Case("all but one", LAN, ("wan1", "wan3"), [(2,), (2,), (2,), (2,)], IN_TURN),
    Case("all lines", LAN, ("wan1", "wan2", "wan3"), [(1, 2, 3)] * 4, IN_TURN),
    Case("polling", POLLING_LAN, ("wan1",), [(1, 2, 3)] * 4, [(1, 2, 3)] * 4),
]


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_ipv4_queries_pass_over_lines_that_are_down(
    start, upstreams, departures, client, family, case
):
    files.write_online_state({device: "off" for device in case.off})
    daemon = start([case.rule], files.resolv_of_lines(1, 2, 3))
    host = client("h1", family)
    for _ in range(4):
        assert host.ask() is not None
    daemon.settle()
    expected = [
        (ident, server.address)
        for ident, turn in enumerate(case.turns4 if family == 4 else case.turns6, start=1)
        for number in turn
        for server in plan.LINES[number].servers_of(family)
    ]
    assert [(p.ident, p.destination) for p in departures.catch_up()] == expected


def test_a_forced_query_does_not_ask_for_the_link_state(
    start, upstreams, departures, client, family
):
    files.write_online_state({"wan1": "off"})
    daemon = start([GUEST], files.resolv_of_lines(1, 2))
    guest = client("g1", family)
    port = guest.send(dns.query(7))
    assert guest.receive(port) is not None
    daemon.settle()
    server = plan.LINES[1].servers_of(family)[0]
    assert [(p.device, p.destination) for p in departures.catch_up()] == [("wan1", server.address)]
