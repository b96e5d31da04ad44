"""Which device a query left by.

A Sniffer listens on every device of the router at once, also on those that come later. It records
the DNS queries that leave (UDP to port 53), or with `replies` the DNS replies that arrive (UDP from
port 53). The kernel picks them out, so that ten thousand queries per second are no trouble. Packets
are recorded in the order in which the kernel saw them: once a later one has been seen, an earlier
one is not to come any more.
"""

import collections
import ctypes
import ipaddress
import os
import select
import socket
import struct
import threading
from typing import NamedTuple

from lab import dns, netns, wait

_SOL_PACKET = 263
_PACKET_STATISTICS = 6
_SO_ATTACH_FILTER = 26
_SO_RCVBUFFORCE = 33

_ETH_P_ALL = 0x0003
_ETH_P_IP = 0x0800
_ETH_P_IPV6 = 0x86DD
_PACKET_OUTGOING = 4
_UDP = 17

# Orders to the thread.
_STOP, _CATCH_UP = b"s", b"c"

# Classic BPF: what a packet is counts from the network header, what is known about it from _ABOUT.
_LD, _LDH, _LDB, _LDH_X, _LDX_IHL = 0x20, 0x28, 0x30, 0x48, 0xB1
_JEQ, _JSET, _RET = 0x15, 0x45, 0x06
_ABOUT = 0xFFFFF000
_ABOUT_PROTOCOL, _ABOUT_TYPE = _ABOUT + 0, _ABOUT + 4


def _program(replies: bool) -> bytes:
    """A filter for UDP, whole or first fragments, with port 53 on the far side of the device."""
    outgoing, incoming = ("drop", "next") if replies else ("next", "drop")
    port = 0 if replies else 2  # offset in the UDP header
    code = [
        # label, operation, operand, where to go when true, and when false
        ("", _LD, _ABOUT_TYPE, "", ""),
        ("", _JEQ, _PACKET_OUTGOING, outgoing, incoming),
        ("", _LD, _ABOUT_PROTOCOL, "", ""),
        ("", _JEQ, _ETH_P_IP, "ipv4", "next"),
        ("", _JEQ, _ETH_P_IPV6, "next", "drop"),
        ("", _LDB, 6, "", ""),
        ("", _JEQ, _UDP, "next", "drop"),
        ("", _LDH, 40 + port, "", ""),
        ("", _JEQ, 53, "take", "drop"),
        ("ipv4", _LDB, 9, "", ""),
        ("", _JEQ, _UDP, "next", "drop"),
        ("", _LDH, 6, "", ""),
        ("", _JSET, 0x1FFF, "drop", "next"),
        ("", _LDX_IHL, 0, "", ""),
        ("", _LDH_X, port, "", ""),
        ("", _JEQ, 53, "take", "drop"),
        ("take", _RET, 0xFFFF, "", ""),
        ("drop", _RET, 0, "", ""),
    ]
    labels = {label: index for index, (label, *_) in enumerate(code) if label}

    def distance(index: int, target: str) -> int:
        return 0 if target in ("", "next") else labels[target] - index - 1

    return b"".join(
        struct.pack("HBBI", operation, distance(i, true), distance(i, false), operand)
        for i, (_, operation, operand, true, false) in enumerate(code)
    )


class Packet(NamedTuple):
    """One query that left, or one reply that arrived."""

    device: str
    family: int
    ident: int  # of the DNS message
    source: str
    destination: str
    message: bytes  # the first 60 bytes or more of the DNS message


class Sniffer:
    """Records from the moment it is made until it is closed; in the router, or in another netns."""

    def __init__(self, *, replies: bool = False, name: str | None = None, keep: bool = True):
        """With `keep` off only `counts` are kept, for loads of millions."""
        self.packets: list[Packet] = []
        self.counts: collections.Counter[str] = collections.Counter()  # by device
        self._keep = keep
        self._lost = 0
        with netns.inside(name):
            self._socket = socket.socket(
                socket.AF_PACKET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK, socket.htons(_ETH_P_ALL)
            )
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, 32 << 20)
        self._attach(_program(replies))
        self._orders_read, self._orders_write = os.pipe()
        self._caught_up = threading.Event()
        self._thread = threading.Thread(target=self._listen, name="sniffer", daemon=True)
        self._thread.start()

    def __enter__(self) -> "Sniffer":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def close(self) -> None:
        """Ends the thread; what was recorded stays readable."""
        if self._thread.is_alive():
            os.write(self._orders_write, _STOP)
            self._thread.join()
            self.lost()
            self._socket.close()
            os.close(self._orders_read)
            os.close(self._orders_write)

    def clear(self) -> None:
        """Forgets the packets so far."""
        self.packets.clear()
        self.counts.clear()

    def catch_up(self) -> list[Packet]:
        """Returns once every packet that the kernel has seen by now is recorded, with all packets so far."""
        self._caught_up.clear()
        os.write(self._orders_write, _CATCH_UP)
        self._caught_up.wait()
        return self.packets[:]

    def wait_for(self, count: int, timeout: float = wait.PATIENCE) -> list[Packet]:
        """Waits until so many packets have been seen in all, and returns them."""
        wait.until(
            lambda: self.counts.total() >= count,
            f"{count} packets on the devices (got {dict(self.counts)})",
            timeout,
        )
        return self.packets[:]

    def lost(self) -> int:
        """Packets so far that came too fast to be recorded; a proof by numbers wants 0."""
        if self._socket.fileno() >= 0:  # reading the kernel's count zeroes it
            raw = self._socket.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8)
            self._lost += struct.unpack("II", raw)[1]
        return self._lost

    def _attach(self, program: bytes) -> None:
        buffer = ctypes.create_string_buffer(program)
        self._socket.setsockopt(
            socket.SOL_SOCKET,
            _SO_ATTACH_FILTER,
            struct.pack("HP", len(program) // 8, ctypes.addressof(buffer)),
        )
        try:  # what slipped in before the filter was there
            while True:
                self._socket.recv(1)
        except BlockingIOError:
            pass

    def _listen(self) -> None:
        while True:
            ready, _, _ = select.select([self._socket, self._orders_read], [], [])
            try:
                while True:
                    self._record(*self._socket.recvfrom(128))
            except BlockingIOError:
                pass
            except OSError:
                continue  # one of the devices went down or away; the others are heard all the same
            if self._orders_read in ready:
                if os.read(self._orders_read, 1) == _STOP:
                    return
                self._caught_up.set()

    def _record(self, data: bytes, about: tuple) -> None:
        device, protocol = about[0], about[1]
        if self._keep:
            if protocol == _ETH_P_IP:
                family, udp, addresses = 4, (data[0] & 15) * 4, data[12:20]
            else:
                family, udp, addresses = 6, 40, data[8:40]
            half = len(addresses) // 2
            self.packets.append(
                Packet(
                    device,
                    family,
                    dns.ident(data[udp + 8 :]),
                    str(ipaddress.ip_address(addresses[:half])),
                    str(ipaddress.ip_address(addresses[half:])),
                    data[udp + 8 :],
                )
            )
        self.counts[device] += 1
