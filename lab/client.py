"""A host that asks.

A Client asks the router from one host, over IPv4 or IPv6: single queries with the identifier, port
and bytes that a test wants, or thousands with `bulk`, which checks every reply against its
question.

The daemon keeps a query for ten seconds and sends what the same host repeats from the same port
under the same identifier as the same query. So the pairs that are drawn here are distinct for the
life of a Client.
"""

import random
import select
import socket
import time
from collections import deque
from dataclasses import dataclass, field

from lab import dns, netns, plan, wait

_SO_RCVBUFFORCE = 33


@dataclass
class Bulk:
    """What became of the queries of one bulk run."""

    sent: int = 0
    answered: int = 0  # queries that got their own reply
    duplicates: int = 0  # further replies to those
    wrong_ident: int = 0  # replies under an identifier that was not in use on that port
    wrong_question: int = 0  # replies to another question than the one asked under that identifier
    lost: int = 0
    seconds: float = 0.0
    latencies: list[float] = field(default_factory=list)  # seconds, of the answered

    @property
    def rate(self) -> float:
        """Answered queries per second."""
        return self.answered / self.seconds if self.seconds > 0 else 0.0

    def percentile(self, percent: float) -> float:
        """Latency that so many percent of the answered queries stayed below, in seconds."""
        ordered = sorted(self.latencies)
        return ordered[min(len(ordered) - 1, int(len(ordered) * percent / 100))] if ordered else 0.0


class Client:
    """Asks from one host in one family; sockets stay open until it is closed.

    The host is the name of one of `plan.HOSTS`, or None for the router, which asks itself on
    loopback.
    """

    def __init__(self, host: str | None = "h1", family: int = 4, to: str | None = None):
        self.host = plan.ROUTER if host is None else plan.HOSTS[host]
        self.family = family
        self.address = self.host.address4 if family == 4 else self.host.address6
        self.to = to or self.host.router(family)
        self._sockets: dict[int, socket.socket] = {}  # by port
        self._used: set[tuple[int, int]] = set()  # (port, identifier)
        self._random = random.Random()

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def close(self) -> None:
        for sock in self._sockets.values():
            sock.close()
        self._sockets.clear()

    def open(self, port: int = 0) -> int:
        """Opens a port, any free one for 0, and returns its number; an open one is kept."""
        if port not in self._sockets:
            family = socket.AF_INET if self.family == 4 else socket.AF_INET6
            with netns.inside(self.host.name or None):
                sock = socket.socket(family, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
            sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 8 << 20)
            sock.bind((self.address, port))
            port = sock.getsockname()[1]
            self._sockets[port] = sock
        return port

    def ports(self) -> list[int]:
        """The open ports."""
        return list(self._sockets)

    def send(self, payload: bytes, port: int = 0) -> int:
        """Sends any datagram to port 53 of the router; returns the port it left from."""
        port = self.open(port)
        self._used.add((port, dns.ident(payload)))
        self._sockets[port].sendto(payload, (self.to, 53))
        return port

    def receive(self, port: int, timeout: float = wait.PATIENCE) -> bytes | None:
        """The next datagram that arrives at a port, or None after `timeout`."""
        sock = self._sockets[port]
        if not select.select([sock], [], [], timeout)[0]:
            return None
        return sock.recv(65535)

    def waiting(self, port: int) -> list[bytes]:
        """The datagrams that have arrived at a port by now."""
        found = []
        try:
            while True:
                found.append(self._sockets[port].recv(65535))
        except BlockingIOError:
            return found

    def fresh_ident(self, port: int) -> int:
        """An identifier that this client has not used on this port."""
        while True:
            ident = self._random.randrange(65536)
            if (port, ident) not in self._used:
                return ident

    def ask(
        self,
        name: str = "where.test",
        qtype: str = "TXT",
        *,
        ident: int | None = None,
        port: int = 0,
        timeout: float = wait.PATIENCE,
    ) -> dns.Message | None:
        """Asks one question and returns the reply under its identifier, or None after `timeout`."""
        port = self.open(port)
        ident = self.fresh_ident(port) if ident is None else ident
        self.send(dns.query(ident, name, qtype), port)
        deadline = time.monotonic() + timeout
        while (left := deadline - time.monotonic()) > 0:
            data = self.receive(port, left)
            if data is not None and dns.ident(data) == ident:
                return dns.parse(data)
        return None

    def bulk(
        self,
        count: int,
        *,
        outstanding: int = 64,
        ports: int = 8,
        rate: float | None = None,
        unanswered: int = 0,
        timeout: float = wait.PATIENCE,
        qtype: str = "A",
    ) -> Bulk:
        """Sends `count` queries, at most `outstanding` of them unanswered at any time.

        A query without reply after `timeout` seconds is lost and makes room for the next. The run
        ends without the last `unanswered`, when servers ignore so many. `rate` limits the queries
        sent per second. Where every reply counts, keep at most 128 outstanding: a socket of the
        daemon holds 256 datagrams, and a query in fixed mode brings two replies. With more than 256
        replies of the free choice can be dropped by design.
        """
        if not 0 < outstanding <= 256:
            raise ValueError("outstanding must be 1 to 256")
        run = _BulkRun(self, count, outstanding, ports, qtype)
        return run.drive(rate, unanswered, timeout)

    def _draw(self, count: int, ports: int) -> list[tuple[int, int]]:
        """Random pairs of port and identifier, spread over several ports and never used before."""
        while len(self._sockets) < ports:
            self.open()
        numbers = list(self._sockets)[:ports]
        free = len(numbers) * 65536 - len(self._used)
        if count > free:
            raise ValueError(f"only {free} pairs left on {ports} ports; take more ports")
        pairs: list[tuple[int, int]] = []
        while len(pairs) < count:
            pair = (self._random.choice(numbers), self._random.randrange(65536))
            if pair not in self._used:
                self._used.add(pair)
                pairs.append(pair)
        return pairs


class _BulkRun:
    """One run of `Client.bulk`: queries are prepared first, then driven in one loop."""

    def __init__(self, client: Client, count: int, outstanding: int, ports: int, qtype: str):
        self.result = Bulk()
        self._sockets = client._sockets
        self._to = (client.to, 53)
        self._outstanding = outstanding
        self._queries = [
            (port, ident, dns.query(ident, f"q{i:07}.bulk.test", qtype))
            for i, (port, ident) in enumerate(client._draw(count, ports))
        ]
        self._flying: dict[tuple[int, int], tuple[float, bytes]] = {}
        self._order: deque[tuple[float, tuple[int, int]]] = deque()  # for the timeouts
        self._done: set[tuple[int, int]] = set()
        self._epoll = select.epoll()
        self._by_fd = {}
        for port, sock in self._sockets.items():
            self._by_fd[sock.fileno()] = (port, sock)
            self._epoll.register(sock, select.EPOLLIN)

    def drive(self, rate: float | None, unanswered: int, timeout: float) -> Bulk:
        result, flying = self.result, self._flying
        started = now = time.monotonic()
        for number, (port, ident, data) in enumerate(self._queries):
            while len(flying) >= self._outstanding:
                self._receive(0.05)
                self._expire(timeout)
            while rate is not None and (wait_for := started + number / rate - time.monotonic()) > 0:
                self._receive(wait_for)
                self._expire(timeout)
            now = time.monotonic()
            self._sockets[port].sendto(data, self._to)
            flying[port, ident] = (now, data)
            self._order.append((now, (port, ident)))
            result.sent += 1
            if number % 16 == 0:
                self._receive(0)
        while len(flying) > unanswered:
            self._receive(0.05)
            self._expire(timeout)
        result.lost += len(flying)
        result.seconds = time.monotonic() - started
        self._epoll.close()
        return result

    def _receive(self, wait_for: float) -> None:
        result = self.result
        for fd, _ in self._epoll.poll(wait_for):
            port, sock = self._by_fd[fd]
            for _ in range(64):
                try:
                    data = sock.recv(65535)
                except BlockingIOError:
                    break
                key = (port, dns.ident(data))
                entry = self._flying.get(key)
                if entry is None:
                    if key in self._done:
                        result.duplicates += 1
                    else:
                        result.wrong_ident += 1
                elif data[12 : len(entry[1])] != entry[1][12:] or not data[2] & 0x80:
                    result.wrong_question += 1
                else:
                    del self._flying[key]
                    self._done.add(key)
                    result.answered += 1
                    result.latencies.append(time.monotonic() - entry[0])

    def _expire(self, timeout: float) -> None:
        limit = time.monotonic() - timeout
        while self._order and self._order[0][0] < limit:
            _, key = self._order.popleft()
            if self._flying.pop(key, None) is not None:
                self.result.lost += 1
