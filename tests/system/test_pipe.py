"""The request pipe: every operation and refusal, through the library and through a client of another make."""

import contextlib
import errno
import fcntl
import os
import re
import struct
import subprocess
import termios
import threading
from dataclasses import replace
from pathlib import Path
from signal import SIGCONT, SIGKILL, SIGSTOP
from typing import NamedTuple

import pipe_client as pipe
import programs
import pytest
from pipe_client import (
    ADD, ADDORSET, DEL, DELALL, DONE, EXISTS, GET, GETADDRS, GETALL, GETIFS, INVALID, NO_DAEMON, NOT_FOUND, SET,
    Message, server6, slot,
)

from lab import dns, files, plan, wait
from lab.daemon import Daemon
from lab.upstream import answer

RULES = [{"name": "lan", "service_if": "LAN"}]
OLD = plan.LINES[1].addresses
OLD_LIST = [(plan.LINES[n].device, *plan.LINES[n].addresses[:2]) for n in (1, 2)]
NEW = ("192.0.2.1", "192.0.2.2", "2001:db8::1", "2001:db8::2")
ALL_OPERATIONS = range(1, 10)


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
        output, _ = process.communicate(request.pack(), timeout=30)
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


NO_SERVERS6 = {"dns6": server6("::"), "dns6_2": server6("::")}
CHANGES = [
    # fields, servers of an interface that is there, servers of a new one (None: refused)
    ({}, NEW, NEW),
    ({"dns2_flag": 0}, (NEW[0], OLD[1], NEW[2], OLD[3]), None),
    ({"dns_flag": 0}, (OLD[0], NEW[1], OLD[2], NEW[3]), None),
    ({"dns_flag": 1 << 31, "dns2_flag": 0xFFFFFFFF}, NEW, NEW),
    ({"dns": 0, "dns2": 0, **NO_SERVERS6}, (*OLD[:2], "", ""), ("",) * 4),
    ({"dns2": 0, "dns6_2": server6("::")}, (NEW[0], OLD[1], NEW[2], ""), (NEW[0], "", NEW[2], "")),
    ({"no_v4": 1}, (*OLD[:2], *NEW[2:]), ("", "", *NEW[2:])),
    ({"no_v6": 1}, (*NEW[:2], *OLD[2:]), (*NEW[:2], "", "")),
    ({"no_v4": 2, "no_v6": -1}, NEW, NEW),
]


@pytest.mark.parametrize("fields, changed, made", CHANGES)
def test_changes_go_by_their_flags(daemon, call, fields, changed, made):
    for op in (SET, ADDORSET):
        assert pipe.exchange(with_servers(SET, "WAN1", OLD)).message.result == DONE
        assert call(with_servers(op, "WAN1", NEW, **fields)).result == DONE
        assert servers_of("WAN1") == changed
    assert servers_of("WAN2") == plan.LINES[2].addresses
    for op in (ADD, ADDORSET):
        assert call(with_servers(op, "WAN3", NEW, **fields)).result == (INVALID if made is None else DONE)
        assert servers_of("WAN3") == made
        assert [device for device, *_ in listed()][2:] == (["wan3"] if made and made[0] else [])
        pipe.exchange(Message(DEL, ifname=b"WAN3"))


def test_add_of_what_is_there_replaces_ipv6_servers_only(daemon, call):
    for fields, expected in (({"no_v6": 1}, OLD), ({}, (*OLD[:2], *NEW[2:]))):
        assert call(with_servers(ADD, "WAN1", NEW, **fields)).result == EXISTS
        assert servers_of("WAN1") == expected
    assert call(with_servers(ADD, "loopback", NEW)).result == DONE
    assert servers_of("loopback") is None, "it is never entered"


def test_del_and_delall(daemon, call):
    assert call(Message(DEL, ifname=b"WAN1")).result == DONE
    assert listed() == OLD_LIST[1:]
    names = {"PT": "pt-a", "LT": "lt-b", "NOT1": "pta", "NOT2": "l-t"}
    files.write_zone_api(plan.LOGICAL | names)
    for name in names:
        assert pipe.exchange(with_servers(ADD, name, NEW)).message.result == DONE
    assert call(Message(DELALL)).result == DONE
    assert [device for device, *_ in listed()] == ["pt-a", "lt-b"], "VPN devices are spared"


REFUSED = {
    **{f"op {op}": (Message(op), INVALID) for op in (0, GETALL, 10, 1 << 31, 0xFFFFFFFF)},
    **{f"name, op {op}": (Message(op, ifname=b"NOPE"), INVALID) for op in (*ALL_OPERATIONS, 10)},
    "shell": (Message(GET, ifname=b"$(reboot)"), INVALID),
    "empty name": (Message(GET, ifname=b""), INVALID),
    "get": (Message(GET, ifname=b"WAN3"), NOT_FOUND),
    "set": (with_servers(SET, "WAN3", NEW), NOT_FOUND),
    "del": (Message(DEL, ifname=b"WAN3"), NOT_FOUND),
    "add": (with_servers(ADD, "WAN3", NEW, dns2_flag=0), INVALID),
}


def test_refusals_change_nothing(daemon):
    """Neither in the tables nor in the message."""
    for what, (request, code) in REFUSED.items():
        request = replace(request, count=3, data=5, data_len=7, result=11, reserved=13)
        reply = by_python(request)
        assert (reply.result, reply.trailing) == (code, b""), what
        assert reply.message == replace(request, result=code).pack(), what

        kept = by_library(request)
        assert kept.result == code, what
        name = Message.unpack(kept.message).pipe_name
        # The rest of the name's field is the caller's too.
        there = request.pack()
        assert kept.message[:4] == there[:4] and kept.message[104:] == there[104:], what
        assert kept.message[4 + len(name) + 1 : 104] == there[4 + len(name) + 1 : 104], what
    assert (servers_of("WAN1"), listed()) == (OLD, OLD_LIST)


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


def dumps(daemon) -> int:
    return daemon.output().count("***Show server interface(size:")


def test_every_request_is_followed_by_a_dump(daemon):
    expected = dumps(daemon)
    requests = [Message(op) for op in (0, *ALL_OPERATIONS, 10)] + [request for request, _ in REFUSED.values()]
    for request in [*requests, with_servers(ADD, "WAN3", NEW)]:
        expected += 2 if request.op == DELALL and request.ifname == b"loopback" else 1
        pipe.exchange(request)
        wait.until(lambda: dumps(daemon) >= expected, "the dump after a reply")
        assert dumps(daemon) == expected
    assert "ifname:wan3 ifindex:0.\nThe 0 server address:10200c0.\n" in daemon.output()


def test_changes_count_for_the_next_query(start, upstreams, departures, client, call):
    """Each step changes the servers; the next query goes where they are."""
    line = plan.LINES
    first = [(line[1].device, line[1].addresses[0])]
    files.write_online_state({"wan2": "off"})
    start(RULES, {"WAN1": [line[1].addresses[0]]})
    host = client("h1")

    def asked():
        departures.clear()
        answered = host.ask(timeout=0.2 if not listed() else wait.PATIENCE) is not None
        return [(p.device, p.destination) for p in departures.catch_up()] if answered else []

    def only(number: int, *slots: int):
        return [(line[number].device, line[number].addresses[i]) for i in slots]

    assert asked() == first
    steps = [
        (with_servers(SET, "WAN1", (line[1].addresses[1], "", "", "")), only(1, 1)),
        (with_servers(SET, "WAN1", (line[1].addresses[0], line[1].addresses[1], "", "")), only(1, 0, 1)),
        # The line states are read again: the second line is off, so the first one serves.
        (with_servers(ADD, "WAN2", (line[2].addresses[0], "", "", "")), only(1, 0, 1)),
        (with_servers(ADDORSET, "WAN3", (line[3].addresses[0], "", "", "")), None),
        (Message(DEL, ifname=b"WAN1"), only(3, 0)),
        (with_servers(ADD, "VPN", (line[9].addresses[1], "", "", "")), None),
        (Message(DELALL), only(9, 1)),
        (Message(DEL, ifname=b"VPN"), []),
    ]
    for request, expected in steps:
        assert call(request).result == DONE
        if expected is not None:
            assert sorted(asked()) == sorted(expected), request


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
        before = dumps(daemon)
        for number, name in enumerate(names):
            address = f"192.0.2.{number + 1}"
            name = name if isinstance(name, bytes) else name.encode()
            pipe.send(with_servers(SET, "WAN1", (address, "", "", ""), pipe_name=name).pack())
            assert servers_of("WAN1")[0] == address, name
        assert dumps(daemon) - before <= 2 * len(names), "a request came back as a request"
        for reply_pipe in pipes:
            assert reply_pipe.waiting() == [], reply_pipe.name
        assert regular.read_bytes() == b"keep me"

        pipe.send(Message(GETADDRS, pipe_name=longest.name.encode()).pack())
        assert longest.receive_reply().message.result == DONE, "99 characters are allowed"
        for path in (regular, link, unread, below / "pipe"):
            path.unlink()
        below.rmdir()


def test_messages_of_another_length_are_dropped(daemon):
    with pipe.ReplyPipe() as reply_pipe:
        request = with_servers(SET, "WAN1", NEW, pipe_name=reply_pipe.name.encode()).pack()
        for length in (0, 1, 239, 241, 480, 4096):
            pipe.send((request * 18)[:length])
            assert servers_of("WAN1") == OLD, length
            assert reply_pipe.waiting() == [], length


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


def test_requests_in_a_row_do_not_hold_up_a_reply(start, upstreams, arrivals, client, tmp_path):
    """What waits at an upstream socket comes before the second of two requests."""
    gate = str(tmp_path / "gate")
    os.mkfifo(gate)
    gate_fd = os.open(gate, os.O_RDWR | os.O_CLOEXEC)
    may_answer = threading.Event()

    def late(query):
        may_answer.wait(30)
        return answer(query)

    upstreams[1].answer_with(late)
    start(RULES, {"WAN1": [OLD[0]]})
    # From here on each mapping of a name takes as long as we like.
    files.write(
        files.ZONE_API,
        f"zone_iface_to_userif() {{ read -r line <{gate}; }}\n"
        "zone_get_effect_devices() { echo wan1; }\n",
    )
    host = client("h1")
    try:
        port = host.send(dns.query(1))
        upstreams[1].wait_for(1)
        with pipe.ReplyPipe() as reply_pipe:
            request = Message(GET, ifname=b"WAN1", pipe_name=reply_pipe.name.encode()).pack()
            pipe.send(request)
            wait.until(lambda: waiting_requests() == 0, "the first request to be read")
            pipe.send(request)
            may_answer.set()
            arrivals.wait_for(1)
            os.write(gate_fd, b"\n")
            assert reply_pipe.receive_reply().message.result == DONE
            assert host.receive(port) is not None, "the second request was served before the reply"
            os.write(gate_fd, b"\n")
            assert reply_pipe.receive_reply().message.result == DONE
    finally:
        may_answer.set()
        os.write(gate_fd, b"\n\n")
        os.close(gate_fd)


@pytest.mark.parametrize("ifname, requests", [("loopback", 500), ("WAN1", 60)])
def test_sixteen_clients_while_queries_flow(start, upstreams, client, ifname, requests):
    """Each call gets its own reply and each query its answer, though there is always a request to serve.

    Mapping WAN1 runs a shell for each request, which takes a thousand times as long as serving a query.
    """
    daemon = start(RULES, files.resolv_of_lines(1, 2, 3))
    host = client("h1")
    assert host.bulk(20).lost == 0  # opens the upstream sockets
    runs = []
    with leaves_nothing(daemon):
        load = subprocess.Popen(
            [programs.path("tests/pipe_load"), "16", str(requests), ifname],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        with load:
            while load.poll() is None:
                runs.append(host.bulk(500, rate=2000))
            output, errors = load.communicate()
        assert (int(output), errors) == (16 * requests, "")
    for run in runs:
        assert (run.answered, run.duplicates, run.wrong_ident, run.wrong_question) == (500, 0, 0, 0)
    assert daemon.dropped() == 0
