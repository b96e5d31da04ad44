"""Which device a query left by.

A Sniffer listens on every device of the router at once, also on those that come later. It records the DNS queries
that leave (UDP to port 53), or with `replies` the DNS replies that arrive (UDP from port 53), in the order in which
the kernel saw them: what has left by now has been seen.
"""

import collections
import ipaddress
import socket
from typing import NamedTuple

from lab import dns, netns, wait

_SO_RCVBUFFORCE = 33
_ETH_P_ALL = 0x0003
_PACKET_OUTGOING = 4
_UDP = 17


class Packet(NamedTuple):
    """One query that left, or one reply that arrived."""

    device: str
    family: int
    ident: int  # of the DNS message
    source: str
    destination: str
    message: bytes  # the beginning of the DNS message


class Sniffer:
    """Records from the moment it is made until it is closed; in the router, or in another netns."""

    def __init__(self, *, replies: bool = False, name: str | None = None):
        self.packets: list[Packet] = []
        self.counts: collections.Counter[str] = collections.Counter()  # by device
        self._replies = replies
        with netns.inside(name):
            kind = socket.SOCK_DGRAM | socket.SOCK_NONBLOCK
            self._socket = socket.socket(socket.AF_PACKET, kind, socket.htons(_ETH_P_ALL))
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 32 << 20)

    def __enter__(self) -> "Sniffer":
        return self

    def __exit__(self, *_exception) -> None:
        self._socket.close()

    def clear(self) -> None:
        """Forgets the packets so far."""
        self.catch_up()
        self.packets.clear()
        self.counts.clear()

    def catch_up(self) -> list[Packet]:
        """All packets that the kernel has seen by now."""
        while True:
            try:
                self._record(*self._socket.recvfrom(128))
            except BlockingIOError:
                return self.packets[:]
            except OSError:
                pass  # one of the devices went down or away; the others are heard all the same

    def wait_for(self, count: int, timeout: float = wait.PATIENCE) -> list[Packet]:
        """Waits until so many packets have been seen in all, and returns them."""
        wait.until(lambda: len(self.catch_up()) >= count, f"{count} packets on the devices", timeout)
        return self.packets[:]

    def _record(self, data: bytes, address: tuple) -> None:
        device, _protocol, direction, *_ = address
        family = data[0] >> 4
        start = 40 if family == 6 else (data[0] & 15) * 4
        at, size = (8, 16) if family == 6 else (12, 4)
        if (direction == _PACKET_OUTGOING) == self._replies or data[6 if family == 6 else 9] != _UDP:
            return
        if family == 4 and int.from_bytes(data[6:8], "big") & 0x1FFF:
            return  # not the first fragment
        port = data[start : start + 2] if self._replies else data[start + 2 : start + 4]
        if family not in (4, 6) or int.from_bytes(port, "big") != 53:
            return
        ends = (str(ipaddress.ip_address(data[i : i + size])) for i in (at, at + size))
        message = data[start + 8 :]
        self.packets.append(Packet(device, family, dns.ident(message) if len(message) > 1 else 0, *ends, message))
        self.counts[device] += 1
