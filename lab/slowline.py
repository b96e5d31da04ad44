"""A line with a real but distant server.

SlowLine stands at the server addresses of a line, hands every query to the real server, which
listens on the same address and another port, and sends its answer after a delay. Being an Upstream
it keeps the queries too.
"""

import socket
from collections.abc import Iterable

from lab import netns, plan
from lab.plan import Server
from lab.upstream import Loop, Query, Reply, Upstream, delayed


class SlowLine(Upstream):
    """Delays what the servers behind it on port `behind` answer, by `seconds`."""

    def __init__(
        self,
        line: int,
        seconds: float,
        servers: Iterable[Server | str] | None = None,
        *,
        behind: int = 5353,
    ):
        self._real: dict[str, socket.socket] = {}
        servers = list(plan.LINES[line].servers if servers is None else servers)
        with netns.inside(plan.LINES[line].netns):
            for server in servers:
                address = server if isinstance(server, str) else server.address
                family = socket.AF_INET6 if ":" in address else socket.AF_INET
                sock = socket.socket(family, socket.SOCK_DGRAM)
                sock.settimeout(1.0)
                sock.connect((address, behind))
                self._real[address] = sock
        # A loop of its own: it waits for the real server.
        super().__init__(line, servers, delayed(seconds, self._ask), loop=Loop())

    def close(self) -> None:
        super().close()
        self._loop.close()
        for sock in self._real.values():
            sock.close()

    def _ask(self, query: Query) -> Iterable[Reply]:
        sock = self._real[query.server.address]
        try:
            sock.send(query.data)
            while (reply := sock.recv(65535))[:2] != query.data[:2]:
                pass  # a late answer to an earlier query
            return (Reply(reply),)
        except OSError:
            return ()
