"""The daemon's numbers against what hosts and servers counted."""

from collections import Counter

import pipe_client as pipe
import pytest

from lab import dns, files, plan, wait
from lab.broker import Broker
from lab.upstream import Upstream, answer, silent

RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
]
BUS = "/var/run/ubus.sock"
OBJECT = "dnsproxy.statistics"
RECORD_LIFE = 10.1  # seconds, with the lateness that an expiry may have


@pytest.fixture
def bus(lab):
    with Broker(BUS) as bus:
        yield bus


def numbers(bus) -> dict:
    status, reply = bus.call(OBJECT, "get")
    assert status == 0
    return reply


def lines_of(bus) -> dict[str, dict]:
    return {line["dev"]: line for line in numbers(bus)["lines"]}


def servers_of(line: dict) -> dict[str, dict]:
    return {server["address"]: server for family in ("ipv4", "ipv6") for server in line[family]["servers"]}


def settled(bus, clock, daemon) -> dict:
    """The numbers once every record has ended."""
    clock.advance(daemon, RECORD_LIFE)

    def none_in_flight() -> bool:
        found = numbers(bus)
        return found["ipv4"]["in_flight"] == found["ipv6"]["in_flight"] == 0

    wait.until(none_in_flight, "the records to end")
    return numbers(bus)


class Lossy:
    """Answers some queries, by their number in the name, and counts its replies."""

    def __init__(self, *lost: int):
        self.lost = lost
        self.replies: Counter[str] = Counter()

    def __call__(self, query):
        number = int(query.data[14:21])  # "q0000012.bulk.test"
        if any(number % each == 0 for each in self.lost):
            return ()
        self.replies[query.server.address] += 1
        return answer(query)


def test_numbers_agree_with_hosts_and_servers(lab, bus, start, clock, client):
    daemon = start(RULES, files.resolv_of_lines(1, 2), environment=clock.environment)
    bus.wait_for(OBJECT)
    everywhere, second_only = 50, 7  # every so many-th query is lost
    first, second = Lossy(everywhere), Lossy(everywhere, second_only)
    with Upstream(1, policy=first) as wan1, Upstream(2, policy=first) as wan2:
        upstreams = {"wan1": wan1, "wan2": wan2}
        for upstream in upstreams.values():
            for server in upstream.servers:
                upstream.answer_with(second if server.slot == 1 else first, server)
        runs = {
            (host, family): client(host, family).bulk(count, outstanding=128, unanswered=count // everywhere)
            for host, count in (("h1", 4000), ("g1", 1000))
            for family in (4, 6)
        }
        stranger = client("p1")
        for _ in range(5):
            stranger.send(dns.query(stranger.fresh_ident(stranger.open())), stranger.ports()[0])
        found = settled(bus, clock, daemon)

        lost = 5000 // everywhere  # the clock stands: no forced network leaves its first server
        for family in (4, 6):
            assert found[f"ipv{family}"] == {
                "taken": 5000 + (5 if family == 4 else 0),
                "refused": 5 if family == 4 else 0,
                "forced": 1000,
                "free": 4000,
                "in_flight": 0,
            }
            lines = [line[f"ipv{family}"] for line in found["lines"]]
            answered = runs["h1", family].answered + runs["g1", family].answered
            assert sum(line["answered"] for line in lines) == answered == 5000 - lost
            assert sum(line["expired"] for line in lines) == lost
        for line in found["lines"]:
            upstream = upstreams[line["dev"]]
            assert line["uses"] == (2000 if line["dev"] == "wan2" else 0)
            for family in ("ipv4", "ipv6"):
                servers = line[family]["servers"]
                assert line[family]["sent"] == sum(server["sent"] for server in servers)
                assert line[family]["failed"] == 0
            for address, server in servers_of(line).items():
                assert server["sent"] == len(upstream.at(address)), address
                assert server["replies"] == (first.replies + second.replies)[address], address
                time = server["time_us"]
                assert sum(time["histogram"]) == time["count"] == server["replies"]
                assert 0 < time["smallest"] <= time["mean"] <= time["largest"] <= time["total"]

        # What was in flight when the line was deleted is not the new one's.
        guest = client("g1")
        guest.send(dns.query(guest.fresh_ident(guest.open()), "q0000000.bulk.test"), guest.ports()[0])
        wait.until(lambda: lines_of(bus)["wan2"]["uses"] == 2001, "the query to be sent")
        clock.advance(daemon, 1)
        before = lines_of(bus)["wan1"]
        dns_of_2 = [pipe.slot(address) for address in plan.LINES[2].addresses[:2]]
        message = {"ifname": b"WAN2", "dns_flag": 1, "dns2_flag": 1, "dns": dns_of_2[0], "dns2": dns_of_2[1]}
        assert pipe.exchange(pipe.Message(pipe.DEL, ifname=b"WAN2")).message.result == 0
        assert set(lines_of(bus)) == {"wan1"}
        assert pipe.exchange(pipe.Message(pipe.ADD, no_v6=1, **message)).message.result == 0
        found = settled(bus, clock, daemon)
        anew = next(line for line in found["lines"] if line["dev"] == "wan2")
        assert lines_of(bus)["wan1"] == before
        assert anew["uses"] == 0
        assert all(anew["ipv4"][key] == 0 for key in ("sent", "failed", "answered", "expired"))
        assert [server["sent"] for server in anew["ipv4"]["servers"]] == [0, 0]


@pytest.mark.parametrize("forced", (False, True), ids=("free", "forced"))
def test_a_slow_server_shows(lab, bus, start, clock, client, family, forced):
    """The time is that of the server, also where another one has answered before."""
    slow, quick = (server.address for server in plan.LINES[2].servers_of(family))
    daemon = start(RULES, {"WAN2": [slow, quick] if not forced else [slow]}, environment=clock.environment)
    bus.wait_for(OBJECT)
    host = client("g1" if forced else "h1", family)

    def replies() -> int:
        return sum(server["replies"] for server in servers_of(lines_of(bus)["wan2"]).values())

    with Upstream(2) as wan2:
        wan2.answer_with(silent, slow)
        for _ in range(20):
            host.send(dns.query(host.fresh_ident(0)))
        wan2.wait_for(20 if forced else 40)
        wait.until(lambda: replies() == (0 if forced else 20), "the quick server's replies")
        clock.advance(daemon, 0.2)
        for query in wan2.at(slow):
            wan2.answer_now(query)
        wait.until(lambda: replies() == (20 if forced else 40), "its replies")
    servers = servers_of(lines_of(bus)["wan2"])
    assert servers[slow]["time_us"]["histogram"][8] == 20, "it counts from when the query has been sent"
    assert servers[slow]["time_us"]["smallest"] == servers[slow]["time_us"]["largest"] == 200_000
    assert forced or servers[quick]["time_us"]["largest"] < 200_000


def test_sends_that_fail(lab, bus, start, client, family):
    start(RULES, files.resolv_of_lines(2))
    bus.wait_for(OBJECT)
    lab.line_delete(2)
    guest = client("g1", family)
    for number in range(3):
        guest.send(dns.query(number), guest.open())
    key = f"ipv{family}"
    wait.until(lambda: lines_of(bus)["wan2"][key]["failed"] == 3, "three failures")
    line = lines_of(bus)["wan2"]
    lab.line_create(2)
    assert (line["uses"], line[key]["sent"], numbers(bus)[key]["in_flight"]) == (3, 0, 0)


def test_a_replaced_server_begins_at_zero(lab, bus, start, client):
    server = plan.LINES[2].servers4[0].address
    start(RULES, {"WAN2": [server]})
    bus.wait_for(OBJECT)
    with Upstream(2):
        assert client("g1").ask() is not None
    assert servers_of(lines_of(bus)["wan2"])[server]["sent"] == 1
    for address, sent in ((server, 1), ("192.0.2.1", 0)):
        change = pipe.Message(pipe.SET, ifname=b"WAN2", dns_flag=1, dns=pipe.slot(address), no_v6=1)
        assert pipe.exchange(change).message.result == 0
        assert servers_of(lines_of(bus)["wan2"])[address]["sent"] == sent
