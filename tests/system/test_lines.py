"""The daemon on a real kernel: which device a query leaves by, and devices that go, come back and change their names.

Which server is asked, and under which identifier, is the model's to know (tests/model).
"""

import contextlib
import subprocess
import threading
from pathlib import Path
from signal import SIGCONT, SIGSTOP

import programs
import pytest

from lab import dns, files, netns, plan, wait
from lab.upstream import silent

LAN = {"name": "lan", "service_if": "LAN"}
POLLING = LAN | {"out_type": "polling"}
GUEST = {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"}
SELF = {"name": "self", "service_if": "loopback"}
LARGEST = 1600  # bytes of a datagram that get through


def leave_by(line: int, *families: int) -> list[tuple[str, str]]:
    """As what a query leaves that goes to all servers of a line in these families."""
    servers = [server for family in families for server in plan.LINES[line].servers_of(family)]
    return [(plan.LINES[line].device, server.address) for server in servers]


def left(daemon, sniffer) -> list[tuple[str, str]]:
    daemon.settle()
    packets = [(p.device, p.destination) for p in sniffer.catch_up() if p.device != "lo"]
    sniffer.clear()
    return packets


@contextlib.contextmanager
def load(*hosts):
    """The hosts ask all the time, and each query gets its own answer."""
    end, runs = threading.Event(), []

    def ask() -> None:
        while not end.is_set():
            runs.extend(host.bulk(100, outstanding=32) for host in hosts)

    thread = threading.Thread(target=ask)
    thread.start()
    try:
        yield
    finally:
        end.set()
        thread.join()
    found = [(run.answered, run.duplicates, run.wrong_ident, run.wrong_question) for run in runs]
    assert runs and found == [(100, 0, 0, 0)] * len(runs)


def test_which_device_a_query_leaves_by(start, upstreams, departures, arrivals, client, family):
    daemon = start([LAN, GUEST, SELF], files.resolv_of_lines(1, 2, 3))
    host, guest, router = client("h1", family), client("g1", family), client(None, family)
    port = host.open()
    for number in (1, 2, 3, 1):
        assert host.ask(port=port).answer in plan.LINES[number].addresses
        assert left(daemon, departures) == leave_by(number, family)
    arrivals.wait_for(8)
    daemon.settle()  # after a forced query, a free one's second reply would be relayed too
    assert guest.ask().answer == plan.LINES[2].servers_of(family)[0].address
    assert left(daemon, departures) == leave_by(2, family)[:1]
    own = router.send(dns.query(7))
    assert router.receive(own) is not None
    # An IPv4 query of the router itself is asked of the servers of both families, a line each.
    assert left(daemon, departures) == (leave_by(2, 4) + leave_by(3, 6) if family == 4 else leave_by(2, 6))
    arrivals.wait_for(11 if family == 6 else 13)
    daemon.settle()
    assert host.waiting(port) == [], "the second server's replies are not for the host"


@pytest.mark.parametrize("size", (2, 300, LARGEST, LARGEST + 1, 65507))
def test_only_the_identifier_is_changed(start, upstreams, client, family, size):
    start([POLLING], {"WAN1": [plan.LINES[1].servers_of(family)[0].address]})
    host = client("h1", family)
    query = (b"\xbe\xef\xff\xff" + bytes(range(256)) * 256)[:size]
    port = host.send(query)
    if size > 2:
        assert host.receive(port) == query[:LARGEST], "a server's echo of any bytes, under the host's identifier"
    upstreams[1].wait_for(1)
    assert [arrived.data for arrived in upstreams[1].queries] == [b"\0\1" + query[2:LARGEST]]


def test_both_families_at_once(start, upstreams, client):
    start([LAN], files.resolv_of_lines(1, 2, 3))
    with load(client("h1", 4)), load(client("h2", 6)):
        assert client("h1", 6).bulk(3000, outstanding=32).lost == 0


def test_a_forced_device_that_comes_back(lab, start, upstreams, departures, client, family):
    """No query leaves by another line meanwhile, though the router has a route to the servers there."""
    daemon = start([LAN, GUEST], files.resolv_of_lines(1, 2))
    guest = client("g1", family)
    server = plan.LINES[2].servers_of(family)[0].address
    gateway = (plan.LINES[1].link4 if family == 4 else plan.LINES[1].link6) + "254"
    for asked_meanwhile in (0, 1, 3):
        assert guest.ask() is not None
        lab.line_delete(2)
        netns.ip_batch([f"route replace {server} via {gateway}"])
        departures.clear()
        for _ in range(asked_meanwhile):
            guest.send(dns.query(guest.fresh_ident(0)))
            daemon.settle()
        netns.ip_batch([f"route delete {server} via {gateway}"])
        lab.line_create(2)
        if asked_meanwhile == 0:  # the query that finds out that the device went
            guest.send(dns.query(guest.fresh_ident(0)))
            daemon.settle()
        assert departures.catch_up() == []
        assert guest.ask() is not None


def netlink_drops(daemon) -> int:
    """Link messages that the daemon's socket had no room for."""
    rows = [line.split() for line in Path("/proc/net/netlink").read_text(encoding="ascii").splitlines()[1:]]
    return sum(int(row[8]) for row in rows if int(row[2]) == daemon.pid and int(row[3], 16) == 1)


def test_renamed_devices_are_known_though_link_messages_overrun_the_socket(lab, start, upstreams, client):
    files.write_zone_api(plan.LOGICAL | {"LATE": "late0"})
    daemon = start([LAN, {"name": "late", "service_if": "LATE"}], files.resolv_of_lines(1, 2))
    late, host = [client("p1", family) for family in (4, 6)], client("h1")
    others = ["link set group 7 up", "link set group 7 down"]
    name = plan.PPP
    try:
        netns.ip_batch(f"link add flood{i} group 7 type bridge" for i in range(120))
        with load(host):
            for new in ("late0", "other0", "late0"):
                rename = [f"link set {name} down", *others, f"link set {name} name {new}", f"link set {new} up"]
                daemon.signal(SIGSTOP)  # it reads none of them in time, however fast it is
                netns.ip_batch([*rename, *others])
                daemon.signal(SIGCONT)
                name = new
                lab.host_wait("p1")
                for asking in late:
                    served = new == "late0"
                    wait.until(
                        lambda asking=asking, served=served: bool(asking.ask(timeout=0.25)) == served,
                        f"{new} to be {'served' if served else 'left alone'}",
                    )
        assert netlink_drops(daemon) > 0
    finally:
        netns.ip_batch(["link delete group 7"])
        lab.link_rename(name, plan.PPP)
        lab.host_wait("p1")


def test_sockets_close_after_a_minute_and_a_dead_one_heals_by_it(lab, start, clock, upstreams, departures, client):
    daemon = start([LAN], files.resolv_of_lines(1, 2), environment=clock.environment)
    hosts = [client("h1", family) for family in (4, 6)]

    def lines_used() -> set[str]:
        """By a query of each family to each line; those sent to a dead one are lost."""
        departures.clear()
        for host in (hosts[0], hosts[0], hosts[1], hosts[1]):
            host.send(dns.query(host.fresh_ident(0)))
            daemon.settle()
        return {packet.device for packet in departures.catch_up()}

    def open_upstream() -> int:
        return sum(sock.port != 53 for family in (4, 6) for sock in daemon.udp_sockets(family))

    assert lines_used() == {"wan1", "wan2"}
    descriptors = len(daemon.fds())
    assert open_upstream() == 4
    # A failed send closes nothing on the free path: the line stays dead, and the other does its work.
    lab.line_delete(1)
    lab.line_create(1)
    assert lines_used() == {"wan2"}
    assert open_upstream() == 4
    clock.advance(daemon, 61)
    wait.until(lambda: open_upstream() == 0, "the sockets to close")
    assert len(daemon.fds()) == descriptors - 4
    assert lines_used() == {"wan1", "wan2"}


def test_a_line_that_nobody_empties_holds_up_no_other(start, upstreams, departures, client, family):
    """A tun device whose queue is full."""
    files.write_zone_api(plan.LOGICAL | {"TUN": "tun0"})
    netns.ip_batch(["tuntap add tun0 mode tun", "link set tun0 txqueuelen 10 up", "address add 10.9.9.1/24 dev tun0",
                    "address add fd00:a:99::1/64 dev tun0 nodad"])  # fmt: skip
    try:
        server = "10.9.9.53" if family == 4 else "fd00:a:99::53"
        daemon = start([LAN, GUEST | {"out_if": "TUN"}], files.resolv_of_lines(1) | {"TUN": [server]})
        guest, host = client("g1", family), client("h1", family)
        upstreams[1].answer_with(silent)
        port = host.send(dns.query(7))
        (query, *_) = upstreams[1].wait_for(2)
        assert guest.bulk(1000, outstanding=100, timeout=0.02).answered == 0
        daemon.settle()
        upstreams[1].answer_now(query)
        assert host.receive(port) is not None
    finally:
        netns.ip_batch(["link delete tun0"])


def test_a_forced_network_keeps_to_a_dead_first_server(start, clock, upstreams, client):
    """Two forced networks whose line's first server is dead. Guests share their line with a free network, whose
    answered query carries the first slot; a query of the router reaches the second server when it is repeated, and
    carries the first slot all the same. Both pin the dead server again, until it is taken out.
    """
    router = SELF | {"force_if": "on", "out_if": "WAN3"}
    daemon = start([LAN, GUEST, router], files.resolv_of_lines(2, 3, ipv6=False), environment=clock.environment)
    for line in (2, 3):
        upstreams[line].answer_with(silent, plan.LINES[line].servers4[0])
    hosts = {2: client("g1"), 3: client(None)}

    def ask(line: int):
        """A new query; each call sends it again and gives the slot of the server that it reaches."""
        port = hosts[line].open()
        payload = dns.query(hosts[line].fresh_ident(port))

        def reached() -> int:
            before = upstreams[line].count
            hosts[line].send(payload, port)
            return upstreams[line].wait_for(before + 1)[before].server.slot

        return reached

    assert ask(2)() == 0
    assert client("h1").ask() is not None
    assert ask(3)() == 0
    clock.advance(daemon, 5)
    later = ask(3)
    assert later() == 0
    clock.advance(daemon, 5.1)
    wait.until(lambda: later() == 1, "the expiry of the first query")
    assert hosts[3].receive(hosts[3].ports()[-1]) is not None
    clock.advance(daemon, 5.1)
    wait.until(lambda: later() == 0, "the expiry of the query that was repeated")
    assert ask(2)() == 0, "pinned by the free query"
    subprocess.run([programs.path("tools/dnsproxyctl"), "set", "WAN2", plan.LINES[2].addresses[1]], check=True)
    assert hosts[2].ask() is not None, "the dead server was taken out"
