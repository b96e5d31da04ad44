"""The message bus: a broker that serves owners of objects and their callers, and a caller.

The broker stands in for the router's, and misbehaves on demand:

    with Broker("/var/run/ubus/ubus.sock") as bus:
        bus.wait_for("dnsproxy")
        status, state = bus.call("dnsproxy", "get_state")
        bus.attack("oversized", "dnsproxy")     # a message that is none, to the object's owner
        bus.restart()                           # every client loses its connection

On the command line, `python3 -m lab.broker PATH call OBJECT METHOD [JSON]` calls a method through any broker.
"""

import argparse
import collections
import contextlib
import grp
import json
import os
import pwd
import socket
import struct
import sys
import threading
from collections.abc import Iterable, Mapping
from typing import Any, NamedTuple

from lab import wait

from lab.bus import (
    Attr, Message, Status, Stream, Type, attribute, decode, encode, id_attribute, invoke, text_attribute,
)  # fmt: skip
from lab.hostile_bus import HOSTILE

DEFAULT_PATH = "/var/run/ubus/ubus.sock"


class _Client:
    """One connection, served by a thread of its own."""

    def __init__(self, sock: socket.socket, ident: int):
        self.sock = sock
        self.ident = ident
        _pid, uid, gid = struct.unpack("3i", sock.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))
        user, group = pwd.getpwuid(uid).pw_name.encode(), grp.getgrgid(gid).gr_name.encode()
        self.who = text_attribute(Attr.USER, user) + text_attribute(Attr.GROUP, group)

    def send(self, data: bytes) -> None:
        """A client that has gone is noticed by its thread."""
        with contextlib.suppress(OSError):
            self.sock.sendall(data)

    def hang_up(self) -> None:
        with contextlib.suppress(OSError):
            self.sock.shutdown(socket.SHUT_RDWR)


class _Object(NamedTuple):
    ident: int
    path: str
    owner: _Client
    type: int | None
    signature: bytes

    def description(self) -> bytes:
        """The attributes that a look-up gives."""
        data = text_attribute(Attr.OBJPATH, self.path.encode()) + id_attribute(Attr.OBJID, self.ident)
        if self.type is not None:
            data += id_attribute(Attr.OBJTYPE, self.type) + attribute(Attr.SIGNATURE, self.signature)
        return data


def _new_id(taken: Iterable[int]) -> int:
    while True:
        ident = int.from_bytes(os.urandom(4), "big")
        if all(ident.to_bytes(4, "big")) and ident not in taken:
            return ident


class Broker:
    """Serves a socket; a context manager that starts and stops it."""

    def __init__(self, path: str = DEFAULT_PATH):
        self.path = path
        self.refused: set[str] = set()  # objects that may not register
        self.registered: list[str] = []  # every registration so far, in order
        self._lock = threading.Lock()  # of all that follows
        self._objects: dict[int, _Object] = {}
        self._types: dict[int, bytes] = {}  # signatures
        self._clients: dict[int, _Client] = {}
        self._threads: list[threading.Thread] = []

    def __enter__(self) -> "Broker":
        self.start()
        return self

    def __exit__(self, *_exception) -> None:
        self.stop()

    def start(self) -> None:
        """Listens and serves; a socket that another broker has left behind is replaced."""
        os.makedirs(os.path.dirname(os.path.abspath(self.path)), exist_ok=True)
        self._unlink()
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(self.path)
        os.chmod(self.path, 0o666)
        self._listener.listen(16)
        self._threads = [threading.Thread(target=self._accept, args=(self._listener,), daemon=True)]
        self._threads[0].start()

    def stop(self) -> None:
        """Hangs up on everyone and removes the socket."""
        if not self._threads:
            return
        self._listener.shutdown(socket.SHUT_RDWR)
        self._threads[0].join()
        with self._lock:
            clients = list(self._clients.values())
        for client in clients:
            client.hang_up()
        for thread in self._threads:
            thread.join()
        self._threads = []
        self._listener.close()
        self._types.clear()
        self._unlink()

    def restart(self) -> None:
        """As if the broker had died and come up again."""
        self.stop()
        self.start()

    def objects(self) -> list[str]:
        """Paths of the objects that are registered."""
        with self._lock:
            return [found.path for found in self._objects.values()]

    def wait_for(self, path: str, timeout: float = wait.PATIENCE) -> None:
        """Waits until the object is registered."""
        wait.until(lambda: path in self.objects(), f"object {path}", timeout)

    def call(
        self, path: str, method: str, arguments: Mapping[str, Any] | None = None, *, timeout: float = wait.PATIENCE
    ) -> tuple[int, dict[str, Any]]:
        """Calls a method, as a client of its own, and returns status and reply."""
        with Caller(self.path, timeout=timeout) as caller:
            return caller.call(path, method, arguments)

    def attack(self, kind: str, path: str) -> None:
        """Sends the object's owner a message of one of the kinds of HOSTILE."""
        found = self._find(path)
        found.owner.send(HOSTILE[kind](found.ident))

    def drop(self, path: str) -> None:
        """Hangs up on the object's owner, whose objects go."""
        owner = self._find(path).owner
        self._forget(owner)
        owner.hang_up()

    def _find(self, path: str) -> _Object:
        with self._lock:
            for found in self._objects.values():
                if found.path == path:
                    return found
        raise KeyError(path)

    def _forget(self, client: _Client) -> None:
        with self._lock:
            self._clients.pop(client.ident, None)
            self._objects = {i: found for i, found in self._objects.items() if found.owner is not client}

    def _unlink(self) -> None:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path)

    # From here on: the threads'.

    def _accept(self, listener: socket.socket) -> None:
        with contextlib.suppress(OSError):
            while True:
                sock, _ = listener.accept()
                thread = threading.Thread(target=self._serve, args=(sock,), daemon=True)
                self._threads.append(thread)
                thread.start()

    def _serve(self, sock: socket.socket) -> None:
        with sock:
            with self._lock:
                client = _Client(sock, _new_id(self._clients))
                self._clients[client.ident] = client
            client.send(Message(Type.HELLO, 0, client.ident).pack())
            stream = Stream()
            with contextlib.suppress(OSError, ValueError):
                while data := sock.recv(65536):
                    for message in stream.feed(data):
                        self._take(client, message)
            self._forget(client)

    def _take(self, client: _Client, message: Message) -> None:
        if message.type in (Type.STATUS, Type.DATA):
            self._forward_answer(message)
            return
        handlers = {
            Type.PING: self._ping,
            Type.LOOKUP: self._lookup,
            Type.INVOKE: self._forward_call,
            Type.ADD_OBJECT: self._add_object,
        }
        status = handlers.get(message.type, lambda *_: Status.INVALID_COMMAND)(client, message)
        if status is not None:
            self._answer(client, message, Type.STATUS, id_attribute(Attr.STATUS, status))

    @staticmethod
    def _answer(client: _Client, request: Message, kind: Type, content: bytes) -> None:
        client.send(Message(kind, request.seq, request.peer, content).pack())

    # Each gives the status to answer with, or none when the answer is another's.

    def _ping(self, client: _Client, message: Message) -> Status:
        self._answer(client, message, Type.DATA, message.content)
        return Status.OK

    def _lookup(self, client: _Client, message: Message) -> Status:
        pattern = message.attributes().get(Attr.OBJPATH)
        path = "*" if pattern is None else pattern.rstrip(b"\0").decode()
        with self._lock:
            found = [
                known
                for known in self._objects.values()
                if known.path == path or path.endswith("*") and known.path.startswith(path[:-1])
            ]
        for known in found:
            self._answer(client, message, Type.DATA, known.description())
        return Status.OK if found or pattern is None else Status.NOT_FOUND

    def _forward_call(self, client: _Client, message: Message) -> Status | None:
        attributes = message.attributes()
        if Attr.OBJID not in attributes or Attr.METHOD not in attributes:
            return Status.INVALID_ARGUMENT
        with self._lock:
            found = self._objects.get(int.from_bytes(attributes[Attr.OBJID], "big"))
        if found is None:
            return Status.NOT_FOUND
        method = attributes[Attr.METHOD].rstrip(b"\0")
        call = invoke(found.ident, method, attributes.get(Attr.DATA, b""), client.who)
        found.owner.send(Message(Type.INVOKE, message.seq, client.ident, call).pack())
        return None

    def _forward_answer(self, message: Message) -> None:
        object_id = int.from_bytes(message.attributes().get(Attr.OBJID, b""), "big")
        with self._lock:
            caller = self._clients.get(message.peer) if object_id in self._objects else None
        if caller is not None:
            caller.send(message._replace(peer=object_id).pack())

    def _add_object(self, client: _Client, message: Message) -> Status:
        attributes = message.attributes()
        path = attributes.get(Attr.OBJPATH, b"").rstrip(b"\0").decode()
        if path in self.refused or path in self.objects():
            return Status.INVALID_ARGUMENT
        kind, signature = None, b""
        if Attr.SIGNATURE in attributes:
            kind, signature = _new_id(self._types), attributes[Attr.SIGNATURE]
            self._types[kind] = signature
        elif Attr.OBJTYPE in attributes:
            kind = int.from_bytes(attributes[Attr.OBJTYPE], "big")
            if kind not in self._types:
                return Status.INVALID_ARGUMENT
            signature = self._types[kind]
        with self._lock:
            added = _Object(_new_id(self._objects), path, client, kind, signature)
            self._objects[added.ident] = added
            self.registered.append(path)
        data = id_attribute(Attr.OBJID, added.ident)
        if Attr.SIGNATURE in attributes:
            data += id_attribute(Attr.OBJTYPE, kind)
        self._answer(client, message, Type.DATA, data)
        return Status.OK


class Caller:
    """A client that calls methods, through any broker; a context manager."""

    def __init__(self, path: str = DEFAULT_PATH, *, timeout: float = wait.PATIENCE):
        """The timeout is that of every wait for a message; it ends in TimeoutError."""
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._sock.settimeout(timeout)
        self._stream = Stream()
        self._messages: collections.deque[Message] = collections.deque()
        self._seq = 0
        try:
            self._sock.connect(path)
            if self._receive().type != Type.HELLO:
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
        request = text_attribute(Attr.OBJPATH, path.encode())
        found = {}
        for attributes in self._request(Type.LOOKUP, 0, request)[1]:
            name = attributes[Attr.OBJPATH].rstrip(b"\0").decode()
            found[name] = int.from_bytes(attributes[Attr.OBJID], "big")
        return found

    def call(self, path: str, method: str, arguments: Mapping[str, Any] | None = None) -> tuple[int, dict[str, Any]]:
        """Status and reply of a method; the status tells of an unknown object, too."""
        object_id = self.lookup(path).get(path)
        if object_id is None:
            return Status.NOT_FOUND, {}
        content = invoke(object_id, method.encode(), encode(arguments or {}))
        status, data = self._request(Type.INVOKE, object_id, content)
        reply: dict[str, Any] = {}
        for attributes in data:
            reply |= decode(attributes.get(Attr.DATA, b""))
        return status, reply

    def _request(self, kind: Type, peer: int, content: bytes) -> tuple[int, list[dict[int, bytes]]]:
        self._seq = self._seq % 0xFFFF + 1
        self._sock.sendall(Message(kind, self._seq, peer, content).pack())
        data = []
        while True:
            message = self._receive()
            if (message.seq, message.peer) != (self._seq, peer):
                continue
            if message.type == Type.DATA:
                data.append(message.attributes())
            elif message.type == Type.STATUS:
                return int.from_bytes(message.attributes()[Attr.STATUS], "big"), data

    def _receive(self) -> Message:
        while not self._messages:
            data = self._sock.recv(65536)
            if not data:
                raise ConnectionResetError("the broker has hung up")
            self._messages.extend(self._stream.feed(data))
        return self._messages.popleft()


def main() -> int:
    """The command line."""
    parser = argparse.ArgumentParser(prog="python3 -m lab.broker", description="Calls a method of an object.")
    parser.add_argument("path", help="the bus's socket")
    call = parser.add_subparsers(dest="command", required=True).add_parser("call")
    call.add_argument("object")
    call.add_argument("method")
    call.add_argument("arguments", nargs="?", type=json.loads, default={}, metavar="JSON")
    options = parser.parse_args()
    with Caller(options.path) as caller:
        status, reply = caller.call(options.object, options.method, options.arguments)
    print(json.dumps(reply, indent=4))
    if status != Status.OK:
        print(f"status {status}", file=sys.stderr)
    return status


if __name__ == "__main__":
    sys.exit(main())
