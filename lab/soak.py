"""The soak: the daemon under everything at once for as long as wanted, and what it takes for that.

Hosts ask over both families while lines go down, are deleted and made again, servers are added, set and deleted
through the request pipe, and link states are told over the bus. All of that is one cycle of 15 seconds which repeats
to the end, so that any two cycles can be compared:

     0.0   free hosts    quiet: the control interfaces are asked, nothing is changed, every reply is counted
     3.4   forced hosts  quiet
     5.8   free hosts    lines, servers and devices come and go
    10.8   forced hosts  their line goes down, is deleted, comes back
    14.2   nobody        at rest: the figures are read that are compared in the end

Free and forced hosts take turns, since a forced query is answered only while the latest query was a forced one.

The verdict compares the end with the state after two minutes, and the last quarter of what follows with the first.
"""

import argparse
import contextlib
import csv
import math
import os
import re
import select
import socket
import statistics
import subprocess
import sys
import threading
import time
from collections import deque
from collections.abc import Callable, Iterator
from dataclasses import astuple, dataclass, fields
from pathlib import Path

from lab import chart, daemon, dns, files, netns, plan
from lab.broker import Broker, Caller, Status
from lab.daemon import Daemon
from lab.router import Lab
from lab.upstream import Upstream

CYCLE = 15.0  # seconds
WARM_UP = 8  # cycles: the first two minutes, in which tables, heap and sockets get the size that they keep
RECORD_LIFE = 10.0  # seconds that the daemon remembers a query, answered or not
PATIENCE = 1.0  # seconds after which a query without reply is lost
OUTSTANDING = 128  # queries of one asker without reply at any time; in quiet times, of all together
BUS = "/var/run/ubus.sock"

# What resident memory may differ by: a page cluster, the 64 KiB that the kernel maps around one fault in a file.
# Resident memory moves by that much without the daemon's having asked for any.
PAGE_CLUSTER_KIB = 64
CPU_GROWTH = 1.05  # processor time per query, last quarter to first
AT_REST = 2  # cycles whose figures at rest make the state after the warm-up, and that of the end

RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
    {"name": "dnsproxy_pppoes", "service_if": "PPPOES"},
    {"name": "pppoe", "service_if": "PPPOES", "out_type": "polling"},
    {"name": "ppp", "service_if": "PPP"},
    {"name": "self", "service_if": "loopback"},
]
LINES = (1, 2, 3)

# Who asks, over which family, how often per second; None is the router itself.
FREE = [("h1", 4, 600), ("h1", 6, 600), ("h2", 4, 300), ("h2", 6, 300), ("p1", 4, 80), ("p1", 6, 80), (None, 4, 80)]
FORCED = [("g1", 4, 500), ("g1", 6, 500)]


class Asker:
    """A host that asks at a steady rate from a few ports, and counts what becomes of each query."""

    _PORTS = 4

    def __init__(self, host: str | None, family: int, rate: float):
        self.host = plan.ROUTER if host is None else plan.HOSTS[host]
        self.rate = rate
        self.asked = self.answered = self.lost = self.wrong = self.unsent = 0
        self.flying: dict[tuple[int, int], float] = {}  # descriptor and identifier, and when it was asked
        self._order: deque[tuple[float, tuple[int, int]]] = deque()
        self._to = (self.host.router(family), 53)
        self._tail = dns.query(0, "soak.test", "A")[2:]
        self._credit = 0.0
        self._next = 0
        address = self.host.address4 if family == 4 else self.host.address6
        self.sockets: dict[int, socket.socket] = {}
        with netns.inside(self.host.name or None):
            for _ in range(self._PORTS):
                sock = socket.socket(socket.AF_INET if family == 4 else socket.AF_INET6, socket.SOCK_DGRAM)
                sock.setblocking(False)
                sock.bind((address, 0))
                self.sockets[sock.fileno()] = sock
        self._fds = list(self.sockets)

    def turn(self, now: float, seconds: float, room: int) -> None:
        """Asks what is due after so many seconds more, at most `room` queries. What is missed is not made up for."""
        self._credit = min(self._credit + self.rate * seconds, self.rate * 0.05 + 1)
        while self._credit >= 1:
            self._credit -= 1
            if room > 0:
                self._ask(now)
                room -= 1

    def _ask(self, now: float) -> None:
        # Port and identifier come back only after a quarter of a million queries: no query is a repeated one.
        fd = self._fds[self._next % self._PORTS]
        ident = self._next // self._PORTS % 65536
        self._next += 1
        try:
            self.sockets[fd].sendto(ident.to_bytes(2, "big") + self._tail, self._to)
        except OSError:
            self.unsent += 1  # the host's own device is away
            return
        self.asked += 1
        self.flying[fd, ident] = now
        self._order.append((now, (fd, ident)))

    def receive(self, fd: int) -> None:
        for _ in range(64):
            try:
                data = self.sockets[fd].recv(4096)
            except OSError:
                return
            if data[12 : 2 + len(self._tail)] != self._tail[10:] or not data[2] & 0x80:
                self.wrong += 1
            elif self.flying.pop((fd, dns.ident(data)), None) is not None:
                self.answered += 1

    def expire(self, now: float) -> None:
        while self._order and self._order[0][0] < now - PATIENCE:
            if self.flying.pop(self._order.popleft()[1], None) is not None:
                self.lost += 1

    def close(self) -> None:
        for sock in self.sockets.values():
            sock.close()


class Load:
    """All askers, driven by one thread."""

    _TICK = 0.01

    def __init__(self):
        self.free = [Asker(*who) for who in FREE]
        self.forced = [Asker(*who) for who in FORCED]
        self.quiet_lost = 0  # while nothing was changed
        self._epoll = select.epoll()
        self._by_fd = {}
        for asker in self.all():
            for fd in asker.sockets:
                self._by_fd[fd] = asker
                self._epoll.register(fd, select.EPOLLIN)

    def all(self) -> list[Asker]:
        return self.free + self.forced

    def total(self, what: str) -> int:
        return sum(getattr(asker, what) for asker in self.all())

    def ask(self, askers: list[Asker], until: float, quiet: bool, besides: Callable[[float], None]) -> None:
        """Lets some hosts ask until a time, and waits for what is still in flight then."""
        lost = self.total("lost")
        before = time.monotonic()
        while True:
            now = time.monotonic()
            if now < until:
                for asker in askers:
                    flying = sum(len(each.flying) for each in askers) if quiet else len(asker.flying)
                    asker.turn(now, now - before, OUTSTANDING - flying)
            elif not any(asker.flying for asker in askers):
                break
            before = now
            self._receive(self._TICK)
            for asker in askers:
                asker.expire(now)
            besides(now)
        if quiet:
            self.quiet_lost += self.total("lost") - lost

    def _receive(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            time.sleep(min(left, 0.004))  # replies in handfuls cost less than one by one
            for fd, _ in self._epoll.poll(0):
                self._by_fd[fd].receive(fd)

    def close(self) -> None:
        self._epoll.close()
        for asker in self.all():
            asker.close()


class Yardstick:
    """Processor time of something that never changes, to tell a slow machine from a slow daemon.

    A datagram to itself: system calls, the network stack and a little memory, as a query has them.
    """

    _TRIPS = 100

    def __init__(self):
        self._sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._sock.bind(("127.0.0.1", 0))
        self._to = self._sock.getsockname()
        self._data = bytes(64)
        self.ns = self.trips = 0

    def measure(self) -> None:
        sock, to, data = self._sock, self._to, self._data
        before = time.thread_time_ns()
        for _ in range(self._TRIPS):
            sock.sendto(data, to)
            sock.recv(128)
        self.ns += time.thread_time_ns() - before
        self.trips += self._TRIPS

    def close(self) -> None:
        self._sock.close()


class Changes:
    """What happens to the router in a cycle, in a thread of its own; also all requests that change nothing."""

    def __init__(self, lab: Lab):
        self._ctl = str(Path(daemon.binary()).resolve().parent.parent / "tools/dnsproxyctl")
        self._caller = Caller(BUS)
        self.requests = self.calls = self.links = 0
        self.failure: BaseException | None = None
        self._thread: threading.Thread | None = None
        servers = {number: " ".join(plan.LINES[number].addresses) for number in plan.LINES}
        turned = " ".join(reversed(plan.LINES[2].addresses))
        pipe, told, link = self._pipe, self._told, self._link
        self._steps: list[tuple[float, Callable[[], None]]] = [
            (0.5, lambda: pipe("list")),
            (1.0, lambda: pipe("addrs")),
            (1.5, lambda: pipe("get WAN1")),
            (2.0, self._state),
            (3.8, lambda: pipe("--json list")),
            (4.3, lambda: pipe("get WAN2")),
            (4.8, self._state),
            # A line goes down, as the router's scripts tell it, and comes back.
            (6.0, lambda: link(lab.line_set, 1, False)),
            (6.0, lambda: told("wan1", "off")),
            (7.4, lambda: link(lab.line_set, 1, True)),
            (7.4, lambda: told("wan1", "on")),
            # A modem is pulled out and put in again.
            (6.3, lambda: told("wan3", "off")),
            (6.3, lambda: pipe("del WAN3")),
            (6.3, lambda: link(lab.line_delete, 3)),
            (8.2, lambda: link(lab.line_create, 3)),
            (8.2, lambda: pipe(f"add WAN3 {servers[3]}")),
            (8.2, lambda: told("wan3", "on")),
            # A VPN is dialled; everything else is refused what it may not have.
            (6.6, lambda: pipe(f"add VPN {servers[9]}")),
            (7.0, lambda: pipe(f"add VPN {servers[9]}", refused=True)),
            (7.8, lambda: pipe(f"set VPN {servers[9]}")),
            (9.0, lambda: pipe("del VPN")),
            (9.2, lambda: pipe("get VPN", refused=True)),
            (9.4, lambda: pipe("get IPTV", refused=True)),
            # A PPPoE client hangs up and dials in again.
            (8.6, lambda: link(netns.ip_batch, [f"link delete {plan.PPP}"])),
            (9.3, lambda: link(lab.host_create, "p1", plan.PPP)),
            (9.6, self._state),
            # The forced hosts' line: other order of its servers, down and up, deleted and made again.
            (11.0, lambda: pipe(f"set WAN2 {turned}")),
            (11.2, lambda: link(lab.line_set, 2, False)),
            (11.8, lambda: link(lab.line_set, 2, True)),
            (12.2, lambda: link(lab.line_delete, 2)),
            (12.8, lambda: link(lab.line_create, 2)),
            (13.2, lambda: pipe(f"put WAN2 {servers[2]}")),
            (13.4, lambda: told("wan2", "on")),
            (13.5, self._state),
        ]
        self._steps.sort(key=lambda step: step[0])

    def start(self, at: float) -> None:
        """Takes the steps of one cycle, each at its time after `at`."""
        self._thread = threading.Thread(target=self._run, args=(at,), name="changes", daemon=True)
        self._thread.start()

    def join(self) -> None:
        """Waits for the last step, and raises what went wrong in any."""
        self._thread.join(10 * CYCLE)
        if self._thread.is_alive():
            raise TimeoutError("the changes of a cycle do not end")
        if self.failure is not None:
            raise self.failure

    def close(self) -> None:
        self._caller.close()

    def _run(self, at: float) -> None:
        try:
            for offset, step in self._steps:
                time.sleep(max(0.0, at + offset - time.monotonic()))
                step()
        except BaseException as failure:  # join() raises it
            self.failure = failure

    def _pipe(self, command: str, refused: bool = False) -> None:
        argv = [self._ctl, *command.split()]
        result = subprocess.run(argv, capture_output=True, text=True, check=False, timeout=30)
        if result.returncode != (1 if refused else 0):
            raise RuntimeError(f"dnsproxyctl {command}: status {result.returncode}: {result.stderr}")
        self.requests += 1

    def _told(self, device: str, status: str) -> None:
        self._call("update_if", {"name": "soak", "dev": device, "status": status})

    def _state(self) -> None:
        self._call("get_state", {})

    def _call(self, method: str, arguments: dict[str, str]) -> None:
        status, _ = self._caller.call("dnsproxy", method, arguments)
        if status != Status.OK:
            raise RuntimeError(f"{method}: status {status}")
        self.calls += 1

    def _link(self, change: Callable, *arguments) -> None:
        change(*arguments)
        self.links += 1


@dataclass
class Sample:
    """The daemon at one moment; the counts are of the whole run so far."""

    seconds: float
    cycle: int
    at_rest: bool
    resident_kib: int
    anonymous_kib: int
    descriptors: int
    in_flight: int  # queries that reached the daemon's port in the last 10 s: one record each, or none if refused
    cpu_ns: int
    asked: int
    answered: int
    lost: int
    quiet_lost: int
    yardstick_ns: int
    yardstick_trips: int


def memory_kib(pid: int) -> tuple[int, int]:
    """Resident memory, and its part that is the process's own."""
    status = Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return tuple(int(re.search(rf"^{name}:\s+(\d+) kB$", status, re.MULTILINE)[1]) for name in ("VmRSS", "RssAnon"))


class Soak:
    """One run: cycles of load and changes, and a sample every three seconds."""

    _SAMPLE = 3.0

    def __init__(self, proxy: Daemon, load: Load, changes: Changes, yardstick: Yardstick, cycles: int):
        self.proxy, self.load, self.changes, self.yardstick = proxy, load, changes, yardstick
        self.cycles = cycles
        self.samples: list[Sample] = []
        self._asked: deque[tuple[float, int]] = deque([(0.0, 0)])  # queries so far, twice a second
        self._cycle = 0
        self._started = self._second = self._due = 0.0

    def run(self) -> None:
        self._started = time.monotonic()
        at = self._started
        for self._cycle in range(self.cycles):
            self._one_cycle(at)
            # A cycle that the machine has held up is not made up for: no ten seconds see more than their queries.
            at = max(at + CYCLE, time.monotonic())
            if self._cycle % 20 == 19 or self._cycle + 1 == self.cycles:
                latest = self.samples[-1]
                print(
                    f"{latest.seconds / 60:5.1f} min  {latest.resident_kib} KiB  {latest.descriptors} descriptors"
                    f"  {latest.asked:,} asked, {latest.lost:,} lost, {latest.quiet_lost} of them in quiet times",
                    flush=True,
                )

    def _one_cycle(self, at: float) -> None:
        self.changes.start(at)
        self._due = at + self._SAMPLE
        for askers, begin, end, quiet in (
            (self.load.free, 0.0, 3.0, True),
            (self.load.forced, 3.4, 5.4, True),
            (self.load.free, 5.8, 10.4, False),
            (self.load.forced, 10.8, 14.0, False),
        ):
            self._idle(at + begin)
            self.load.ask(askers, max(at + end, time.monotonic() + end - begin), quiet, self._besides)
        self.changes.join()
        self._due = math.inf
        self._idle(at + CYCLE - 0.2)
        if not self.proxy.alive():
            raise RuntimeError(f"the daemon ended with status {self.proxy.process.returncode}")
        self._sample(time.monotonic(), at_rest=True)
        self._idle(at + CYCLE)

    def _idle(self, until: float) -> None:
        while (now := time.monotonic()) < until:
            self._besides(now)
            time.sleep(min(0.05, until - now))

    def _besides(self, now: float) -> None:
        """What is done once in a while during everything else."""
        if now >= self._second:
            self._second = now + 0.5
            self.yardstick.measure()
            self._asked.append((now, self.load.total("asked")))
            while self._asked[0][0] < now - RECORD_LIFE:
                self._asked.popleft()
        if now >= self._due:
            self._due += self._SAMPLE
            self._sample(now, at_rest=False)

    def _sample(self, now: float, at_rest: bool) -> None:
        asked = self.load.total("asked")
        self.samples.append(
            Sample(
                now - self._started,
                self._cycle,
                at_rest,
                *memory_kib(self.proxy.pid),
                len(self.proxy.fds()),
                asked - self._asked[0][1],
                self.proxy.cpu_ns(),
                asked,
                self.load.total("answered"),
                self.load.total("lost"),
                self.load.quiet_lost,
                self.yardstick.ns,
                self.yardstick.trips,
            )
        )


@dataclass
class Cost:
    """Processor time of one cycle."""

    us_per_query: float
    yardstick_us: float


def costs(rests: list[Sample]) -> list[Cost]:
    """Of every cycle but the first, from rest to rest."""
    return [
        Cost(
            (late.cpu_ns - early.cpu_ns) / 1000 / (late.asked - early.asked),
            (late.yardstick_ns - early.yardstick_ns) / 1000 / (late.yardstick_trips - early.yardstick_trips),
        )
        for early, late in zip(rests, rests[1:])
    ]


@dataclass
class Span:
    """A row of the table: some cycles in a row."""

    name: str
    rests: list[Sample]
    costs: list[Cost]
    asked: int
    answered: int
    lost: int
    quiet_lost: int

    @property
    def resident_kib(self) -> int:
        return max(rest.resident_kib for rest in self.rests)

    @property
    def anonymous_kib(self) -> int:
        return max(rest.anonymous_kib for rest in self.rests)

    @property
    def descriptors(self) -> int:
        return max(rest.descriptors for rest in self.rests)

    @property
    def in_flight(self) -> int:
        return max(rest.in_flight for rest in self.rests)

    # The middle of the cycles: one in which the machine did other work does not count.
    @property
    def us_per_query(self) -> float:
        return statistics.median(cost.us_per_query for cost in self.costs)

    @property
    def relative(self) -> float:
        """Processor time per query in trips of the yardstick."""
        return statistics.median(cost.us_per_query / cost.yardstick_us for cost in self.costs)


def span(name: str, rests: list[Sample], begin: int, end: int) -> Span:
    """The cycles from `begin` up to `end`; begin must be 1 at least."""
    first, last = rests[begin - 1], rests[end - 1]
    counts = (getattr(last, what) - getattr(first, what) for what in ("asked", "answered", "lost", "quiet_lost"))
    return Span(name, rests[begin:end], costs(rests)[begin - 1 : end - 1], *counts)


def spans(rests: list[Sample]) -> list[Span]:
    """The state after the warm-up, four quarters of what follows, the state at the end."""
    total = len(rests)
    edges = [WARM_UP + (total - WARM_UP) * quarter // 4 for quarter in range(5)]
    return [
        span("after 2 minutes", rests, WARM_UP - AT_REST, WARM_UP),
        *(span(f"quarter {n + 1}", rests, edges[n], edges[n + 1]) for n in range(4)),
        span("end", rests, total - AT_REST, total),
    ]


def table(rows: list[Span]) -> str:
    lines = [
        "                  resident  its own  descriptors  in flight  CPU/query          in    queries    lost      lost in",
        "                       KiB      KiB                                 us  yardsticks      asked          quiet times",
    ]
    for row in rows:
        lines.append(
            f"{row.name:<16}  {row.resident_kib:>8}  {row.anonymous_kib:>7}  {row.descriptors:>11}"
            f"  {row.in_flight:>9}  {row.us_per_query:>9.1f}  {row.relative:>10.3f}  {row.asked:>9,}"
            f"  {row.lost:>6,}  {row.quiet_lost:>11}"
        )
    return "\n".join(lines)


def verdict(rows: list[Span]) -> list[tuple[bool, str]]:
    """Each thing that must hold, whether it does, and the figures."""
    start, first, last, end = rows[0], rows[1], rows[4], rows[5]
    grown = end.resident_kib - start.resident_kib
    own = end.anonymous_kib - start.anonymous_kib
    plain = last.us_per_query / first.us_per_query
    relative = last.relative / first.relative
    lost = sum(row.quiet_lost for row in rows[1:5])
    return [
        (grown <= PAGE_CLUSTER_KIB, f"resident memory at the end: {grown:+} KiB, at most +{PAGE_CLUSTER_KIB}"),
        (own <= PAGE_CLUSTER_KIB, f"its own part of that: {own:+} KiB, at most +{PAGE_CLUSTER_KIB}"),
        (
            end.descriptors == start.descriptors,
            f"descriptors at the end: {end.descriptors}, after 2 minutes: {start.descriptors}",
        ),
        (
            relative <= CPU_GROWTH,
            f"CPU per query in yardsticks, last quarter to first: {relative:.3f}, at most {CPU_GROWTH}"
            f" (in microseconds {plain:.3f})",
        ),
        (lost == 0, f"queries lost while nothing was changed: {lost}"),
    ]


def picture(samples: list[Sample], title: str) -> str:
    rests = [sample for sample in samples if sample.at_rest]
    x = [rest.seconds / 60 for rest in rests]
    every = [sample.seconds / 60 for sample in samples]
    per_cycle = list(zip(rests, rests[1:]))

    def rate(what: str) -> list[tuple[float, float]]:
        return [(b.seconds / 60, (getattr(b, what) - getattr(a, what)) / (b.seconds - a.seconds)) for a, b in per_cycle]

    cost = costs(rests)
    scale = statistics.median(c.yardstick_us for c in cost)
    panels = [
        chart.Panel(
            "Memory, KiB",
            [
                chart.Series("resident", list(zip(every, (s.resident_kib for s in samples)))),
                chart.Series("of it its own", list(zip(every, (s.anonymous_kib for s in samples)))),
            ],
        ),
        chart.Panel("Open descriptors", [chart.Series("", list(zip(every, (s.descriptors for s in samples))))]),
        chart.Panel("Queries of the last 10 s", [chart.Series("", list(zip(every, (s.in_flight for s in samples))))]),
        chart.Panel(
            "Processor time per query, µs, by cycle",
            [
                chart.Series("as measured", [(a, c.us_per_query) for a, c in zip(x[1:], cost)]),
                chart.Series(
                    "by the yardstick", [(a, c.us_per_query / c.yardstick_us * scale) for a, c in zip(x[1:], cost)]
                ),
            ],
        ),
        chart.Panel(
            "Queries per second, by cycle",
            [chart.Series(what, rate(what)) for what in ("asked", "answered", "lost")],
        ),
    ]
    return chart.svg(panels, title, "minutes", mark=WARM_UP * CYCLE / 60)


def write_samples(path: Path, samples: list[Sample]) -> None:
    with path.open("w", newline="", encoding="ascii") as file:
        writer = csv.writer(file)
        writer.writerow(field.name for field in fields(Sample))
        writer.writerows(astuple(sample) for sample in samples)


@contextlib.contextmanager
def everything(cycles: int) -> Iterator[Soak]:
    with contextlib.ExitStack() as stack:
        bus = stack.enter_context(Broker(BUS))
        lab = stack.enter_context(Lab())
        files.write_zone_api()
        files.write_rules(RULES)
        files.write_resolv(files.resolv_of_lines(*LINES))
        files.write_online_state({plan.LINES[number].device: "on" for number in LINES})
        for number in plan.LINES:
            stack.enter_context(Upstream(number, keep=False))
        # Its output is a dump for every forced query over IPv6: hundreds of megabytes in an hour.
        proxy = stack.enter_context(Daemon(stdout=subprocess.DEVNULL))
        bus.wait_for("dnsproxy")
        load = stack.enter_context(contextlib.closing(Load()))
        changes = stack.enter_context(contextlib.closing(Changes(lab)))
        yardstick = stack.enter_context(contextlib.closing(Yardstick()))
        yield Soak(proxy, load, changes, yardstick, cycles)


def parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__.partition("\n")[0])
    parser.add_argument("minutes", type=float, help="3 at least; 60 for a verdict that means something")
    parser.add_argument("--out", type=Path, default=daemon.TOP / "build/soak", help="folder for soak.csv and soak.svg")
    given = parser.parse_args()
    if not 3 <= given.minutes <= 24 * 60:
        parser.error("MINUTES must be 3 to 1440")
    return given


def main() -> int:
    given = parse()
    given.out.mkdir(parents=True, exist_ok=True)
    cycles = math.ceil(given.minutes * 60 / CYCLE)
    with everything(cycles) as soak:
        try:
            soak.run()
        finally:
            if soak.samples:
                write_samples(given.out / "soak.csv", soak.samples)
        dropped = soak.proxy.dropped()
        changes = soak.changes
        unsent, wrong = soak.load.total("unsent"), soak.load.total("wrong")
    rows = spans([sample for sample in soak.samples if sample.at_rest])
    title = f"dnsproxyd, {cycles * CYCLE / 60:g} minutes of mixed load"
    (given.out / "soak.svg").write_text(picture(soak.samples, title), encoding="utf-8")

    used = os.times()
    share = (used.user + used.system + used.children_user + used.children_system) / (cycles * CYCLE)
    print(f"\n{table(rows)}\n")
    print(
        f"{changes.requests:,} pipe requests, {changes.calls:,} bus calls, {changes.links:,} link changes;"
        f" {unsent} queries could not leave their host, {wrong} replies were wrong,"
        f" {dropped} datagrams found a socket full"
    )
    print(f"the whole lab took {share:.0%} of a core; samples and picture are in {given.out}\n")
    judged = [*verdict(rows), (wrong == 0, f"wrong replies: {wrong}")]
    for good, text in judged:
        print(f"{'ok    ' if good else 'FAILED'}  {text}")
    return 0 if all(good for good, _ in judged) else 1


if __name__ == "__main__":
    sys.exit(main())
