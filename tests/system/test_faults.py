"""Faults of the world around the daemon, under load: who is served meanwhile, and how soon all are again.

Each run adds rows to a table that is printed in the end (`pytest -s`); see `faults` for its length and its file.
"""

import contextlib
import fcntl
import itertools
import os
import re
import resource
import socket
import struct
import subprocess
import threading
import time
from collections.abc import Callable
from pathlib import Path
from signal import SIGCONT, SIGSTOP
from typing import NamedTuple

import pipe_client as pipe
import programs
import pytest
from faults import SCALE, SOON, ManyPorts, Row, Table, asking, calling, repeating, scaled, steady, total
from pipe_client import DONE, GET, INVALID

from lab import dns, files, netns, plan, wait
from lab.broker import Broker, Status
from lab.upstream import answer, delayed, silent

BUS = "/var/run/ubus.sock"
OBJECT = "dnsproxy"
LAN = {"name": "lan", "service_if": "LAN"}
FORCED_LAN = LAN | {"force_if": "on", "out_if": "WAN1"}
FORCED_GUEST = {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"}
FORCED = [FORCED_LAN, FORCED_GUEST]

# Seconds until all is normal after a fault: what is promised, on a machine that does nothing else.
BACK = 1.0 if SCALE >= 10 else wait.PATIENCE


@pytest.fixture(scope="module")
def figures():
    table = Table()
    yield table
    print(f"\n{table}")


@pytest.fixture
def bus():
    with Broker(BUS) as bus:
        yield bus


@pytest.fixture
def trial(client, figures):
    """Lets turns be taken while a fault runs its course, then waits until the hosts in `back` are served."""

    def trial(fault, cause, *, serves=None, suffers=None, back=()):
        serves, suffers = serves or {}, suffers or {}
        runs = {}
        with contextlib.ExitStack() as stack:
            for who, turns in (serves | suffers).items():
                runs[who] = stack.enter_context(asking(turns))
            cause()
            ended = time.monotonic()
            hosts = [client(name, family) for name, family in back]
            for host in hosts:
                wait.until(lambda host=host: host.ask(timeout=0.25), f"{host.host.name} to be served again")
            back_after = time.monotonic() - ended
        results = {who: total(run) for who, run in runs.items()}
        for who, result in results.items():
            worst = 1000 * max(result.latencies, default=0)
            counts = (result.sent, result.answered, result.lost)
            back_ms = 1000 * back_after if who in suffers and back else None
            figures.add(Row(fault, who, *counts, worst, back_ms))
        for who in serves:
            asked, lost = results[who].sent, results[who].lost
            assert asked > 0 and lost == 0, f"{fault}: of {who}, {lost} of {asked} were lost"
        assert back_after < BACK, fault
        for name, family in back:  # anew: to the hosts that have waited there may be late replies
            run = client(name, family).bulk(200, outstanding=64, timeout=wait.PATIENCE)
            assert (run.answered, run.wrong_ident, run.wrong_question) == (200, 0, 0), f"{fault}: afterwards"
        return results

    return trial


@pytest.fixture
def both(client):
    """A host in both families."""
    return lambda name: [client(name, 4), client(name, 6)]


def one_server(*numbers: int) -> dict[str, list[str]]:
    """These lines with one server in each family, so that a query has one reply."""
    return {name: addresses[::2] for name, addresses in files.resolv_of_lines(*numbers).items()}


def go_on(seconds: float) -> None:
    """Lets a fault last."""
    threading.Event().wait(seconds)


def ask_pipe() -> None:
    reply = pipe.exchange(pipe.Message(GET, ifname=b"WAN1")).message
    assert (reply.result, pipe.slot_text(reply.dns)) == (DONE, plan.LINES[1].addresses[0])


def bus_calls(bus):
    bus.wait_for(OBJECT)

    def call() -> None:
        assert bus.call(OBJECT, "get_state")[0] == Status.OK

    return calling(call)


def warm(*hosts) -> None:
    for host in hosts:
        assert host.bulk(16, outstanding=4, timeout=wait.PATIENCE).lost == 0


def test_every_upstream_is_silent(bus, start, upstreams, family, trial, figures):
    """No host can be served; the controls are."""
    daemon = start([LAN], one_server(1, 2))
    calls = bus_calls(bus)
    ports = itertools.cycle(range(1024, 65536))  # none comes back while its query is remembered
    with ManyPorts("h2", family) as many:

        def cause() -> None:
            for upstream in upstreams.values():
                upstream.answer_with(silent)
            for _ in range(round(scaled(2, 60))):
                unanswered.append(many.ask(itertools.islice(ports, 5000), 5000))
                for upstream in upstreams.values():
                    upstream.clear()
            for upstream in upstreams.values():
                upstream.answer_with(answer)

        unanswered = []
        fault = f"every upstream silent, IPv{family}"
        trial(fault, cause, serves={"pipe": [calling(ask_pipe)], "bus": [calls]}, back=[("h1", family)])
        run = total(unanswered)
        figures.add(Row(fault, "hosts, meanwhile", run.sent, run.answered, run.lost, 0))
        before = daemon.dropped()
        run = many.ask(itertools.islice(ports, 10000), 5000, outstanding=128)
        figures.add(Row(fault, "hosts, afterwards", run.sent, run.answered, run.lost, 1000 * max(run.latencies)))
        assert (run.lost, daemon.dropped() - before) == (0, 0)


@pytest.fixture
def road_by_the_first_line(lab):
    """The router sends by it whatever has no better road."""
    line = plan.LINES[1]
    roads = [f"default via {line.servers4[0].address}", f"::/0 via {line.servers6[0].address}"]
    netns.ip_batch(f"route add {road}" for road in roads)
    yield
    netns.ip_batch(f"route delete {road}" for road in roads)


@pytest.mark.usefixtures("road_by_the_first_line")
def test_devices_deleted_and_made_again(lab, start, upstreams, departures, both, trial):
    """A forced LAN is not touched by what happens to other lines, and no query of it leaves by them, though the
    router has a road to its servers there.
    """
    start(FORCED, one_server(1, 2, 3))
    hosts, guests = both("h1"), both("g1")
    warm(*hosts, *guests)
    device_of = {address: line.device for line in plan.LINES.values() for address in (line.router4, line.router6)}
    left = set()

    def cause() -> None:
        departures.clear()
        for number in range(round(scaled(20, 200))):
            line = (2, 2, 3)[number % 3]
            lab.line_delete(line)
            lab.line_create(line)
            if number % 5 == 0:
                lab.line_set(2, up=False)
                lab.line_set(2, up=True)
        for packet in departures.catch_up():
            end = dns.question_end(packet.message)
            qtype = int.from_bytes(packet.message[end - 4 : end - 2], "big")
            # A device that has gone by the time of recording has no name; the source address is of the device.
            left.add((qtype, packet.device or device_of[packet.source]))

    trial(
        "lines deleted and made again, forced LANs",
        cause,
        serves={"LAN of another line": [steady(host) for host in hosts]},
        suffers={"LAN of the line": [steady(guest, timeout=0.25, qtype="AAAA") for guest in guests]},
        back=[("g1", 4), ("g1", 6)],
    )
    assert left == {(dns.A, "wan1"), (dns.AAAA, "wan2")}
    assert departures.lost() == 0


def test_a_free_lan_beside_a_line_that_comes_and_goes(lab, start, upstreams, both, trial):
    """What is sent to a dead line is lost; the host's own retry takes the other."""
    start([LAN], one_server(1, 2))
    hosts = both("h1")
    warm(*hosts)

    def cause() -> None:
        for _ in range(round(scaled(10, 200))):
            lab.line_delete(2)
            lab.line_create(2)

    turns = [repeating(host) for host in hosts]
    trial("a line deleted and made again, free LAN", cause, serves={"hosts that retry after 100 ms": turns})


def netlink_drops(daemon) -> int:
    """Link messages that the daemon's socket had no room for."""
    rows = [line.split() for line in Path("/proc/net/netlink").read_text(encoding="ascii").splitlines()[1:]]
    return sum(int(row[8]) for row in rows if int(row[2]) == daemon.pid and int(row[3], 16) == 1)


def test_link_changes_overrun_the_monitor(lab, start, upstreams, both, trial):
    """A device that is renamed in the middle of it is known by its new name afterwards.

    While the kernel changes links it keeps the list of them locked, and whoever wants to read it waits.
    """
    files.write_zone_api(plan.LOGICAL | {"LATE": "late0"})
    daemon = start([LAN, {"name": "late", "service_if": "LATE"}], one_server(1, 2))
    hosts, late = both("h1"), both("p1")
    warm(*hosts)
    changes = ["link set group 7 up", "link set group 7 down"]

    def cause() -> None:
        netns.ip_batch(f"link add flood{i} group 7 type bridge" for i in range(120))
        for _ in range(round(scaled(5, 50))):
            netns.ip_batch(changes)
        rename = [f"link set {plan.PPP} down", f"link set {plan.PPP} name late0", "link set late0 up"]
        netns.ip_batch([changes[0], *rename, changes[1]])

    try:
        trial(
            "link messages overrun the socket",
            cause,
            serves={"LAN of another device": [steady(host, timeout=wait.PATIENCE) for host in hosts]},
            suffers={"LAN that is renamed": [steady(host, timeout=0.25) for host in late]},
            back=[("p1", 4), ("p1", 6)],
        )
        assert netlink_drops(daemon) > 0
    finally:
        netns.ip_batch(["link delete group 7"])
        lab.link_rename("late0", plan.PPP)
        lab.host_wait("p1")


class Forgery(NamedTuple):
    make: Callable[[int], bytes]  # a datagram with this identifier
    step: int  # of the identifiers in a short run; a full one takes all
    passes: bool  # for the reply to a query in flight


FORGERIES = {
    "without a response bit": Forgery(dns.query, 8, False),
    "shorter than an identifier": Forgery(lambda ident: dns.query(ident)[:1], 16, False),
    "whole": Forgery(lambda ident: b"\x81\x80".join((dns.query(ident)[:2], dns.query(ident)[4:])), 1, True),
    "cut in the header": Forgery(lambda ident: dns.query(ident)[:2] + b"\x81\x80" + bytes(7), 4, True),
    "of 65507 bytes": Forgery(lambda ident: dns.query(ident)[:2] + b"\x81" * 65505, 128, True),
}


@contextlib.contextmanager
def stranger(line: int, family: int):
    """A socket on an address behind a line that is no server's."""
    address, length = ("10.0.1.99", "24") if family == 4 else ("fd00:a:1::99", "64 nodad")
    there = plan.LINES[line].netns
    netns.ip_batch([f"address add {address}/{length} dev eth0"], there)
    with netns.inside(there):
        sock = socket.socket(socket.AF_INET if family == 4 else socket.AF_INET6, socket.SOCK_DGRAM)
    with sock:
        sock.bind((address, 0))
        yield sock
    netns.ip_batch([f"address delete {address}/{length.split()[0]} dev eth0"], there)


@pytest.mark.parametrize("kind", FORGERIES)
def test_forged_replies(start, upstreams, client, family, trial, kind):
    """Replies are matched by identifier alone: one forged in time costs the query in flight, and nothing else."""
    forgery = FORGERIES[kind]
    daemon = start([LAN], one_server(1))
    host = client("h1", family)
    upstreams[1].answer_with(delayed(0.01))
    warm(host)
    target = upstreams[1].queries[-1].source
    burst = 1 if len(forgery.make(0)) > 60000 else 64  # what the daemon's socket surely holds

    def drained() -> bool:
        return all(sock.unread == 0 for sock in daemon.udp_sockets(family) if sock.port == target[1])

    def cause() -> None:
        for number, ident in enumerate(range(0, 65536, round(scaled(forgery.step, 1)))):
            sock.sendto(forgery.make(ident), target)
            if number % burst == 0:
                wait.until(drained, "the daemon to read what is forged")

    fault = f"forged, {kind}, IPv{family}"
    group = "suffers" if forgery.passes else "serves"
    with stranger(1, family) as sock:
        run = trial(fault, cause, **{group: {"hosts": [steady(host)]}}, back=[("h1", family)])["hosts"]
    assert run.lost <= run.wrong_question + run.duplicates + run.wrong_ident, "lost without a forged reply"
    assert daemon.dropped() == 0


def test_a_host_that_asks_from_every_port(start, upstreams, both, family, trial, figures):
    daemon = start([LAN], one_server(1, 2))
    hosts = both("h1")
    warm(*hosts)
    count = round(scaled(6500, 65000))
    runs = []
    with ManyPorts("h2", family) as many:
        fault = f"a host with {count} ports, IPv{family}"
        trial(
            fault,
            lambda: runs.append(many.ask(range(400, 400 + count), 8000, outstanding=128)),
            serves={"the other hosts": [steady(host) for host in hosts]},
            back=[("h1", family)],
        )
    (run,) = runs
    figures.add(Row(fault, "that host", run.sent, run.answered, run.lost, 1000 * max(run.latencies)))
    assert (run.answered, daemon.dropped()) == (count, 0)


@pytest.mark.parametrize("end", ("stalls", "goes"))
def test_output_that_nobody_takes(start, upstreams, both, trial, end):
    reader, writer = os.pipe()
    with os.fdopen(reader, "rb", 0) as output, os.fdopen(writer, "wb", 0):
        start(FORCED, one_server(1, 2), stdout=writer)
        hosts, guests = both("h1"), both("g1")  # each forced IPv6 query dumps the tables
        warm(*hosts, *guests)

        def cause() -> None:
            if end == "goes":
                output.close()
            go_on(scaled(2, 20))

        turns = {"LANs": [steady(host) for host in (*hosts, *guests)], "pipe": [calling(ask_pipe)]}
        trial(f"the reader of the output {end}", cause, serves=turns, back=[("g1", 6)])
        if end == "stalls":
            while b"***Show" not in output.read(65536):
                pass


def tun_device(name: str) -> int:
    """A device whose packets come out of this descriptor."""
    fd = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
    fcntl.ioctl(fd, 0x400454CA, struct.pack("16sH22x", name.encode(), 0x1001))  # TUNSETIFF, IFF_TUN | IFF_NO_PI
    return fd


def turned_round(packet: bytes) -> bytes:
    """A UDP packet with a query as one back to its sender with a reply; the sums stay right as words move."""
    packet = bytearray(packet)
    at, size, udp = (12, 4, 20) if packet[0] >> 4 == 4 else (8, 16, 40)
    packet[at : at + 2 * size] = packet[at + size : at + 2 * size] + packet[at : at + size]
    packet[udp : udp + 4] = packet[udp + 2 : udp + 4] + packet[udp : udp + 2]
    packet[udp + 10] |= 0x80
    checksum = int.from_bytes(packet[udp + 6 : udp + 8], "big") - 0x8000  # the response bit is in the sum
    packet[udp + 6 : udp + 8] = (checksum if checksum > 0 else checksum + 0xFFFF).to_bytes(2, "big")
    return bytes(packet)


@contextlib.contextmanager
def answering(fd: int):
    """The queries that come out of a tun device go back in as replies."""
    end = threading.Event()

    def answer_all() -> None:
        while not end.is_set():
            with contextlib.suppress(BlockingIOError):
                while True:
                    packet = os.read(fd, 65536)
                    if packet[6 if packet[0] >> 4 == 6 else 9] == 17:
                        os.write(fd, turned_round(packet))
            end.wait(0.002)

    thread = threading.Thread(target=answer_all)
    thread.start()
    try:
        yield
    finally:
        end.set()
        thread.join()


HOLD = ["qdisc", "add", "dev", "tun0", "root", "tbf", "rate", "8bit", "burst", "1540", "limit", "100m"]


def unsent(daemon) -> int:
    """Bytes that wait behind the fullest of its sockets."""
    tables = [Path(f"/proc/{daemon.pid}/net/{table}").read_text(encoding="ascii") for table in ("udp", "udp6")]
    lines = [line.split() for table in tables for line in table.splitlines()[1:]]
    return max(int(fields[4].partition(":")[0], 16) for fields in lines)


@pytest.mark.parametrize("held", (False, True), ids=("full device", "full queue"))
def test_a_line_that_nobody_empties(lab, start, upstreams, both, trial, held):
    """A full device drops what comes; a full queue before it would hold the sender up."""
    files.write_zone_api(plan.LOGICAL | {"TUN": "tun0"})
    fd = tun_device("tun0")
    with contextlib.ExitStack() as stack:
        stack.callback(os.close, fd)
        addresses = ["address add 10.9.9.1/24 dev tun0", "address add fd00:a:99::1/64 dev tun0 nodad"]
        netns.ip_batch(["link set tun0 txqueuelen 100 up", *addresses])
        if held and subprocess.run(["tc", *HOLD], check=False).returncode != 0:
            pytest.skip("this kernel has no queue that can be held")
        lines = one_server(1) | {"TUN": ["10.9.9.53", "fd00:a:99::53"]}
        daemon = start([FORCED_LAN, FORCED_GUEST | {"out_if": "TUN"}], lines)
        hosts, guests = both("h1"), both("g1")
        warm(*hosts)

        def is_full() -> bool:
            dropped = Path("/sys/class/net/tun0/statistics/tx_dropped").read_text(encoding="ascii")
            return unsent(daemon) > 200_000 if held else int(dropped) > 0

        def cause() -> None:
            wait.until(is_full, "the line to be full")
            go_on(scaled(SOON + 0.5 if held else 1, 30))
            if held:
                subprocess.run(["tc", "qdisc", "delete", "dev", "tun0", "root"], check=True)
            stack.enter_context(answering(fd))

        trial(
            f"a line that nobody empties, {'queue' if held else 'device'} full",
            cause,
            serves={"LAN of another line": [steady(host) for host in hosts]},
            suffers={"LAN of the line": [steady(guest, rate=400, timeout=0.05) for guest in guests]},
            back=[("g1", 4), ("g1", 6)],
        )


def test_a_full_disk(start, upstreams, both, trial):
    """The standard output is a file on it, to which each forced IPv6 query adds a dump."""
    daemon = start(FORCED, one_server(1, 2))
    hosts = [*both("h1"), *both("g1")]
    warm(*hosts)
    room = 256  # KiB

    def cause() -> None:
        used = os.statvfs("/tmp")
        kib = (used.f_blocks - used.f_bfree) * used.f_frsize // 1024 + room
        subprocess.run(["mount", "-o", f"remount,size={kib}k", "/tmp"], check=True)
        try:
            with open("/tmp/filler", "wb", 0) as filler, contextlib.suppress(OSError):
                while filler.write(bytes(4096)) == 4096:
                    pass
            before = len(daemon.output())
            go_on(scaled(2, 20))
            assert len(daemon.output()) - before < 8192
        finally:
            os.unlink("/tmp/filler")
            subprocess.run(["mount", "-o", "remount,size=50%", "/tmp"], check=True)

    turns = {"LANs": [steady(host) for host in hosts], "pipe": [calling(ask_pipe)]}
    trial("a full disk under /tmp", cause, serves=turns, back=[("g1", 6)])
    assert daemon.output().endswith("\nEnd\n\n"), "dumps are whole again"


@contextlib.contextmanager
def limited(daemon, limit: int, value: int):
    """A limit of the process while it runs."""
    soft, hard = resource.prlimit(daemon.pid, limit)
    resource.prlimit(daemon.pid, limit, (value, hard))
    try:
        yield
    finally:
        resource.prlimit(daemon.pid, limit, (soft, hard))


def change_links() -> None:
    netns.ip_batch(["link add other0 type bridge", "link delete other0"])


@pytest.mark.parametrize("links_change", (False, True), ids=("links stay", "links change"))
def test_no_free_descriptors(bus, start, upstreams, both, trial, links_change):
    """Those whose line has its sockets are served; a link change that cannot be looked into ends that for IPv4."""
    daemon = start(FORCED, one_server(1, 2))
    hosts, guests = both("h1"), both("g1")
    calls = bus_calls(bus)
    warm(*hosts)
    fds = daemon.fds()
    with contextlib.ExitStack() as fault:
        fault.enter_context(limited(daemon, resource.RLIMIT_NOFILE, min(set(range(1024)) - fds.keys())))
        if links_change:
            change_links()

        def cause() -> None:
            pipe.send(pipe.Message(GET, ifname=b"WAN1").pack())
            go_on(scaled(1.5, 20))
            assert daemon.fds() == fds
            fault.close()

        served = hosts[links_change:]
        suffers = {"LAN of a line not open": guests}
        if links_change:
            suffers["IPv4 LAN of an open line"] = hosts[:1]
        trial(
            "no free descriptors" + (", links change" if links_change else ""),
            cause,
            serves={"LAN of an open line": [steady(host) for host in served], "bus": [calls]},
            suffers={who: [steady(host, timeout=0.25) for host in them] for who, them in suffers.items()},
            back=[("h1", 4), ("g1", 4), ("g1", 6)],
        )
    ask_pipe()


def test_no_memory(bus, start, upstreams, both, trial):
    """Queries that cannot be remembered are not answered; the room of those that expire is used again."""
    daemon = start([LAN], one_server(1, 2))
    if re.search("lib[at]san", Path(f"/proc/{daemon.pid}/maps").read_text(encoding="ascii")):
        pytest.skip("a sanitizer takes address space at will and ends without it")
    calls = bus_calls(bus)
    hosts = both("h1")
    warm(*hosts)

    def cause() -> None:
        status = Path(f"/proc/{daemon.pid}/status").read_text(encoding="ascii")
        now = int(status.partition("VmSize:")[2].split()[0]) * 1024
        with limited(daemon, resource.RLIMIT_AS, now), ManyPorts("h2", 4) as many:
            run = many.ask(range(1024, 1024 + round(scaled(10000, 60000))), 4000)
            assert run.lost > 0, "memory was short"
            change_links()
            assert pipe.exchange(pipe.Message(GET, ifname=b"WAN1")).message.result == INVALID

    trial(
        "no memory",
        cause,
        serves={"bus": [calls]},
        suffers={"all hosts": [steady(host, timeout=0.25) for host in hosts]},
        back=[("h1", 4), ("h1", 6)],
    )
    ask_pipe()


def test_a_mapping_command_hangs(bus, start, upstreams, both, trial):
    """Everything but the bus waits for it, and nothing is lost."""
    seconds = scaled(0.75, 5)
    daemon = start([LAN], one_server(1, 2))
    api = Path(files.ZONE_API)
    hang = f"zone_iface_to_userif() {{ sleep {seconds}; echo; }}\n"
    api.write_text(api.read_text(encoding="utf-8") + hang, encoding="utf-8")
    calls = bus_calls(bus)
    hosts = both("h1")
    warm(*hosts)
    trial(
        f"a mapping command hangs for {seconds:g} s",
        lambda: pipe.exchange(pipe.Message(GET, ifname=b"SLOW"), timeout=wait.PATIENCE),
        serves={"bus": [calls], "all hosts, late": [steady(host, timeout=wait.PATIENCE) for host in hosts]},
        back=[("h1", 4), ("h1", 6)],
    )
    assert daemon.dropped() == 0


def test_the_process_is_stopped(start, upstreams, both, trial):
    """Nobody is served. What has waited in the sockets is served late; queries older than 10 s are forgotten."""
    seconds = scaled(1.5, 15)
    daemon = start([LAN], one_server(1, 2))
    hosts = both("h1")
    warm(*hosts)

    def cause() -> None:
        daemon.signal(SIGSTOP)
        go_on(seconds)
        daemon.signal(SIGCONT)

    turns = [steady(host, timeout=seconds + wait.PATIENCE) for host in hosts]
    result = trial(
        f"stopped for {seconds:g} s", cause, suffers={"all hosts, late": turns}, back=[("h1", 4), ("h1", 6)]
    )
    assert result["all hosts, late"].lost <= (0 if seconds < 10 else 64)


DAY = 86400


def test_the_wall_clock_is_set(start, upstreams, client, both, trial):
    """Nothing looks at it: a record that lives when it is set lives on for its 10 seconds, no more and no less."""
    clock = Path("/tmp/wall-clock")
    clock.write_bytes(bytes(16))
    environment = {
        "LD_PRELOAD": programs.path("tests/wall_clock.so"),
        "WALL_CLOCK": str(clock),
        "ASAN_OPTIONS": "verify_asan_link_order=0:" + os.environ.get("ASAN_OPTIONS", ""),
    }
    daemon = start([LAN], one_server(1, 2), environment=environment)
    hosts = both("h1")
    warm(*hosts)
    asker = client("h2")
    port = asker.open()

    def identifier() -> int:
        """Under which the same query leaves."""
        assert asker.ask("clock.test", ident=7, port=port) is not None
        queries = [query for number in (1, 2) for query in upstreams[number].queries if b"clock" in query.data]
        return max(queries, key=lambda query: query.at).ident

    def cause() -> None:
        remembered = time.monotonic()
        first = identifier()
        for offset in (DAY, -DAY, 0):
            with open(clock, "r+b") as file:
                file.write(struct.pack("=q", offset))
            go_on(scaled(0.5, 2))
            assert identifier() == first, f"the clock is off by {offset} s"
        if SCALE >= 10:
            go_on(remembered + 10.2 - time.monotonic())
            assert identifier() != first

    turns = {"all hosts": [steady(host) for host in hosts], "pipe": [calling(ask_pipe)]}
    trial("the wall clock set by a day, both ways", cause, serves=turns, back=[("h1", 4), ("h1", 6)])
    looks = struct.unpack("=qQ", clock.read_bytes())[1]
    assert looks == 0, "times that the daemon looked at the wall clock"
    assert str(clock) in Path(f"/proc/{daemon.pid}/maps").read_text(encoding="ascii"), "the clock is not ours"
