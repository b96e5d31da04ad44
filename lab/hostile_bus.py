"""What a broker should never send, made for an object's id."""

import os
import struct
from collections.abc import Callable

from lab.bus import HEADER, LONGEST, Attr, Message, Type, attribute, id_attribute, invoke, text_attribute


def _truncated(object_id: int) -> bytes:
    whole = Message(Type.INVOKE, 1, 1, invoke(object_id, b"get_state", b"")).pack()
    return whole[: len(whole) - 6]


def _oversized(object_id: int) -> bytes:
    return HEADER.pack(0, Type.INVOKE, 1, 1, LONGEST + 1) + invoke(object_id, b"get_state", bytes(4096))


def _misaligned(object_id: int) -> bytes:
    # A byte of padding is missing: what follows stands at an odd place.
    method = text_attribute(Attr.METHOD, b"get_state")[:-1]
    content = id_attribute(Attr.OBJID, object_id) + method + attribute(Attr.DATA, b"")
    return Message(Type.INVOKE, 1, 1, content).pack()


def _wrong_length(object_id: int) -> bytes:
    wrong = b""
    for length in (0, 3, 5, 0xFFFF, 0xFFFFFF):
        data = struct.pack("!I", 0x83 << 24 | length) + b"\x00\x04name\x00\x00lan\x00"
        wrong += Message(Type.INVOKE, 1, 1, invoke(object_id, b"update_if", data)).pack()
        method = struct.pack("!I", Attr.METHOD << 24 | length) + b"get_state"
        content = id_attribute(Attr.OBJID, object_id) + method
        wrong += Message(Type.INVOKE, 1, 1, content).pack()
    return wrong


def _nested(object_id: int) -> bytes:
    depth = 100_000
    tables = b"".join(struct.pack("!II", 0x82 << 24 | 8 * left, 0) for left in range(depth, 0, -1))
    return Message(Type.INVOKE, 1, 1, invoke(object_id, b"update_if", tables)).pack()


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
