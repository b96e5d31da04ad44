"""The bus object: link states set and told, a bus that fails in every way, and two threads at work.

A build with ThreadSanitizer ends at the first race.
"""

import contextlib
import itertools
import os
import random
import socket
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from signal import SIGCHLD, SIGINT, SIGTERM

import pipe_client as pipe
import pytest
from pipe_client import ADD, DEL, DONE, GET

from lab import files, plan, wait
from lab.broker import Broker, Caller
from lab.bus import Message, Status
from lab.daemon import Daemon
from lab.hostile_bus import HOSTILE

BUS = "/var/run/ubus.sock"
OBJECT = "dnsproxy"
STATISTICS = "dnsproxy.statistics"
RULES = [{"name": "lan", "service_if": "LAN"}]

GREETING = Message(type=0, seq=0, peer=0x01020304).pack()
HEADER_SIZE = 8  # of a message, without the length of the rest


@pytest.fixture(autouse=True)
def races_are_failures(monkeypatch):
    monkeypatch.setenv("TSAN_OPTIONS", os.environ.get("TSAN_OPTIONS", "halt_on_error=1"))


@pytest.fixture
def bus():
    with Broker(BUS) as bus:
        yield bus


def one_server(*numbers: int) -> dict[str, list[str]]:
    """These lines with one IPv4 server each, so that a query has one reply."""
    return {name: addresses[:1] for name, addresses in files.resolv_of_lines(*numbers).items()}


def update(device: str, status: str) -> dict[str, str]:
    """The arguments of update_if."""
    return {"name": "a line", "dev": device, "status": status}


def state(bus: Broker | Caller) -> list[tuple[str, str]]:
    """The lines and their states, in the order in which they are tried."""
    status, reply = bus.call(OBJECT, "get_state")
    assert status == Status.OK
    assert all(list(table) == ["dev", "status"] for table in reply.values())
    assert [table["dev"] for table in reply.values()] == list(reply)
    return [(device, table["status"]) for device, table in reply.items()]


def is_served(bus: Broker, devices: set[str]) -> bool:
    """Whether the object answers; whatever has happened to it, no line was changed."""
    return set(state(bus)) == {(device, "on") for device in devices}


def wait_without_bus_thread(daemon) -> None:
    """Returns once the bus thread has ended. ThreadSanitizer has a thread of its own."""
    maps = Path(f"/proc/{daemon.pid}/maps").read_text(encoding="utf-8")
    others = 2 if "/libtsan.so" in maps else 1
    wait.until(lambda: daemon.threads() == others, "the bus thread to end")


def come_back(bus: Broker) -> None:
    """Hangs up on the daemon, unless it has hung up itself, and waits until it has registered again."""
    before = bus.registered.count(OBJECT)
    with contextlib.suppress(KeyError):
        bus.drop(OBJECT)
    wait.until(lambda: bus.registered.count(OBJECT) > before, "the object to be registered again")
    bus.wait_for(OBJECT)


@contextlib.contextmanager
def meanwhile(turn):
    """Another thread takes one turn after the other; what it raises, the test raises."""
    end = threading.Event()

    def take_turns() -> int:
        for turns in itertools.count():
            if end.is_set():
                return turns
            turn()

    with ThreadPoolExecutor(1) as pool:
        turns = pool.submit(take_turns)
        try:
            yield
        finally:
            end.set()
    assert turns.result() > 0


@contextlib.contextmanager
def queries_flow(daemon, host, rate: int = 1000):
    """The host asks all the time, and each query gets its own answer."""
    runs = []
    assert host.bulk(16).lost == 0  # opens the upstream sockets
    with meanwhile(lambda: runs.append(host.bulk(rate // 5, rate=rate, outstanding=64))):
        yield runs
    assert daemon.dropped() == 0, "the load was too much for the sockets"
    for run in runs:
        assert (run.answered, run.duplicates, run.wrong_ident, run.wrong_question) == (run.sent, 0, 0, 0)


@contextlib.contextmanager
def listening():
    """The test itself is the bus, in place of one that may be there."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(BUS)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(BUS)
        listener.listen()
        listener.settimeout(wait.PATIENCE)
        yield listener
    os.unlink(BUS)


@contextlib.contextmanager
def accepted(listener: socket.socket, said: bytes = b""):
    """The daemon's next connection, on which the bus has said something."""
    connection, _ = listener.accept()
    with connection:
        connection.settimeout(wait.PATIENCE)
        connection.sendall(said)
        yield connection


# update_if, the devices by which the next queries leave, one list each, and the lines then
STEPS = [
    (None, [["wan1"]], "wan2:on pt-vpn0:on wan1:on"),
    (("wan2", "off"), [["pt-vpn0"], ["wan1"]], "wan2:off pt-vpn0:on wan1:on"),
    (("wan2", "on"), [["wan2"]], "pt-vpn0:on wan1:on wan2:on"),
    (("wan2", "down"), [["pt-vpn0"], ["wan1"]], "wan2:off pt-vpn0:on wan1:on"),
    (("wan1", ""), [["pt-vpn0"], ["pt-vpn0"]], "wan2:off wan1:off pt-vpn0:on"),
    # Without any line that is up all are asked, in their order, which stays.
    (("pt-vpn0", "ON"), [["wan2", "wan1", "pt-vpn0"]] * 2, "wan2:off wan1:off pt-vpn0:off"),
    (("wan1", "on"), [["wan1"], ["wan1"]], "wan2:off pt-vpn0:off wan1:on"),
    (("wan1", " on"), [["wan2", "pt-vpn0", "wan1"]], "wan2:off pt-vpn0:off wan1:off"),
    (("pt-vpn0", "on"), [["pt-vpn0"]], "wan2:off wan1:off pt-vpn0:on"),
    (("wan1", "on"), [["wan1"]], "wan2:off pt-vpn0:on wan1:on"),
    (("pt-vpn0", "on\n"), [["wan1"]], "wan2:off pt-vpn0:off wan1:on"),
    (("wan2", "on"), [["wan2"], ["wan1"]], "pt-vpn0:off wan2:on wan1:on"),
]


def test_the_very_next_query_follows_an_update(bus, start, upstreams, departures, client):
    daemon = start(RULES, one_server(1, 2, 9))
    bus.wait_for(OBJECT)
    host = client("h1")

    def asked() -> list[str]:
        departures.clear()
        assert host.ask() is not None
        daemon.settle()
        return [packet.device for packet in departures.catch_up()]

    for row, (arguments, queries, lines) in enumerate(STEPS):
        if arguments is not None:
            assert bus.call(OBJECT, "update_if", update(*arguments)) == (Status.OK, {})
        assert [asked() for _ in queries] == queries, f"row {row}"
        assert " ".join(f"{device}:{status}" for device, status in state(bus)) == lines, f"row {row}"


WHOLE = update("wan1", "off")
INVALID = {
    "nothing": {},
    **{f"no {field}": {key: value for key, value in WHOLE.items() if key != field} for field in WHOLE},
    **{f"{field} as {type(wrong)}": WHOLE | {field: wrong}
       for field in WHOLE for wrong in (1, 1 << 40, True, 0.5, None, ["off"], {"off": "off"})},
    "another case": {"Name": "a line", "DEV": "wan1", "status": "off"},
}  # fmt: skip
WITHOUT_EFFECT = {
    "unknown device": update("wan3", "off"),
    "no device": update("", "off"),
    "longer name": update("wan1" + "x" * 100, "off"),
    "longest fields": {"name": "x" * 60000, "dev": "y" * 60000, "status": "z" * 60000},
}


def test_calls_that_change_nothing(bus, start):
    start(RULES, one_server(1, 2))
    bus.wait_for(OBJECT)
    lines = [("wan1", "on"), ("wan2", "on")]
    for expected, rows in ((Status.INVALID_ARGUMENT, INVALID), (Status.OK, WITHOUT_EFFECT)):
        for what, arguments in rows.items():
            assert bus.call(OBJECT, "update_if", arguments) == (expected, {}), what
            assert state(bus) == lines, what
    for method in ("update", "update_if2", "UPDATE_IF", ""):
        assert bus.call(OBJECT, method, WHOLE) == (Status.METHOD_NOT_FOUND, {}), method
    assert state(bus) == lines
    assert bus.call(OBJECT, "update_if", WHOLE | {"more": 1}) == (Status.OK, {})
    assert state(bus) == [("wan1", "off"), ("wan2", "on")]


@pytest.mark.parametrize("kind", HOSTILE)
def test_a_hostile_bus(bus, start, fast_bus, upstreams, client, kind):
    daemon = start(RULES, one_server(1, 2), environment=fast_bus)
    bus.wait_for(OBJECT)
    with queries_flow(daemon, client("h1")):
        for _ in range(3):
            before = bus.registered.count(OBJECT)
            bus.attack(kind, OBJECT)
            if kind in ("misaligned", "wrong_length", "nested"):  # whole messages, of which nothing follows
                assert is_served(bus, {"wan1", "wan2"})
                assert bus.registered.count(OBJECT) == before
            come_back(bus)
            assert is_served(bus, {"wan1", "wan2"})


def test_a_bus_that_dies_again_and_again(bus, start, fast_bus, upstreams, client):
    """The daemon tries again every two seconds."""
    restarts = 5
    daemon = start(RULES, one_server(1, 2), environment=fast_bus)
    bus.wait_for(STATISTICS)
    with queries_flow(daemon, client("h1")):
        descriptors = len(daemon.fds())
        for _ in range(restarts):
            bus.restart()
            bus.wait_for(STATISTICS)
            assert is_served(bus, {"wan1", "wan2"})
        assert len(daemon.fds()) == descriptors
    assert bus.registered == [OBJECT, STATISTICS] * (1 + restarts)


def test_statistics_lost_or_refused_change_nothing_else(bus, start, fast_bus, upstreams):
    start(RULES, one_server(1), environment=fast_bus)
    bus.wait_for(STATISTICS)
    bus.drop(STATISTICS)
    bus.wait_for(STATISTICS)
    assert bus.registered == [OBJECT, STATISTICS, STATISTICS]
    bus.refused.add(STATISTICS)
    for _ in range(2):
        bus.restart()
        bus.wait_for(OBJECT)
        assert is_served(bus, {"wan1"})
    bus.refused.clear()
    bus.restart()
    bus.wait_for(STATISTICS)


def hang_up(_connection: socket.socket) -> None:
    pass


def talk_nonsense(connection: socket.socket) -> None:
    connection.sendall(os.urandom(4096))


def end_in_registration(connection: socket.socket) -> None:
    connection.sendall(GREETING)
    assert connection.recv(1)


def refuse_registration(connection: socket.socket) -> None:
    """Answers with status 2."""
    connection.sendall(GREETING)
    seq = int.from_bytes(connection.recv(4096)[2:4], "big")
    connection.sendall(Message(type=1, seq=seq, peer=0, content=b"\1\0\0\x08\0\0\0\2").pack())


def sockets(daemon, table: str, inode: int) -> dict[int, str]:
    """The daemon's sockets, by descriptor, that are in a table of the kernel's, with their inode in this column."""
    lines = Path("/proc/net", table).read_text(encoding="ascii").splitlines()[1:]
    known = {f"socket:[{line.split()[inode]}]" for line in lines}
    return {fd: link for fd, link in daemon.fds().items() if link in known}


def bus_sockets(daemon) -> dict[int, str]:
    """The daemon's connections to the bus."""
    return sockets(daemon, "unix", 6)


def test_failing_reconnects_leave_other_descriptors_alone(bus, start, fast_bus, upstreams, client):
    """Between two attempts an upstream socket gets the number of the connection that has failed."""
    daemon = start(RULES, one_server(1), environment=fast_bus)
    bus.wait_for(STATISTICS)
    host = client("h1")
    assert host.ask() is not None
    at_first = daemon.fds()
    number = min(bus_sockets(daemon))
    others: dict[int, str] = {}
    add = pipe.Message(ADD, ifname=b"WAN2", dns_flag=1, dns2_flag=1, dns=pipe.slot(plan.LINES[2].addresses[0]))
    remove = pipe.Message(DEL, ifname=b"WAN2")

    def attempt(listener: socket.socket, failure) -> bool:
        """One reconnect that fails. False: the daemon's next attempt had the number before the upstream socket."""
        at_once = failure in (hang_up, talk_nonsense)  # without a greeting the connection is closed at once
        with accepted(listener) as connection:
            assert len(bus_sockets(daemon)) == 1, "the connections of before are closed"
            assert daemon.fds().items() >= others.items()
            failure(connection)
            assert host.ask() is not None
        if others:
            assert pipe.exchange(remove).message.result == DONE
        if at_once:
            wait.until(lambda: number not in bus_sockets(daemon), "the connection to be closed")
        assert pipe.exchange(add).message.result == DONE
        for _ in range(2):
            assert host.ask() is not None
        others.clear()
        others.update(sockets(daemon, "udp", 9))
        return not at_once or number in others

    with listening() as listener:
        bus.drop(OBJECT)
        for failure in (hang_up, talk_nonsense, end_in_registration, refuse_registration, hang_up):
            what = f"an upstream socket with the number of a connection that failed: {failure.__name__}"
            wait.until(lambda failure=failure: attempt(listener, failure), what)
    bus.restart()
    bus.wait_for(OBJECT)
    assert pipe.exchange(remove).message.result == DONE
    assert is_served(bus, {"wan1"})
    # The one to the reply pipe is closed after the reply.
    wait.until(lambda: len(daemon.fds()) == len(at_first), f"as few descriptors as {at_first}")


@contextlib.contextmanager
def serving():
    with Broker(BUS) as bus, Daemon() as daemon:
        bus.wait_for(OBJECT)
        yield daemon


@contextlib.contextmanager
def bus_gone():
    with Broker(BUS) as bus, Daemon() as daemon:
        bus.wait_for(OBJECT)
        bus.stop()
        wait.until(lambda: not bus_sockets(daemon), "the daemon to wait for its next attempt")
        yield daemon


@contextlib.contextmanager
def silent_bus(said: bytes, registered_before: bool):
    """What the bus says on a connection, the first or a later one, and then nothing more."""
    with contextlib.ExitStack() as stack:
        if registered_before:
            bus, daemon = stack.enter_context(Broker(BUS)), stack.enter_context(Daemon())
            bus.wait_for(OBJECT)
        listener = stack.enter_context(listening())
        if registered_before:
            bus.drop(OBJECT)
        else:
            daemon = stack.enter_context(Daemon())
        connection = stack.enter_context(accepted(listener, said))
        if said:
            assert connection.recv(1)
        yield daemon


MOMENTS = {
    "serving": serving,
    "bus gone": bus_gone,
    "no greeting yet": lambda: silent_bus(b"", False),
    "no answer to the registration yet": lambda: silent_bus(GREETING, False),
    "silent when reconnecting": lambda: silent_bus(b"", True),
    "silent when registering again": lambda: silent_bus(GREETING, True),
}


@pytest.mark.parametrize("number", [SIGTERM, SIGINT], ids=lambda number: number.name)
@pytest.mark.parametrize("moment", MOMENTS.values(), ids=MOMENTS)
def test_one_signal_ends_the_daemon(lab, upstreams, client, moment, number):
    files.write_rules(RULES)
    files.write_resolv(one_server(1, 2))
    with moment() as daemon:
        run = client("h1").bulk(100, outstanding=16)
        assert (run.answered, run.duplicates) == (100, 0)
        assert daemon.stop(number) == -number, daemon.output()


def caught_signals(daemon) -> set[int]:
    """Those for which it has a handler."""
    status = Path(f"/proc/{daemon.pid}/status").read_text(encoding="ascii")
    caught = int(status.partition("SigCgt:")[2].split()[0], 16)
    return {number for number in (SIGINT, SIGTERM, SIGCHLD) if caught >> (number - 1) & 1}


def test_the_bus_library_keeps_no_signal(bus, start, fast_bus):
    """Neither those that end the daemon nor the one by which it would take the ends of mapping commands."""
    daemon = start(RULES, one_server(1), environment=fast_bus)
    for _ in range(2):
        bus.wait_for(OBJECT)
        assert is_served(bus, {"wan1"})
        assert caught_signals(daemon) == set()
        come_back(bus)


def test_mapping_commands_are_right_while_the_bus_is_used(bus, start, fast_bus):
    start(RULES, files.resolv_of_lines(1, 2, 3), environment=fast_bus)
    bus.wait_for(OBJECT)

    def use_bus() -> None:
        for status in ("off", "on"):
            assert bus.call(OBJECT, "update_if", update("wan1", status))[0] == Status.OK
            assert len(state(bus)) == 3
        come_back(bus)

    with meanwhile(use_bus):
        for number in itertools.islice(itertools.cycle((1, 2, 3)), 50):
            reply = pipe.exchange(pipe.Message(GET, ifname=f"WAN{number}".encode())).message
            found = (reply.result, pipe.slot_text(reply.dns), pipe.slot_text(reply.dns2))
            assert found == (DONE, *plan.LINES[number].addresses[:2])


def test_calls_queries_and_changes_at_once(bus, start, upstreams, client):
    calls, queries = 1000, 3000
    daemon = start(RULES, one_server(1, 2, 9))
    bus.wait_for(STATISTICS)
    chance = random.Random(1)
    lines = {"wan1": "on", "wan2": "on"}

    # A line without IPv4 servers: it comes and goes among the others, and no query gets lost with it.
    add = pipe.Message(ADD, ifname=b"WAN3", dns_flag=1, dns2_flag=1, no_v4=1, dns6=pipe.server6("2001:db8::1"))
    remove = pipe.Message(DEL, ifname=b"WAN3")

    def change() -> None:
        for request in (add, remove):
            assert pipe.exchange(request).message.result == DONE

    def call_twice(caller: Caller) -> None:
        """No line is ever missing from the list, however the main thread moves them."""
        device, status = chance.choice([*lines, "wan3"]), chance.choice(["on", "off"])
        assert caller.call(OBJECT, "update_if", update(device, status)) == (Status.OK, {})
        if device in lines:
            lines[device] = status
        told = dict(state(caller))
        told.pop("wan3", None)
        assert told == lines | {"pt-vpn0": "on"}

    with Caller(BUS) as caller, queries_flow(daemon, client("h1"), rate=4000) as runs:
        before = daemon.fds()
        with meanwhile(change):
            called = 0
            while called < calls or sum(run.sent for run in runs) < queries:
                call_twice(caller)
                called += 2
        wait.until(lambda: daemon.fds() == before, "the daemon to have its descriptors of before")
