"""A client of the request pipe, written from docs/pipe-protocol.md alone: it shares no code with the library.

    reply = exchange(Message(op=GET, ifname=b"WAN1"))
    reply.message.result, slot_text(reply.message.dns), reply.trailing
"""

import contextlib
import errno
import fcntl
import ipaddress
import os
import secrets
import select
import struct
import time
from dataclasses import dataclass
from typing import NamedTuple

from lab import wait

FOLDER = "/var/run/nmpipe"
REQUEST_PIPE = "dnsproxypublicrecvpipe"
LARGEST_MESSAGE = 4096

GET, SET, ADD, DEL, GETALL, ADDORSET, GETADDRS, GETIFS, DELALL = range(1, 10)
DONE, NO_DAEMON, INVALID, NO_MEMORY, EXISTS, NOT_FOUND = 0, -9001, -9002, -9003, -9004, -9005

_SOCKADDR = struct.Struct("=HHI16sI")
NO_SERVER6 = bytes(_SOCKADDR.size)


def slot(address: str) -> int:
    """An IPv4 server as a slot of a message."""
    return struct.unpack("=I", ipaddress.IPv4Address(address).packed)[0]


def slot_text(value: int) -> str:
    """The server in a slot; empty for none."""
    return str(ipaddress.IPv4Address(struct.pack("=I", value))) if value else ""


def server6(address: str) -> bytes:
    """An IPv6 server as a field of a message."""
    return _SOCKADDR.pack(10, 0, 0, ipaddress.IPv6Address(address).packed, 0)


def server6_text(field: bytes) -> str:
    """The server in an IPv6 field; empty for none."""
    address = ipaddress.IPv6Address(_SOCKADDR.unpack(field)[3])
    return str(address) if int(address) else ""


@dataclass
class Message:
    """A request or reply; the fields in their order on the wire."""

    op: int = 0
    pipe_name: bytes = b""
    ifname: bytes = b"loopback"
    dns_flag: int = 0
    dns2_flag: int = 0
    dns: int = 0
    dns2: int = 0
    dns6: bytes = NO_SERVER6
    dns6_2: bytes = NO_SERVER6
    no_v4: int = 0
    no_v6: int = 0
    count: int = 0
    data: int = 0
    data_len: int = 0
    result: int = 0
    reserved: int = 0

    _WIRE = struct.Struct("=I 100s 16s II QQ 28s 28s ii QQQ i I")

    def pack(self) -> bytes:
        return self._WIRE.pack(*(getattr(self, name) for name in self.__dataclass_fields__))

    @classmethod
    def unpack(cls, raw: bytes) -> "Message":
        """The strings end at their NUL."""
        message = cls(*cls._WIRE.unpack(raw))
        message.pipe_name = message.pipe_name.partition(b"\0")[0]
        message.ifname = message.ifname.partition(b"\0")[0]
        return message


SIZE = Message._WIRE.size
assert SIZE == 240


class Reply(NamedTuple):
    """What came back: the reply, its bytes, and the list that followed it."""

    message: Message
    raw: bytes
    trailing: bytes


def open_writer(path: str) -> int:
    """A FIFO for writing in packet mode; OSError when nobody reads it."""
    fd = os.open(path, os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    fcntl.fcntl(fd, fcntl.F_SETFL, os.O_NONBLOCK | os.O_DIRECT)
    return fd


def send(raw: bytes) -> None:
    """Writes one message of any length into the daemon's request pipe."""
    fd = open_writer(f"{FOLDER}/{REQUEST_PIPE}")
    try:
        if os.write(fd, raw) != len(raw):
            raise OSError(errno.EAGAIN, "the request pipe is full")
    finally:
        os.close(fd)


class ReplyPipe:
    """A reply pipe of our own, until it is closed."""

    def __init__(self, name: str | None = None):
        self.name = name or f"py_{secrets.randbits(32)}"
        self.path = f"{FOLDER}/{self.name}"
        with contextlib.suppress(FileExistsError):
            os.mkdir(FOLDER, 0o700)
        os.mkfifo(self.path, 0o600)
        self.fd = os.open(self.path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)

    def __enter__(self) -> "ReplyPipe":
        return self

    def __exit__(self, *_exception) -> None:
        os.close(self.fd)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)

    def receive(self, timeout: float = wait.PATIENCE) -> bytes:
        """The next message; TimeoutError when none comes."""
        if not select.select([self.fd], [], [], timeout)[0]:
            raise TimeoutError(f"no reply after {timeout:g} s")
        return os.read(self.fd, LARGEST_MESSAGE)

    def waiting(self) -> list[bytes]:
        """The messages that have arrived by now."""
        messages = []
        with contextlib.suppress(BlockingIOError):
            while True:
                messages.append(os.read(self.fd, LARGEST_MESSAGE))
        return messages

    def receive_reply(self, timeout: float = wait.PATIENCE) -> Reply:
        """The next reply, with the list that belongs to it."""
        deadline = time.monotonic() + timeout
        raw = self.receive(timeout)
        if len(raw) != SIZE:
            raise ValueError(f"a reply of {len(raw)} bytes")
        message = Message.unpack(raw)
        trailing = b""
        if message.op in (GETADDRS, GETIFS) and message.result >= 0:
            while len(trailing) < message.data_len:
                trailing += self.receive(max(0.0, deadline - time.monotonic()))
            if len(trailing) != message.data_len:
                raise ValueError(f"a list of {len(trailing)} bytes where {message.data_len} were told")
        return Reply(message, raw, trailing)


def exchange(request: Message, timeout: float = wait.PATIENCE) -> Reply:
    """Sends a request and waits for its reply. Fills in `pipe_name`."""
    with ReplyPipe() as pipe:
        request.pipe_name = pipe.name.encode()
        send(request.pack())
        return pipe.receive_reply(timeout)


def addresses(reply: Reply) -> list[str]:
    """The list of GETADDRS, with "" for each entry that is empty."""
    return [slot_text(value) for (value,) in struct.iter_unpack("=Q", reply.trailing)]


def interfaces(reply: Reply) -> list[tuple[str, str, str]]:
    """The list of GETIFS as (device, first, second), with "" for what is empty."""
    return [
        (name.rstrip(b"\0").decode(), slot_text(first), slot_text(second))
        for name, first, second in struct.iter_unpack("=16sQQ", reply.trailing)
    ]
