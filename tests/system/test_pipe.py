"""The request pipe and its files, through the library and through a client of another make. What each operation does
is the model's to know (tests/model).
"""

import contextlib
import errno
import fcntl
import os
import re
import struct
import subprocess
import termios
from concurrent.futures import ThreadPoolExecutor
from dataclasses import replace
from pathlib import Path
from signal import SIGCONT, SIGKILL, SIGSTOP
from typing import NamedTuple

import pipe_client as pipe
import programs
import pytest
from pipe_client import DONE, GET, GETADDRS, GETIFS, NO_DAEMON, NOT_FOUND, SET, Message, server6, slot

from lab import files, plan, wait
from lab.daemon import Daemon

RULES = [{"name": "lan", "service_if": "LAN"}]
OLD = plan.LINES[1].addresses
OLD_LIST = [(plan.LINES[n].device, *plan.LINES[n].addresses[:2]) for n in (1, 2)]
NEW = ("192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2")


class Outcome(NamedTuple):
    """What a caller of the protocol has in the end."""

    result: int
    message: bytes  # the reply, or the caller's message after a failure
    trailing: bytes


def by_python(request: Message) -> Outcome:
    try:
        reply = pipe.exchange(request)
    except OSError as error:
        assert error.errno in (errno.ENXIO, errno.ENOENT)
        return Outcome(NO_DAEMON, request.pack(), b"")
    return Outcome(reply.message.result, reply.raw, reply.trailing)


def library_call(**options) -> subprocess.Popen:
    """A program that makes the client call with the message that it is given."""
    program = programs.path("tests/pipe_call")
    return subprocess.Popen([program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, **options)


def library_outcome(output: bytes) -> Outcome:
    (result,) = struct.unpack_from("=i", output)
    return Outcome(result, output[4 : 4 + pipe.SIZE], output[4 + pipe.SIZE :])


def by_library(request: Message) -> Outcome:
    with library_call() as process:
        output, _ = process.communicate(request.pack(), timeout=wait.PATIENCE)
    assert process.returncode == 0
    return library_outcome(output)


@pytest.fixture(params=(by_python, by_library), ids=("python", "library"))
def call(request):
    """Sends one request and gives its Outcome."""
    return request.param


def open_pipes(daemon) -> list[str]:
    """The daemon's descriptors of pipes, and of their folder; the bus has others of its own, which change."""
    return sorted(target for target in daemon.fds().values() if "nmpipe" in target)


@contextlib.contextmanager
def leaves_nothing(daemon):
    """No reply pipe and no descriptor of one may be left at the end."""
    daemon.settle()
    before = open_pipes(daemon)
    assert len(before) == 2, "the request pipe, once to hold it and once to read it"
    yield
    assert os.listdir(pipe.FOLDER) == [pipe.REQUEST_PIPE]
    wait.until(lambda: open_pipes(daemon) == before, "the daemon to close the reply pipes")


@pytest.fixture
def daemon(start):
    """Serves with WAN1 and WAN2, each with two servers of each family; WAN3 can be added."""
    daemon = start(RULES, files.resolv_of_lines(1, 2))
    with leaves_nothing(daemon):
        yield daemon


def with_servers(op: int, ifname: str, addresses, **fields) -> Message:
    """A request with both flags and these four servers; "" for none."""
    first, second, first6, second6 = addresses
    request = Message(op, ifname=ifname.encode(), dns_flag=1, dns2_flag=1)
    request.dns, request.dns2 = slot(first or "0.0.0.0"), slot(second or "0.0.0.0")
    request.dns6, request.dns6_2 = server6(first6 or "::"), server6(second6 or "::")
    return replace(request, **fields)


def servers_in(message: Message) -> tuple[str, ...]:
    """The four servers that GET gave, "" for none."""
    assert (message.result, message.dns_flag, message.dns2_flag) == (DONE, 1, 1)
    return (
        *(pipe.slot_text(server) for server in (message.dns, message.dns2)),
        *(pipe.server6_text(server) for server in (message.dns6, message.dns6_2)),
    )


def servers_of(ifname: str) -> tuple[str, ...] | None:
    """The servers of an interface; None when it is not there."""
    message = pipe.exchange(Message(GET, ifname=ifname.encode())).message
    return None if message.result == NOT_FOUND else servers_in(message)


def listed() -> list[tuple[str, str, str]]:
    """The devices of the server table with their IPv4 servers."""
    reply = pipe.exchange(Message(GETIFS))
    return pipe.interfaces(reply)[: reply.message.count]


def test_get_gives_the_servers(daemon, call):
    for number in (1, 2):
        outcome = call(Message(GET, ifname=b"WAN%d" % number, reserved=77))
        message = Message.unpack(outcome.message)
        assert (outcome.result, message.reserved) == (DONE, 77)
        assert servers_in(message) == plan.LINES[number].addresses
    # A name that fills its field has no NUL.
    files.write_zone_api(plan.LOGICAL | {"ABCDEFGHIJKLMNOP": "wan2"})
    outcome = call(Message(GET, ifname=b"ABCDEFGHIJKLMNOP", dns_flag=0x41414141))
    assert servers_in(Message.unpack(outcome.message)) == plan.LINES[2].addresses


MANY = {f"N{i}": f"lt-{i}" for i in range(300)}  # 9600 bytes of list
LISTS = {
    # lines, GETADDRS with "" for each empty entry, GETIFS
    "empty": ({}, [], []),
    "two": (
        {"WAN1": ["192.0.2.1"], "WAN2": ["192.0.2.2", "192.0.2.3"]},
        ["192.0.2.1", "192.0.2.2", "192.0.2.3", ""],
        [("wan1", "192.0.2.1", ""), ("wan2", "192.0.2.2", "192.0.2.3")],
    ),
    "IPv6 alone": (
        {"WAN3": ["2001:db8::1"], "WAN2": ["192.0.2.2"]},
        ["192.0.2.2", "", "", ""],
        [("wan2", "192.0.2.2", ""), ("", "", "")],
    ),
    "longer than a message": (
        {name: [f"192.0.2.{i % 256}"] for i, name in enumerate(MANY)},
        [f"192.0.2.{i % 256}" for i in range(300)] + [""] * 300,
        [(device, f"192.0.2.{i % 256}", "") for i, device in enumerate(MANY.values())],
    ),
}


@pytest.mark.parametrize("table, addresses, interfaces", LISTS.values(), ids=LISTS)
def test_lists(start, call, table, addresses, interfaces):
    files.write_zone_api(plan.LOGICAL | MANY)
    with leaves_nothing(start(RULES, table)):
        for op, expected, entries in ((GETADDRS, addresses, pipe.addresses), (GETIFS, interfaces, pipe.interfaces)):
            outcome = call(Message(op, count=99, data_len=99))
            reply = pipe.Reply(Message.unpack(outcome.message), outcome.message, outcome.trailing)
            valid = [entry for entry in expected if entry not in ("", ("", "", ""))]
            assert (outcome.result, reply.message.count) == (DONE, len(valid))
            assert reply.message.data_len == len(reply.trailing)
            assert entries(reply) == expected


def test_reply_pipes_that_are_refused(daemon):
    """The request is carried out; nothing is written anywhere."""
    folder = Path(pipe.FOLDER)
    with contextlib.ExitStack() as stack:
        pipes = [stack.enter_context(pipe.ReplyPipe(name)) for name in (None, ".hidden", "o dd", None, "x" * 99)]
        readable, hidden, odd, foreign, longest = pipes
        os.chown(foreign.path, 1, 1)
        os.mkfifo(unread := folder / "unread", 0o600)
        (regular := folder / "regular").write_bytes(b"keep me")
        (link := folder / "link").symlink_to(readable.path)
        (below := folder / "below").mkdir()
        os.link(readable.path, below / "pipe")

        names = [pipe.REQUEST_PIPE, "", "nothing", b"\xff\xfe", "x" * 100, ".", "..", "/dev/stdout"]
        names += [hidden.name, odd.name, foreign.name, unread.name, regular.name, link.name, below.name]
        names += ["below/pipe", f"../nmpipe/{readable.name}", readable.path]
        for number, name in enumerate(names):
            address = f"192.0.2.{number + 1}"
            name = name if isinstance(name, bytes) else name.encode()
            pipe.send(with_servers(SET, "WAN1", (address, "", "", ""), pipe_name=name).pack())
            assert servers_of("WAN1")[0] == address, name
        for reply_pipe in pipes:
            assert reply_pipe.waiting() == [], reply_pipe.name
        assert regular.read_bytes() == b"keep me"

        pipe.send(Message(GETADDRS, pipe_name=longest.name.encode()).pack())
        assert longest.receive_reply().message.result == DONE, "99 characters are allowed"
        for path in (regular, link, unread, below / "pipe"):
            path.unlink()
        below.rmdir()


def test_client_that_never_reads(daemon):
    """Its pipe fills up; the daemon goes on."""
    slots = 16  # of a pipe as the system makes it
    with pipe.ReplyPipe() as reply_pipe:
        for number in range(40):
            pipe.send(Message(GETIFS, pipe_name=reply_pipe.name.encode(), reserved=number).pack())
        assert listed() == OLD_LIST
        messages = reply_pipe.waiting()
        assert [len(message) for message in messages] == [pipe.SIZE, 64] * (slots // 2)
        numbers = [Message.unpack(message).reserved for message in messages[::2]]
        assert numbers == list(range(slots // 2))


def waiting_requests() -> int:
    """How many requests the daemon has not read yet."""
    fd = os.open(f"{pipe.FOLDER}/{pipe.REQUEST_PIPE}", os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
    try:
        return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, bytes(4)))[0] // pipe.SIZE
    finally:
        os.close(fd)


def send_without_waiting(request: Message) -> subprocess.Popen:
    """A library client whose request waits in the pipe of a stopped daemon."""
    before = waiting_requests()
    process = library_call()
    process.stdin.write(request.pack())
    process.stdin.close()
    wait.until(lambda: waiting_requests() == before + 1, "the client's request")
    return process


def test_client_killed_before_its_reply(daemon):
    daemon.signal(SIGSTOP)
    with send_without_waiting(with_servers(SET, "WAN1", NEW)) as client:
        client.kill()
    daemon.signal(SIGCONT)
    assert servers_of("WAN1") == NEW, "the request stands"
    # Nobody could remove the pipe of a client that was killed.
    (left,) = set(os.listdir(pipe.FOLDER)) - {pipe.REQUEST_PIPE}
    assert re.fullmatch(r"dnsp_\d{1,10}", left)
    os.unlink(f"{pipe.FOLDER}/{left}")


def test_daemon_killed_and_started_again(lab):
    files.write_rules(RULES)
    files.write_resolv(files.resolv_of_lines(1))

    def results() -> set[int]:
        return {call(Message(GETADDRS)).result for call in (by_python, by_library)}

    with Daemon() as first:
        first.signal(SIGSTOP)
        waiting = send_without_waiting(Message(GETADDRS))
        assert first.stop(SIGKILL) == -SIGKILL
        assert pipe.REQUEST_PIPE in os.listdir(pipe.FOLDER)
        assert results() == {NO_DAEMON}
    with Daemon() as second, leaves_nothing(second):
        # The request that waited is answered by the next daemon, since its client kept the pipe alive.
        with waiting:
            assert library_outcome(waiting.stdout.read()).result == DONE
        assert results() == {DONE}
    os.unlink(f"{pipe.FOLDER}/{pipe.REQUEST_PIPE}")
    assert results() == {NO_DAEMON}
    assert os.listdir(pipe.FOLDER) == []


def test_clients_at_once_while_queries_flow(start, upstreams, client, call):
    """Each call gets its own reply and each query its answer; mapping a name takes longer than many queries."""
    daemon = start(RULES, files.resolv_of_lines(1, 2, 3))
    host = client("h1")
    assert host.bulk(20).lost == 0  # opens the upstream sockets

    def ask(number: int) -> bool:
        line = number % 3 + 1
        message = Message.unpack(call(Message(GET, ifname=b"WAN%d" % line, reserved=number)).message)
        return (message.reserved, servers_in(message)) == (number, plan.LINES[line].addresses)

    with leaves_nothing(daemon), ThreadPoolExecutor(8) as pool:
        answers = pool.map(ask, range(100))
        run = host.bulk(1000, rate=2000, outstanding=64)
        assert all(answers)
    assert (run.answered, run.duplicates, run.wrong_ident, run.wrong_question) == (1000, 0, 0, 0)
