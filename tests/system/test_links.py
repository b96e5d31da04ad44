"""Network devices that come, go and change their names while the daemon serves."""

import random
import threading

import pytest

from lab import dns, files, netns, plan
from lab.router import Lab

LAN = {"name": "lan", "service_if": "LAN"}
LATE = {"LATE0": "late0", "LATE1": "late1"}  # logical names of devices that come after the start
UNSERVED = ("other0", "other1")


class MovingLan:
    """The device that leads to p1, under one name after another."""

    def __init__(self, lab: Lab):
        self._lab = lab
        self.device = plan.PPP

    def rename(self, name: str) -> None:
        self._lab.link_rename(self.device, name)
        self._lab.host_wait("p1")
        self.device = name

    def recreate(self, name: str) -> None:
        netns.ip_batch([f"link delete {self.device}"])
        self._lab.host_create("p1", name)
        self.device = name


@pytest.fixture
def moving_lan(lab):
    lan = MovingLan(lab)
    yield lan
    lan.recreate(plan.PPP)


class OtherLinks:
    """Devices that have nothing to do with the daemon, to keep its link messages coming."""

    def __init__(self, chance: random.Random):
        self._chance = chance
        self._count = 0
        self._names: list[str] = []

    def change(self) -> None:
        """Makes, renames or deletes one."""
        if len(self._names) < 3:
            self._names.append(self._new_name())
            netns.ip_batch([f"link add {self._names[-1]} type bridge"])
            return
        old = self._names.pop(self._chance.randrange(len(self._names)))
        if self._chance.random() < 0.5:
            self._names.append(self._new_name())
            netns.ip_batch([f"link set {old} name {self._names[-1]}"])
        else:
            netns.ip_batch([f"link delete {old}"])

    def clear(self) -> None:
        while self._names:
            netns.ip_batch([f"link delete {self._names.pop()}"])

    def _new_name(self) -> str:
        self._count += 1
        return f"link{self._count}"


class Load:
    """Keeps asking from h1 over both families until it is stopped."""

    def __init__(self, client):
        self._hosts = [client("h1", 4), client("h1", 6)]
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self.runs = []

    def __enter__(self) -> "Load":
        self._thread.start()
        return self

    def __exit__(self, *_exception) -> None:
        self._stop.set()
        self._thread.join()

    def _run(self) -> None:
        while not self._stop.is_set():
            for host in self._hosts:
                self.runs.append(host.bulk(200, outstanding=32, timeout=10.0))


def test_a_hundred_link_changes_under_load(start, upstreams, departures, client, moving_lan):
    files.write_zone_api(plan.LOGICAL | LATE)
    rules = [LAN, *({"name": name, "service_if": name} for name in LATE)]
    daemon = start(rules, files.resolv_of_lines(1, 2, 3))
    chance = random.Random(53)
    others = OtherLinks(chance)
    asking = {family: client("p1", family) for family in (4, 6)}
    bystanders = {family: client("h2", family) for family in (4, 6)}
    served = 0

    with Load(client) as load:
        for number in range(100):
            if chance.random() < 0.7:
                others.change()
                continue
            name = chance.choice([n for n in (*LATE.values(), *UNSERVED) if n != moving_lan.device])
            chance.choice([moving_lan.rename, moving_lan.recreate])(name)
            for family, host in asking.items():
                if name in UNSERVED:
                    host.send(dns.query(host.fresh_ident(0), "unserved.test"))
                    # When one that comes in behind it is served, it has been looked at, under this name.
                    assert bystanders[family].ask() is not None
                else:
                    assert host.ask() is not None, f"change {number}: {name} over IPv{family}"
                    served += 1
    others.clear()
    daemon.settle()

    assert served > 0
    assert [p for p in departures.catch_up() if b"unserved" in p.message] == []
    found = [(run.answered, run.lost, run.wrong_ident, run.wrong_question) for run in load.runs]
    assert found == [(200, 0, 0, 0)] * len(load.runs)


@pytest.mark.parametrize("asked_meanwhile", (0, 1, 3))
def test_a_forced_device_that_comes_back(
    lab, start, upstreams, departures, client, family, asked_meanwhile
):
    guest_rule = {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"}
    daemon = start([guest_rule], files.resolv_of_lines(1, 2))
    guest = client("g1", family)
    for _ in range(3):
        assert guest.ask() is not None
        lab.line_delete(2)
        departures.clear()
        for _ in range(asked_meanwhile):
            guest.send(dns.query(guest.fresh_ident(0)))
            daemon.settle()
        lab.line_create(2)
        if asked_meanwhile == 0:
            # The query that finds out that the device went.
            guest.send(dns.query(guest.fresh_ident(0)))
            daemon.settle()
        assert departures.catch_up() == []
        assert guest.ask() is not None
