"""Messages of the bus: what travels between a broker, owners of objects and their callers."""

import struct
from collections.abc import Iterator, Mapping
from enum import IntEnum
from typing import Any, NamedTuple


class Status(IntEnum):
    """What a request ends with."""

    OK = 0
    INVALID_COMMAND = 1
    INVALID_ARGUMENT = 2
    METHOD_NOT_FOUND = 3
    NOT_FOUND = 4
    NO_DATA = 5
    PERMISSION_DENIED = 6


class Type(IntEnum):
    """Of a message."""

    HELLO = 0
    STATUS = 1
    DATA = 2
    PING = 3
    LOOKUP = 4
    INVOKE = 5
    ADD_OBJECT = 6
    REMOVE_OBJECT = 7


class Attr(IntEnum):
    """What an attribute of a message holds."""

    STATUS = 1
    OBJPATH = 2
    OBJID = 3
    METHOD = 4
    OBJTYPE = 5
    SIGNATURE = 6
    DATA = 7
    USER = 12
    GROUP = 13


# Version, type, sequence number, peer, length of what follows and itself.
HEADER = struct.Struct("!BBHII")
LONGEST = 1 << 20  # of that length


def _padded(data: bytes) -> bytes:
    return data + bytes(-len(data) % 4)


def attribute(ident: int, content: bytes) -> bytes:
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
    return attribute(0x80 | kind, _padded(struct.pack("!H", len(raw)) + raw + b"\0") + value)


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
        return HEADER.pack(0, self.type, self.seq, self.peer, len(self.content) + 4) + self.content

    def attributes(self) -> dict[int, bytes]:
        """Contents of the attributes; of two equal ones the later."""
        return {first & 0x7F: content for first, content in _split(self.content)}


def id_attribute(ident: int, value: int) -> bytes:
    return attribute(ident, struct.pack("!I", value))


def text_attribute(ident: int, value: bytes) -> bytes:
    return attribute(ident, value + b"\0")


def invoke(object_id: int, method: bytes, data: bytes, more: bytes = b"") -> bytes:
    return id_attribute(Attr.OBJID, object_id) + text_attribute(Attr.METHOD, method) + more + attribute(Attr.DATA, data)


class Stream:
    """Takes the messages out of bytes that arrive in any pieces."""

    def __init__(self):
        self._bytes = bytearray()

    def feed(self, data: bytes) -> Iterator[Message]:
        """The messages that these bytes complete; ValueError for a length that none has."""
        self._bytes += data
        while len(self._bytes) >= HEADER.size:
            _, kind, seq, peer, length = HEADER.unpack_from(self._bytes)
            length &= 0xFFFFFF
            if not 4 <= length <= LONGEST:
                raise ValueError(f"a message of length {length}")
            end = HEADER.size + length - 4
            if len(self._bytes) < end:
                return
            message = Message(kind, seq, peer, bytes(self._bytes[HEADER.size : end]))
            del self._bytes[:end]
            yield message
