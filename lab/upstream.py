"""Scripted DNS servers behind a line.

An Upstream owns server addresses of one line. It keeps every query in the order of arrival and
answers by a policy: a function of the query that gives the replies to send, none or many. Policies
run in the thread that serves all Upstreams and can be changed at any time, for all addresses or for
one:

    with Upstream(1) as wan1:
        wan1.answer_with(silent, wan1.servers[0])
        wan1.answer_with(delayed(0.2), "10.0.1.54")

The usual answer says who gave it: its own address for a TXT question, its marks (`plan.Server`) for
A and AAAA.
"""

import functools
import heapq
import ipaddress
import itertools
import queue
import selectors
import socket
import threading
import time
from collections.abc import Callable, Iterable
from typing import NamedTuple

from lab import dns, netns, plan, wait
from lab.plan import Server


_SO_RCVBUFFORCE = 33
_IP_FREEBIND = 15
_IPV6_FREEBIND = 78


class Query(NamedTuple):
    """One datagram that arrived."""

    data: bytes
    source: tuple  # address and port, as the socket gives them
    server: Server  # the address it was sent to
    at: float  # seconds of the monotonic clock

    @property
    def ident(self) -> int:
        return dns.ident(self.data)


class Reply(NamedTuple):
    """One datagram to send back."""

    data: bytes
    after: float = 0.0  # seconds
    sender: str | None = None  # another address of the same Upstream to send it from


Policy = Callable[[Query], Iterable[Reply]]


def _answers(server: Server) -> dict[bytes, bytes]:
    rows = {
        dns.A: ipaddress.ip_address(server.mark4).packed,
        dns.AAAA: ipaddress.ip_address(server.mark6).packed,
        dns.TXT: dns.text_data(server.address),
    }
    return {qtype.to_bytes(2, "big"): dns.record(qtype, data) for qtype, data in rows.items()}


_ANSWERS = {s.address: _answers(s) for line in plan.LINES.values() for s in line.servers}
_ANSWERED = b"\x81\x80\x00\x01\x00\x01\x00\x00\x00\x00"  # flags and counts of a reply with one answer


def reply_to(query: Query) -> bytes:
    """The usual answer; anything but a query for A, AAAA or TXT is echoed as a response."""
    data = query.data
    # Without additional records, which is how the lab's client asks, the question ends the message.
    end = len(data) if data[10:12] == b"\0\0" else dns.question_end(data)
    answer = _ANSWERS[query.server.address].get(data[end - 4 : end - 2])
    if answer is None or end < dns.HEADER.size + 5:
        return data[:2] + bytes([data[2] | 0x80]) + data[3:] if len(data) > 2 else data
    return data[:2] + _ANSWERED + data[12:end] + answer


def answer(query: Query) -> Iterable[Reply]:
    """The usual answer at once."""
    return (Reply(reply_to(query)),)


def silent(_query: Query) -> Iterable[Reply]:
    """Nothing, as a dead server."""
    return ()


def delayed(seconds: float, policy: Policy = answer) -> Policy:
    """What another policy gives, later."""
    return lambda query: [r._replace(after=r.after + seconds) for r in policy(query)]


def _socket_at(server: Server, port: int) -> socket.socket:
    """A socket bound to the address, even while the line is away: it works when that is back."""
    if server.family == 4:
        sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        sock.setsockopt(socket.IPPROTO_IP, _IP_FREEBIND, 1)
    else:
        sock = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        sock.setsockopt(socket.IPPROTO_IPV6, _IPV6_FREEBIND, 1)
    sock.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 8 << 20)
    sock.bind((server.address, port))
    return sock


class Loop:
    """One thread that receives on many sockets in turn and sends what is due later.

    Fairness between sockets matters: a server that falls hundreds of queries behind another one is
    a slow server, and nobody wants that from a busy thread. So all Upstreams share one Loop.
    """

    _BATCH = 4  # datagrams from one socket before the next socket's turn

    def __init__(self):
        self._selector = selectors.EpollSelector()
        self._due: list[tuple[float, int, Callable[[], None]]] = []
        self._order = itertools.count()
        self._calls: queue.SimpleQueue[Callable[[], None]] = queue.SimpleQueue()
        self._wake_read, self._wake_write = socket.socketpair()
        self._wake_read.setblocking(False)
        self._selector.register(self._wake_read, selectors.EVENT_READ)
        self._running = True
        self._thread = threading.Thread(target=self._run, name="upstreams", daemon=True)
        self._thread.start()

    def call(self, function: Callable[[], None]) -> None:
        """Runs a function in the loop's thread, between two datagrams, and waits for it."""
        done = threading.Event()
        self._calls.put(lambda: (function(), done.set()))
        self._wake_write.send(b"x")
        done.wait()

    def add(self, sock: socket.socket, received: Callable[[bytes, tuple], None]) -> None:
        """Calls `received` with every datagram and its source, in the loop's thread."""
        self._selector.register(sock, selectors.EVENT_READ, received)

    def remove(self, sock: socket.socket) -> None:
        """Ends that; to be run by `call`."""
        self._selector.unregister(sock)

    def later(self, at: float, function: Callable[[], None]) -> None:
        """Runs a function at a time of the monotonic clock; to be called in the loop's thread."""
        heapq.heappush(self._due, (at, next(self._order), function))

    def close(self) -> None:
        def stop() -> None:
            self._running = False

        self.call(stop)
        self._thread.join()
        self._selector.close()
        self._wake_read.close()
        self._wake_write.close()

    def _run(self) -> None:
        while self._running:
            timeout = None if not self._due else max(0.0, self._due[0][0] - time.monotonic())
            for key, _ in self._selector.select(timeout):
                if key.fileobj is self._wake_read:
                    self._wake_read.recv(4096)
                else:
                    self._receive(key.fileobj, key.data)
            while self._due and self._due[0][0] <= time.monotonic():
                heapq.heappop(self._due)[2]()
            while not self._calls.empty():
                self._calls.get()()

    def _receive(self, sock: socket.socket, received: Callable[[bytes, tuple], None]) -> None:
        for _ in range(self._BATCH):
            try:
                received(*sock.recvfrom(65535))
            except BlockingIOError:
                return


@functools.cache
def shared_loop() -> Loop:
    """The Loop of all Upstreams, which lives as long as the process."""
    return Loop()


class Upstream:
    """Serves addresses of one line, all four of them by default, until it is closed."""

    def __init__(
        self,
        line: int,
        servers: Iterable[Server | str] | None = None,
        policy: Policy = answer,
        *,
        port: int = 53,
        keep: bool = True,
        loop: Loop | None = None,
    ):
        """With `keep` off the queries are counted but not kept, for loads of millions."""
        addresses = plan.LINES[line].servers if servers is None else servers
        self.servers = [plan.server_at(a) if isinstance(a, str) else a for a in addresses]
        self.queries: list[Query] = []
        self.count = 0
        self.unsent = 0  # replies that could not be sent: the line is down or gone
        self._keep = keep
        self._policies = {server.address: policy for server in self.servers}
        self._sockets: dict[str, socket.socket] = {}
        self._loop = loop or shared_loop()
        with netns.inside(plan.LINES[line].netns):
            for server in self.servers:
                self._sockets[server.address] = _socket_at(server, port)
        for server in self.servers:
            self._loop.add(self._sockets[server.address], functools.partial(self._received, server))

    def __enter__(self) -> "Upstream":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def close(self) -> None:
        """Closes the sockets; what arrived stays readable, what is still due is not sent."""

        def leave() -> None:
            for sock in self._sockets.values():
                self._loop.remove(sock)
                sock.close()
            self._sockets.clear()

        self._loop.call(leave)

    def answer_with(self, policy: Policy, server: Server | str | None = None) -> None:
        """Sets the policy of one address, or of all."""
        if server is None:
            self._policies = dict.fromkeys(self._policies, policy)
        else:
            address = server.address if isinstance(server, Server) else server
            if address not in self._policies:
                raise KeyError(address)
            self._policies = self._policies | {address: policy}

    def wait_for(self, count: int, timeout: float = wait.PATIENCE) -> list[Query]:
        """Waits until so many queries have arrived in all, and returns them."""
        wait.until(lambda: self.count >= count, f"{count} queries (got {self.count})", timeout)
        return self.queries[:]

    def clear(self) -> None:
        """Forgets the queries so far."""
        self.queries.clear()
        self.count = 0

    def at(self, server: Server | str) -> list[Query]:
        """The queries that one address received."""
        address = server.address if isinstance(server, Server) else server
        return [query for query in self.queries if query.server.address == address]

    def answer_now(self, query: Query, policy: Policy = answer) -> None:
        """Sends what a policy gives for a query that arrived earlier."""
        self._loop.call(lambda: self._reply(query, policy(query)))

    def _received(self, server: Server, data: bytes, source: tuple) -> None:
        query = Query(data, source, server, time.monotonic())
        if self._keep:
            self.queries.append(query)
        self.count += 1
        self._reply(query, self._policies[server.address](query))

    def _reply(self, query: Query, replies: Iterable[Reply]) -> None:
        for reply in replies:
            sock = self._sockets[reply.sender or query.server.address]
            if reply.after > 0:
                send = functools.partial(self._send, sock, reply.data, query.source)
                self._loop.later(query.at + reply.after, send)
            else:
                self._send(sock, reply.data, query.source)

    def _send(self, sock: socket.socket, data: bytes, destination: tuple) -> None:
        try:
            sock.sendto(data, destination)
        except OSError:
            self.unsent += 1
