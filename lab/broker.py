"""The message bus: a broker that serves owners of objects and their callers, and a caller.

The broker stands in for the router's. It serves any number of clients from one thread and misbehaves on
demand:

    with Broker("/var/run/ubus/ubus.sock") as bus:
        bus.wait_for("dnsproxy")
        status, state = bus.call("dnsproxy", "get_state")
        bus.attack("oversized", "dnsproxy")     # a message that is none, to the object's owner
        bus.restart()                           # every client loses its connection
        bus.delay = 0.1                         # before each message that it sends
        bus.silent = True                       # it takes everything and sends nothing

On the command line: `python3 -m lab.broker PATH` serves until it is interrupted, and
`python3 -m lab.broker PATH call OBJECT METHOD [JSON]` calls a method through any broker.
"""

import argparse
import collections
import grp
import heapq
import json
import os
import pwd
import selectors
import signal
import socket
import struct
import sys
import threading
import time
from collections.abc import Callable, Iterable, Iterator, Mapping
from enum import IntEnum
from typing import Any, NamedTuple

from lab import wait

DEFAULT_PATH = "/var/run/ubus/ubus.sock"


class Status(IntEnum):
    """What a request ends with."""

    OK = 0
    INVALID_COMMAND = 1
    INVALID_ARGUMENT = 2
    METHOD_NOT_FOUND = 3
    NOT_FOUND = 4
    NO_DATA = 5
    PERMISSION_DENIED = 6


class _Type(IntEnum):
    HELLO = 0
    STATUS = 1
    DATA = 2
    PING = 3
    LOOKUP = 4
    INVOKE = 5
    ADD_OBJECT = 6
    REMOVE_OBJECT = 7


class _Attr(IntEnum):
    STATUS = 1
    OBJPATH = 2
    OBJID = 3
    METHOD = 4
    OBJTYPE = 5
    SIGNATURE = 6
    DATA = 7
    USER = 12
    GROUP = 13


_HEADER = struct.Struct(
    "!BBHII"
)  # version, type, sequence number, peer, length of what follows and itself
_LONGEST = 1 << 20  # of that length
_MOST_QUEUED = 1 << 20  # bytes for a client that does not read


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def _attribute(ident: int, content: bytes) -> bytes:
    return _padded(struct.pack("!I", ident << 24 | len(content) + 4) + content)


def _split(data: bytes) -> Iterator[tuple[int, bytes]]:
    """The attributes in some bytes: first byte and content of each, up to one that is cut off."""
    at = 0
    while at + 4 <= len(data):
        length = int.from_bytes(data[at + 1 : at + 4], "big")
        if length < 4 or at + length > len(data):
            return
        yield data[at], data[at + 4 : at + length]
        at += length + -length % 4


# Message contents: named values.
_ARRAY, _TABLE, _STRING, _INT64, _INT32, _INT16, _INT8, _DOUBLE = range(1, 9)
_NUMBERS = {_INT64: "!q", _INT32: "!i", _INT16: "!h", _INT8: "!?", _DOUBLE: "!d"}


def _named(kind: int, name: str, value: bytes) -> bytes:
    raw = name.encode()
    return _attribute(0x80 | kind, _padded(struct.pack("!H", len(raw)) + raw + b"\0") + value)


def _encode_value(name: str, value: Any) -> bytes:
    match value:
        case None:
            return _named(0, name, b"")
        case bool():
            return _named(_INT8, name, bytes([value]))
        case int():
            kind = _INT32 if -(1 << 31) <= value < 1 << 31 else _INT64
            return _named(kind, name, struct.pack(_NUMBERS[kind], value))
        case float():
            return _named(_DOUBLE, name, struct.pack("!d", value))
        case str():
            return _named(_STRING, name, value.encode() + b"\0")
        case Mapping():
            return _named(_TABLE, name, encode(value))
        case _:
            return _named(_ARRAY, name, b"".join(_encode_value("", item) for item in value))


def encode(values: Mapping[str, Any]) -> bytes:
    """Named values as the bytes of a message's content."""
    return b"".join(_encode_value(name, value) for name, value in values.items())


def _items(data: bytes) -> Iterator[tuple[str, Any]]:
    for first, content in _split(data):
        size = int.from_bytes(content[:2], "big")
        name = content[2 : 2 + size].decode()
        value = content[2 + size + 1 + -(size + 3) % 4 :]
        kind = first & 0x7F
        if kind in _NUMBERS:
            yield name, struct.unpack(_NUMBERS[kind], value)[0]
        elif kind == _STRING:
            yield name, value[:-1].decode()
        elif kind == _TABLE:
            yield name, decode(value)
        elif kind == _ARRAY:
            yield name, [item for _, item in _items(value)]
        else:
            yield name, value or None


def decode(data: bytes) -> dict[str, Any]:
    """The named values in a message's content."""
    return dict(_items(data))


class Message(NamedTuple):
    """One message, either way."""

    type: int
    seq: int
    peer: int
    content: bytes = b""

    def pack(self) -> bytes:
        """The bytes that travel."""
        return _HEADER.pack(0, self.type, self.seq, self.peer, len(self.content) + 4) + self.content

    def attributes(self) -> dict[int, bytes]:
        """Contents of the attributes; of two equal ones the later."""
        return {first & 0x7F: content for first, content in _split(self.content)}


def _id_attribute(ident: int, value: int) -> bytes:
    return _attribute(ident, struct.pack("!I", value))


def _text_attribute(ident: int, value: bytes) -> bytes:
    return _attribute(ident, value + b"\0")


def _invoke(object_id: int, method: bytes, data: bytes, more: bytes = b"") -> bytes:
    return (
        _id_attribute(_Attr.OBJID, object_id)
        + _text_attribute(_Attr.METHOD, method)
        + more
        + _attribute(_Attr.DATA, data)
    )


class _Stream:
    """Takes the messages out of bytes that arrive in any pieces."""

    def __init__(self):
        self._bytes = bytearray()

    def feed(self, data: bytes) -> Iterator[Message]:
        """The messages that these bytes complete; ValueError for a length that none has."""
        self._bytes += data
        while len(self._bytes) >= _HEADER.size:
            _, kind, seq, peer, length = _HEADER.unpack_from(self._bytes)
            length &= 0xFFFFFF
            if not 4 <= length <= _LONGEST:
                raise ValueError(f"a message of length {length}")
            end = _HEADER.size + length - 4
            if len(self._bytes) < end:
                return
            message = Message(kind, seq, peer, bytes(self._bytes[_HEADER.size : end]))
            del self._bytes[:end]
            yield message


# What a broker should never send, made for an object's id.
def _truncated(object_id: int) -> bytes:
    whole = Message(_Type.INVOKE, 1, 1, _invoke(object_id, b"get_state", b"")).pack()
    return whole[: len(whole) - 6]


def _oversized(object_id: int) -> bytes:
    return _HEADER.pack(0, _Type.INVOKE, 1, 1, _LONGEST + 1) + _invoke(
        object_id, b"get_state", bytes(4096)
    )


def _misaligned(object_id: int) -> bytes:
    # A byte of padding is missing: what follows stands at an odd place.
    method = _text_attribute(_Attr.METHOD, b"get_state")[:-1]
    content = _id_attribute(_Attr.OBJID, object_id) + method + _attribute(_Attr.DATA, b"")
    return Message(_Type.INVOKE, 1, 1, content).pack()


def _wrong_length(object_id: int) -> bytes:
    wrong = b""
    for length in (0, 3, 5, 0xFFFF, 0xFFFFFF):
        data = struct.pack("!I", 0x83 << 24 | length) + b"\x00\x04name\x00\x00lan\x00"
        wrong += Message(_Type.INVOKE, 1, 1, _invoke(object_id, b"update_if", data)).pack()
        method = struct.pack("!I", _Attr.METHOD << 24 | length) + b"get_state"
        content = _id_attribute(_Attr.OBJID, object_id) + method
        wrong += Message(_Type.INVOKE, 1, 1, content).pack()
    return wrong


def _nested(object_id: int) -> bytes:
    depth = 100_000
    tables = b"".join(struct.pack("!II", 0x82 << 24 | 8 * left, 0) for left in range(depth, 0, -1))
    return Message(_Type.INVOKE, 1, 1, _invoke(object_id, b"update_if", tables)).pack()


def _random(_object_id: int) -> bytes:
    return os.urandom(4096)


HOSTILE: dict[str, Callable[[int], bytes]] = {
    "truncated": _truncated,  # its rest never comes: hang up, or the next message becomes part of it
    "oversized": _oversized,
    "misaligned": _misaligned,
    "wrong_length": _wrong_length,
    "nested": _nested,
    "random": _random,
}


class _Client:
    def __init__(self, sock: socket.socket, ident: int):
        self.sock = sock
        self.ident = ident
        self.stream = _Stream()
        self.unsent = bytearray()
        self.due = 0.0  # when the last of its delayed messages is sent
        credentials = sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        _pid, uid, gid = struct.unpack("3i", credentials)
        user = pwd.getpwuid(uid).pw_name.encode()
        group = grp.getgrgid(gid).gr_name.encode()
        self.who = _text_attribute(_Attr.USER, user) + _text_attribute(_Attr.GROUP, group)


class _Object(NamedTuple):
    ident: int
    path: str
    owner: _Client
    type: int | None
    signature: bytes

    def description(self) -> bytes:
        """The attributes that a look-up gives."""
        data = _text_attribute(_Attr.OBJPATH, self.path.encode())
        data += _id_attribute(_Attr.OBJID, self.ident)
        if self.type is not None:
            data += _id_attribute(_Attr.OBJTYPE, self.type)
            data += _attribute(_Attr.SIGNATURE, self.signature)
        return data


class Broker:
    """Serves a socket from a thread of its own; a context manager that starts and stops it."""

    def __init__(self, path: str = DEFAULT_PATH, *, delay: float = 0.0, silent: bool = False):
        self.path = path
        self.delay = delay  # seconds before each message
        self.silent = silent  # sends nothing at all, not even a greeting
        self.refused: set[str] = set()  # objects that may not register
        self.greeting: bytes | None = None  # what a client gets instead of the greeting
        self.registered: list[str] = []  # every registration so far, in order
        self._objects: dict[int, _Object] = {}
        self._types: dict[int, bytes] = {}  # signatures
        self._clients: dict[int, _Client] = {}
        self._due: list[tuple[float, int, _Client, bytes]] = []
        self._order = 0
        self._tasks: collections.deque[Callable[[], None] | None] = collections.deque()
        self._thread: threading.Thread | None = None

    def __enter__(self) -> "Broker":
        self.start()
        return self

    def __exit__(self, *_exception) -> None:
        self.stop()

    def start(self) -> None:
        """Listens and serves; a socket that another broker has left behind is replaced."""
        os.makedirs(os.path.dirname(os.path.abspath(self.path)), exist_ok=True)
        self._unlink()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK)
        self._listener.bind(self.path)
        os.chmod(self.path, 0o666)
        self._listener.listen(16)
        self._wake_read, self._wake_write = os.pipe()
        self._selector = selectors.EpollSelector()
        self._selector.register(self._listener, selectors.EVENT_READ)
        self._selector.register(self._wake_read, selectors.EVENT_READ)
        self._thread = threading.Thread(target=self._serve, name="broker", daemon=True)
        self._thread.start()

    def stop(self) -> None:
        """Hangs up on everyone and removes the socket."""
        if self._thread is None:
            return
        self._post(None)
        self._thread.join()
        self._thread = None
        for client in list(self._clients.values()):
            self._hang_up(client)
        self._due.clear()
        self._types.clear()
        self._selector.close()
        self._listener.close()
        os.close(self._wake_read)
        os.close(self._wake_write)
        self._unlink()

    def restart(self) -> None:
        """As if the broker had died and come up again."""
        self.stop()
        self.start()

    def objects(self) -> list[str]:
        """Paths of the objects that are registered."""
        return [found.path for found in list(self._objects.values())]

    def wait_for(self, path: str, timeout: float = wait.PATIENCE) -> None:
        """Waits until the object is registered."""
        wait.until(lambda: path in self.objects(), f"object {path}", timeout)

    def call(
        self,
        path: str,
        method: str,
        arguments: Mapping[str, Any] | None = None,
        *,
        timeout: float = wait.PATIENCE,
    ) -> tuple[int, dict[str, Any]]:
        """Calls a method, as a client of its own, and returns status and reply."""
        with Caller(self.path, timeout=timeout) as caller:
            return caller.call(path, method, arguments)

    def send(self, path: str, data: bytes) -> None:
        """Sends the object's owner any bytes, also while the broker is silent."""
        found = self._find(path)
        self._do(lambda: self._send_now(found.owner, data))

    def attack(self, kind: str, path: str) -> None:
        """Sends the object's owner a message of one of the kinds of HOSTILE."""
        self.send(path, HOSTILE[kind](self._find(path).ident))

    def drop(self, path: str) -> None:
        """Hangs up on the object's owner."""
        found = self._find(path)
        self._do(lambda: self._hang_up(found.owner))

    def _find(self, path: str) -> _Object:
        for found in list(self._objects.values()):
            if found.path == path:
                return found
        raise KeyError(path)

    def _unlink(self) -> None:
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass

    def _post(self, task: Callable[[], None] | None) -> None:
        self._tasks.append(task)
        os.write(self._wake_write, b"x")

    def _do(self, task: Callable[[], None]) -> None:
        """Has the thread do something, and waits until it is done."""
        done = threading.Event()

        def run() -> None:
            task()
            done.set()

        self._post(run)
        if not done.wait(wait.PATIENCE):
            raise TimeoutError("the broker's thread is stuck")

    # From here on: the thread's.

    def _serve(self) -> None:
        while True:
            timeout = None if not self._due else max(0.0, self._due[0][0] - time.monotonic())
            for key, events in self._selector.select(timeout):
                if key.fileobj is self._listener:
                    self._accept()
                elif key.fd == self._wake_read:
                    os.read(self._wake_read, 4096)
                    while self._tasks:
                        task = self._tasks.popleft()
                        if task is None:
                            return
                        task()
                else:
                    self._serve_client(key.data, events)
            while self._due and self._due[0][0] <= time.monotonic():
                _, _, client, data = heapq.heappop(self._due)
                self._send_now(client, data)

    def _new_id(self, taken: Iterable[int]) -> int:
        while True:
            ident = int.from_bytes(os.urandom(4), "big")
            if all(ident.to_bytes(4, "big")) and ident not in taken:
                return ident

    def _accept(self) -> None:
        sock, _ = self._listener.accept()
        sock.setblocking(False)
        try:
            client = _Client(sock, self._new_id(self._clients))
        except KeyError:  # a user or group without a name
            sock.close()
            return
        self._clients[client.ident] = client
        self._selector.register(sock, selectors.EVENT_READ, client)
        greeting = Message(_Type.HELLO, 0, client.ident).pack()
        self._send(client, greeting if self.greeting is None else self.greeting)

    def _hang_up(self, client: _Client) -> None:
        if self._clients.pop(client.ident, None) is None:
            return
        self._objects = {
            i: found for i, found in self._objects.items() if found.owner is not client
        }
        self._selector.unregister(client.sock)
        client.sock.close()

    def _serve_client(self, client: _Client, events: int) -> None:
        if client.ident not in self._clients:
            return  # hung up in this very turn
        if events & selectors.EVENT_WRITE:
            self._flush(client)
        if not events & selectors.EVENT_READ:
            return
        try:
            data = client.sock.recv(65536)
            if not data:
                raise ConnectionResetError
            for message in client.stream.feed(data):
                self._take(client, message)
        except BlockingIOError:
            pass
        except (OSError, ValueError):
            self._hang_up(client)

    def _send(self, client: _Client, data: bytes) -> None:
        if self.silent:
            return
        if self.delay <= 0 and client.due <= time.monotonic():
            self._send_now(client, data)
            return
        client.due = max(client.due, time.monotonic()) + self.delay
        self._order += 1
        heapq.heappush(self._due, (client.due, self._order, client, data))

    def _send_now(self, client: _Client, data: bytes) -> None:
        if client.ident in self._clients and len(client.unsent) + len(data) <= 2 * _MOST_QUEUED:
            client.unsent += data
            self._flush(client)

    def _flush(self, client: _Client) -> None:
        try:
            while client.unsent:
                del client.unsent[: client.sock.send(client.unsent)]
        except BlockingIOError:
            pass
        except OSError:
            client.unsent.clear()  # the end of its stream comes up next
        events = selectors.EVENT_READ | (selectors.EVENT_WRITE if client.unsent else 0)
        self._selector.modify(client.sock, events, client)

    def _take(self, client: _Client, message: Message) -> None:
        if message.type in (_Type.STATUS, _Type.DATA):
            self._forward_answer(message)
            return
        handlers = {
            _Type.PING: self._ping,
            _Type.LOOKUP: self._lookup,
            _Type.INVOKE: self._forward_call,
            _Type.ADD_OBJECT: self._add_object,
            _Type.REMOVE_OBJECT: self._remove_object,
        }
        handler = handlers.get(message.type, lambda *_: Status.INVALID_COMMAND)
        status = handler(client, message)
        if status is not None:
            self._answer(client, message, _Type.STATUS, _id_attribute(_Attr.STATUS, status))

    def _answer(self, client: _Client, request: Message, kind: _Type, content: bytes) -> None:
        self._send(client, Message(kind, request.seq, request.peer, content).pack())

    # Each gives the status to answer with, or none when the answer is another's.

    def _ping(self, client: _Client, message: Message) -> Status:
        self._answer(client, message, _Type.DATA, message.content)
        return Status.OK

    def _lookup(self, client: _Client, message: Message) -> Status:
        pattern = message.attributes().get(_Attr.OBJPATH)
        path = "*" if pattern is None else pattern.rstrip(b"\0").decode()
        found = [
            known
            for known in self._objects.values()
            if known.path == path or path.endswith("*") and known.path.startswith(path[:-1])
        ]
        for known in found:
            self._answer(client, message, _Type.DATA, known.description())
        return Status.OK if found or pattern is None else Status.NOT_FOUND

    def _forward_call(self, client: _Client, message: Message) -> Status | None:
        attributes = message.attributes()
        if _Attr.OBJID not in attributes or _Attr.METHOD not in attributes:
            return Status.INVALID_ARGUMENT
        found = self._objects.get(int.from_bytes(attributes[_Attr.OBJID], "big"))
        if found is None:
            return Status.NOT_FOUND
        method = attributes[_Attr.METHOD].rstrip(b"\0")
        call = _invoke(found.ident, method, attributes.get(_Attr.DATA, b""), client.who)
        self._send(found.owner, Message(_Type.INVOKE, message.seq, client.ident, call).pack())
        return None

    def _forward_answer(self, message: Message) -> None:
        caller = self._clients.get(message.peer)
        object_id = int.from_bytes(message.attributes().get(_Attr.OBJID, b""), "big")
        if caller is not None and object_id in self._objects:
            self._send(caller, message._replace(peer=object_id).pack())

    def _add_object(self, client: _Client, message: Message) -> Status:
        attributes = message.attributes()
        path = attributes.get(_Attr.OBJPATH, b"").rstrip(b"\0").decode()
        if path in self.refused or path in self.objects():
            return Status.INVALID_ARGUMENT
        kind, signature = None, b""
        if _Attr.SIGNATURE in attributes:
            kind, signature = self._new_id(self._types), attributes[_Attr.SIGNATURE]
            self._types[kind] = signature
        elif _Attr.OBJTYPE in attributes:
            kind = int.from_bytes(attributes[_Attr.OBJTYPE], "big")
            if kind not in self._types:
                return Status.INVALID_ARGUMENT
            signature = self._types[kind]
        added = _Object(self._new_id(self._objects), path, client, kind, signature)
        self._objects[added.ident] = added
        data = _id_attribute(_Attr.OBJID, added.ident)
        if _Attr.SIGNATURE in attributes:
            data += _id_attribute(_Attr.OBJTYPE, kind)
        self._answer(client, message, _Type.DATA, data)
        self.registered.append(path)
        return Status.OK

    def _remove_object(self, client: _Client, message: Message) -> Status:
        ident = int.from_bytes(message.attributes().get(_Attr.OBJID, b""), "big")
        found = self._objects.get(ident)
        if found is None:
            return Status.NOT_FOUND
        if found.owner is not client:
            return Status.PERMISSION_DENIED
        del self._objects[ident]
        self._answer(client, message, _Type.DATA, _id_attribute(_Attr.OBJID, ident))
        return Status.OK


class Caller:
    """A client that calls methods, through any broker; a context manager."""

    def __init__(self, path: str = DEFAULT_PATH, *, timeout: float = wait.PATIENCE):
        """The timeout is that of every wait for a message; it ends in TimeoutError."""
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._sock.settimeout(timeout)
        self._stream = _Stream()
        self._messages: collections.deque[Message] = collections.deque()
        self._seq = 0
        try:
            self._sock.connect(path)
            if self._receive().type != _Type.HELLO:
                raise ConnectionError("no greeting")
        except BaseException:
            self.close()
            raise

    def __enter__(self) -> "Caller":
        return self

    def __exit__(self, *_exception) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection."""
        self._sock.close()

    def lookup(self, path: str) -> dict[str, int]:
        """Ids of the objects of this path, or with a final "*" of those that begin so."""
        request = _text_attribute(_Attr.OBJPATH, path.encode())
        found = {}
        for attributes in self._request(_Type.LOOKUP, 0, request)[1]:
            name = attributes[_Attr.OBJPATH].rstrip(b"\0").decode()
            found[name] = int.from_bytes(attributes[_Attr.OBJID], "big")
        return found

    def call(
        self, path: str, method: str, arguments: Mapping[str, Any] | None = None
    ) -> tuple[int, dict[str, Any]]:
        """Status and reply of a method; the status tells of an unknown object, too."""
        object_id = self.lookup(path).get(path)
        if object_id is None:
            return Status.NOT_FOUND, {}
        content = _invoke(object_id, method.encode(), encode(arguments or {}))
        status, data = self._request(_Type.INVOKE, object_id, content)
        reply: dict[str, Any] = {}
        for attributes in data:
            reply |= decode(attributes.get(_Attr.DATA, b""))
        return status, reply

    def _request(
        self, kind: _Type, peer: int, content: bytes
    ) -> tuple[int, list[dict[int, bytes]]]:
        self._seq = self._seq % 0xFFFF + 1
        self._sock.sendall(Message(kind, self._seq, peer, content).pack())
        data = []
        while True:
            message = self._receive()
            if (message.seq, message.peer) != (self._seq, peer):
                continue
            if message.type == _Type.DATA:
                data.append(message.attributes())
            elif message.type == _Type.STATUS:
                return int.from_bytes(message.attributes()[_Attr.STATUS], "big"), data

    def _receive(self) -> Message:
        while not self._messages:
            data = self._sock.recv(65536)
            if not data:
                raise ConnectionResetError("the broker has hung up")
            self._messages.extend(self._stream.feed(data))
        return self._messages.popleft()


def main() -> int:
    """The command line."""
    parser = argparse.ArgumentParser(
        prog="python3 -m lab.broker", description="Message bus broker and caller."
    )
    parser.add_argument("path", help="the bus's socket")
    parser.add_argument("--delay", type=float, default=0.0, help="seconds before each message")
    parser.add_argument("--silent", action="store_true", help="take everything, send nothing")
    parser.add_argument(
        "--refuse", action="append", default=[], metavar="OBJECT", help="may not register"
    )
    commands = parser.add_subparsers(dest="command")
    call = commands.add_parser("call", help="call a method instead of serving")
    call.add_argument("object")
    call.add_argument("method")
    call.add_argument("arguments", nargs="?", type=json.loads, default={}, metavar="JSON")
    options = parser.parse_args()

    if options.command == "call":
        with Caller(options.path) as caller:
            status, reply = caller.call(options.object, options.method, options.arguments)
        print(json.dumps(reply, indent=4))
        if status != Status.OK:
            print(f"status {status}", file=sys.stderr)
        return status
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})
    broker = Broker(options.path, delay=options.delay, silent=options.silent)
    broker.refused.update(options.refuse)
    with broker:
        signal.sigwait({signal.SIGINT, signal.SIGTERM})
    return 0


if __name__ == "__main__":
    sys.exit(main())
