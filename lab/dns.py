"""DNS messages, as much as the lab needs: queries with one question, replies with one answer."""

import ipaddress
import struct
from typing import NamedTuple

A, TXT, AAAA = 1, 16, 28
_TYPES = {"A": A, "TXT": TXT, "AAAA": AAAA}

QR = 0x8000
HEADER = struct.Struct("!6H")  # identifier, flags, questions, answers, authorities, additionals


def name_bytes(name: str) -> bytes:
    labels = [label.encode("ascii") for label in name.strip(".").split(".") if label]
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def query(ident: int, name: str = "where.test", qtype: str = "TXT") -> bytes:
    """A query with recursion desired."""
    question = name_bytes(name) + struct.pack("!HH", _TYPES[qtype], 1)
    return HEADER.pack(ident, 0x0100, 1, 0, 0, 0) + question


def ident(message: bytes) -> int:
    """The identifier; -1 for a datagram that is too short to have one."""
    return int.from_bytes(message[:2], "big") if len(message) >= 2 else -1


def with_ident(message: bytes, number: int) -> bytes:
    """The same message under another identifier."""
    return number.to_bytes(2, "big") + message[2:]


def question_end(message: bytes) -> int:
    """Offset of the first byte after the only question, or the message's length if it is cut."""
    at = HEADER.size
    while at < len(message) and message[at] != 0:
        at += message[at] + 1
    return min(at + 5, len(message))


def record(qtype: int, data: bytes) -> bytes:
    """An answer record for the name in the question."""
    return struct.pack("!HHHIH", 0xC00C, qtype, 1, 60, len(data)) + data


def text_data(text: str) -> bytes:
    """Record data of type TXT: one string of at most 255 bytes."""
    raw = text.encode("utf-8")[:255]
    return bytes([len(raw)]) + raw


class Message(NamedTuple):
    """What the tests look at in a reply."""

    ident: int
    is_reply: bool
    rcode: int
    question: bytes  # name, type and class as on the wire
    answer: str  # the first answer as text, empty without one


def parse(message: bytes) -> Message:
    """Raises ValueError or struct.error on what is not a message."""
    number, flags, questions, answers, _, _ = HEADER.unpack_from(message)
    end = question_end(message) if questions else HEADER.size
    answer = ""
    if answers:
        # The lab's servers name the question in their first answer, by a pointer.
        pointer, qtype, _, _, size = struct.unpack_from("!HHHIH", message, end)
        if pointer != 0xC00C:
            raise ValueError("the first answer is not for the question's name")
        data = message[end + 12 : end + 12 + size]
        if qtype in (A, AAAA):
            answer = str(ipaddress.ip_address(data))
        elif qtype == TXT:
            answer = data[1 : 1 + data[0]].decode("utf-8")
        else:
            answer = data.hex()
    return Message(number, bool(flags & QR), flags & 15, message[HEADER.size : end], answer)
