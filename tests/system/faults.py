"""What the fault runs share: hosts that ask all the time, a host with every port, and the table of figures.

The environment variable DNSPROXYD_SCALE lengthens the faults, from their short form at 1 to the full one at 10;
DNSPROXYD_FIGURES names a file that gets one JSON object per row of the table.
"""

import contextlib
import json
import os
import select
import socket
import struct
import threading
import time
from collections.abc import Callable, Iterable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass

from lab import dns, netns, plan
from lab.client import Bulk, Client

SCALE = float(os.environ.get("DNSPROXYD_SCALE", "1"))
FIGURES = os.environ.get("DNSPROXYD_FIGURES")

# Seconds in which a host whom a fault does not touch has its reply, also on a machine that does much else.
SOON = 4.0

_SO_RCVBUFFORCE = 33
_IPV6_CHECKSUM = 7
_UDP = struct.Struct("!4H")  # source and destination port, length, checksum


def scaled(short: float, full: float) -> float:
    """How much of a fault this run wants: the short form, the full one, or something between them."""
    return short + (full - short) * min(1.0, max(0.0, (SCALE - 1) / 9))


@dataclass
class Row:
    """What became of some queries or requests in one fault."""

    fault: str
    who: str
    asked: int
    answered: int
    lost: int
    worst_ms: float  # the longest wait for a reply
    back_ms: float | None = None  # from the end of the fault to the first reply


class Table:
    """The rows of a run."""

    def __init__(self):
        self.rows: list[Row] = []

    def add(self, row: Row) -> None:
        self.rows.append(row)
        if FIGURES:
            with open(FIGURES, "a", encoding="utf-8") as file:
                file.write(json.dumps(asdict(row)) + "\n")

    def __str__(self) -> str:
        lines = [f"{'fault':44} {'who':26} {'asked':>7} {'answered':>8} {'lost':>6} {'worst ms':>8} {'back ms':>8}"]
        for r in self.rows:
            back = "" if r.back_ms is None else f"{r.back_ms:.0f}"
            figures = f"{r.asked:7} {r.answered:8} {r.lost:6} {r.worst_ms:8.0f} {back:>8}"
            lines.append(f"{r.fault:44} {r.who:26} {figures}")
        return "\n".join(lines)


def total(runs: Iterable[Bulk]) -> Bulk:
    """Several runs as one."""
    result = Bulk()
    for run in runs:
        for name in ("sent", "answered", "duplicates", "wrong_ident", "wrong_question", "lost", "latencies"):
            setattr(result, name, getattr(result, name) + getattr(run, name))
    return result


Turn = Callable[[], Bulk]


def steady(host: Client, rate: float = scaled(50, 200), timeout: float = SOON, qtype: str = "A") -> Turn:
    """Half a second of queries at a rate, at most 32 of them without reply at a time."""
    return lambda: host.bulk(round(rate / 2), rate=rate, outstanding=32, timeout=timeout, qtype=qtype)


def repeating(host: Client, after: float = 0.1, tries: int = 10) -> Turn:
    """One query, which the host repeats until it is answered."""
    port = host.open()

    def turn() -> Bulk:
        ident = host.fresh_ident(port)
        started = time.monotonic()
        for _ in range(tries):
            if host.ask(ident=ident, port=port, timeout=after) is not None:
                return Bulk(sent=1, answered=1, latencies=[time.monotonic() - started])
        return Bulk(sent=1, lost=1)

    return turn


def calling(function: Callable[[], object], per_second: float = 20) -> Turn:
    """One request of another kind, which raises when it fails."""

    def turn() -> Bulk:
        started = time.monotonic()
        function()
        waited = time.monotonic() - started
        time.sleep(max(0.0, 1 / per_second - waited))
        return Bulk(sent=1, answered=1, latencies=[waited])

    return turn


@contextlib.contextmanager
def asking(turns: Iterable[Turn]):
    """Takes turns, each in a thread of its own, and yields the list that holds all their results in the end."""
    end = threading.Event()
    runs: list[Bulk] = []

    def take(turn: Turn) -> None:
        while not end.is_set():
            runs.append(turn())

    turns = list(turns)
    with ThreadPoolExecutor(max(1, len(turns))) as pool:
        futures = [pool.submit(take, turn) for turn in turns]
        try:
            yield runs
        finally:
            end.set()
    for future in futures:
        future.result()


class ManyPorts:
    """A host that asks from every port without opening any, by a raw socket."""

    def __init__(self, host: str, family: int):
        self._host = plan.HOSTS[host]
        self._to = (self._host.router(family), 0)
        self._ip_header = 20 if family == 4 else 0  # bytes in front of what is received
        with netns.inside(host):
            kind = socket.AF_INET if family == 4 else socket.AF_INET6
            self._socket = socket.socket(kind, socket.SOCK_RAW | socket.SOCK_NONBLOCK, socket.IPPROTO_UDP)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 32 << 20)
        if family == 6:
            self._socket.setsockopt(socket.IPPROTO_IPV6, _IPV6_CHECKSUM, 6)

    def __enter__(self) -> "ManyPorts":
        return self

    def __exit__(self, *_exception) -> None:
        self._socket.close()

    def ask(self, ports: Iterable[int], rate: float, outstanding: int = 0, timeout: float = SOON) -> Bulk:
        """Asks once from each port; with `outstanding` it waits while so many are unanswered, else it does not."""
        result, flying = Bulk(), {}
        started = time.monotonic()
        for number, port in enumerate(ports):
            while (early := started + number / rate - time.monotonic()) > 0.001:
                time.sleep(early)
                self._receive(flying, result)
            if outstanding and len(flying) >= outstanding:
                self._wait(flying, result, outstanding - 1, timeout)
            message = dns.query(number & 0xFFFF, f"p{port}.ports.test", "A")
            self._socket.sendto(_UDP.pack(port, 53, _UDP.size + len(message), 0) + message, self._to)
            flying[port, number & 0xFFFF] = time.monotonic()
            result.sent += 1
            if number % 16 == 0:
                self._receive(flying, result)
        self._wait(flying, result, 0, timeout if outstanding else 0)
        result.lost += len(flying)
        result.seconds = time.monotonic() - started
        return result

    def _wait(self, flying: dict, result: Bulk, few: int, timeout: float) -> None:
        """Until few are left without reply; those for which that takes too long are lost."""
        deadline = time.monotonic() + timeout
        while len(flying) > few and time.monotonic() < deadline:
            select.select([self._socket], [], [], 0.05)
            self._receive(flying, result)
        while len(flying) > few and timeout > 0:
            del flying[next(iter(flying))]
            result.lost += 1

    def _receive(self, flying: dict, result: Bulk) -> None:
        with contextlib.suppress(BlockingIOError):
            while True:
                data = self._socket.recv(4096)[self._ip_header :]
                source, port, _, _ = _UDP.unpack_from(data)
                asked = flying.pop((port, dns.ident(data[_UDP.size :])), None)
                if source == 53 and asked is not None:
                    result.answered += 1
                    result.latencies.append(time.monotonic() - asked)
