"""The package for OpenWrt: what is in it, and its scripts under busybox on a router whose own functions are faked.

The router is a folder to chroot into, with nothing but busybox, the packages' files, the C library that this
build's programs need, and the functions in tests/system/router.
"""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
from pathlib import Path

import programs
import pytest

from lab import daemon, files, netns, plan, wait
from lab.broker import Broker, Caller
from lab.daemon import TOP, Daemon

ROOT = Path("/tmp/router")
DATA = TOP / "tests/data/packaging"
PACKAGE = TOP / "packaging/openwrt/dnsproxyd"
INIT = "/etc/init.d/dnsproxyd"
RESOLVER, STATES = "tmp/resolv.conf.auto", "tmp/online/state"

WAN1, WAN2 = plan.LINES[1].addresses, plan.LINES[2].addresses


def run(*argv, **options) -> str:
    return subprocess.run(argv, check=True, capture_output=True, text=True, timeout=wait.PATIENCE, **options).stdout


def needed_libraries(program: Path) -> list[str]:
    """The C library, and a sanitizer's in an instrumented build."""
    result = subprocess.run(["ldd", program], capture_output=True, text=True, check=False)
    return re.findall(r"(/\S+) \(", result.stdout)


@pytest.fixture(scope="module")
def packages():
    """What the package Makefile makes of this build: the folder of each package, and the list of all files."""
    folder = Path("/tmp/packages")
    listing = run(TOP / "packaging/openwrt/check-install-tree", programs.path(""), folder)
    yield folder, listing
    shutil.rmtree(folder)


@pytest.fixture(scope="module")
def root(packages):
    shutil.copytree(TOP / "tests/system/router", ROOT)
    for package in packages[0].iterdir():
        shutil.copytree(package, ROOT, dirs_exist_ok=True, symlinks=True)
    # Debian's busybox has no flock, a router's has.
    for program in ("/bin/busybox", "/usr/bin/flock"):
        shutil.copy(program, ROOT / "bin")
    for program in [*(ROOT / "bin").iterdir(), *ROOT.glob("usr/*bin/dnsproxy*")]:
        for library in needed_libraries(program):
            copy = ROOT / library.lstrip("/")
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(library, copy)
    for applet in run("busybox", "--list").split():
        if not (ROOT / "bin" / applet).exists():
            (ROOT / "bin" / applet).symlink_to("busybox")
    for folder in ("proc", "sys", "dev"):
        (ROOT / folder).mkdir()
        run("mount", "--rbind", f"/{folder}", ROOT / folder)


def none_is_left() -> bool:
    """Ends what still runs on the router, such as what a script has left waiting in the background."""
    none = True
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if os.readlink(process / "root") == str(ROOT):
                os.kill(int(process.name), signal.SIGKILL)
                none = False
    return none


class Router:
    """The stock router with the packages on it."""

    def __init__(self):
        wait.until(none_is_left, "the router's processes to end")
        for name in ("tmp", "var/run", "lib/zone", "etc/rc.d"):
            if (ROOT / name).exists():
                shutil.rmtree(ROOT / name)
        for name in ("tmp", "var/run/mwan3"):
            (ROOT / name).mkdir(parents=True)
        shutil.copy(PACKAGE / "files/dns.config", ROOT / "etc/config/dns")
        self.networks({})

    def sh(self, command: str, **environment: str) -> str:
        """Standard output of a command that may fail; what it leaves in the background has ended, or daemonized."""
        return subprocess.run(
            ["chroot", ROOT, "/bin/sh", "-c", command],
            stdout=subprocess.PIPE,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"} | environment,
            text=True,
            check=False,
            timeout=wait.PATIENCE,
        ).stdout

    def init(self, action: str) -> None:
        self.sh(f"{INIT} {action}")

    def event(self, action: str, network: str, **environment: str) -> None:
        self.sh(". /etc/hotplug.d/iface/30-dnsproxyd", ACTION=action, INTERFACE=network, **environment)

    def dnsmasq(self, config: str) -> None:
        """Is enabled, and configured."""
        (ROOT / "etc/rc.d").mkdir(exist_ok=True)
        (ROOT / "etc/rc.d/S19dnsmasq").touch()
        (ROOT / "etc/config/dhcp").write_text(config, "ascii")

    def networks(self, lines: dict[str, str]) -> None:
        """What netifd says: of each network its device and servers. "!" after the device: no default route, "?": a VPN."""
        interfaces = []
        for name, words in ({"loopback": "lo!", "lan": "br-lan!", "guest": "br-guest!"} | lines).items():
            device, *servers = words.split()
            route = [] if device.endswith("!") else [{"target": "::" if ":" in words else "0.0.0.0", "mask": 0}]
            proto = "wireguard" if device.endswith("?") else "static"
            up = {"proto": proto, "l3_device": device.rstrip("!?"), "route": route, "dns-server": servers}
            up = up if device != "down" else {}
            interfaces.append({"interface": name, "up": device != "down"} | up)
        (ROOT / "tmp/dump.json").write_text(json.dumps({"interface": interfaces}, indent="\t"), "ascii")

    def configure(self, text: str) -> None:
        (ROOT / "etc/config/dns").write_text(text, "ascii")

    def read(self, path: str) -> str:
        return (ROOT / path).read_text("utf-8") if (ROOT / path).exists() else ""

    def pid(self) -> int | None:
        """Of the daemon that the service manager runs."""
        pid = self.read("tmp/procd/pid").strip()
        return int(pid) if pid and os.path.exists(f"/proc/{pid}/exe") else None

    def serves(self) -> bool:
        """Owns the ports and waits for queries: a start that still waits for the kernel cannot be ended at once."""
        pid = self.pid() or 0
        if not all(daemon.owns_udp_port(pid, 53, family) for family in (4, 6)):
            return False
        return Path(f"/proc/{pid}/stat").read_text("ascii").rpartition(")")[2].split()[0] == "S"

    def wait_serving(self) -> int:
        wait.until(self.serves, f"the service to own port 53; the log:\n{self.read('tmp/log')}")
        return self.pid()


@pytest.fixture
def router(root, lab):
    router = Router()
    yield router
    router.init("stop")
    wait.until(lambda: router.pid() is None, "the daemon to end")
    assert not re.search("Sanitizer|runtime error:", router.read("tmp/procd/output"))


def test_packages_hold_what_the_build_installs(packages):
    assert packages[1] == (DATA / "packages.txt").read_text("ascii")


def test_feed_checks(router):
    version = re.search(r"PKG_VERSION:=(\S+)", (PACKAGE / "Makefile").read_text("ascii"))[1]
    for script in ("test.sh", "test-version.sh"):
        shutil.copy(PACKAGE / script, ROOT / "tmp")
        for package in ("dnsproxyd", "dnsproxyctl", "libdnsproxy-client"):
            assert router.sh(f"/tmp/{script} {package} {version} >/dev/null; echo $?") == "0\n", (script, package)
    assert router.sh("/tmp/test-version.sh dnsproxyctl 9.9; echo $?") == "1\n"


MAPPING = ". /lib/zone/zone_api.sh && usrif=$(zone_iface_to_userif {}) && zone_get_effect_devices ${{usrif}}"


def test_zone_functions(router):
    router.networks({"wan": "pppoe-wan 10.0.1.53", "dsl": "down"})
    router.init("start")
    for down in (False, True):
        for name, device in {"lan": "br-lan", "wan": "pppoe-wan", "dsl": "", "wan3": "wan3"}.items():
            for asked in {name, device or name}:
                assert router.sh(MAPPING.format(asked)).strip() == device, (asked, down)
        router.networks({"wan": "down", "dsl": "down"})  # a network that is down keeps its device


LINES = [
    # what is new in it, networks, mwan3's marks, more of the configuration, the lines
    ("none", {}, {}, "", []),
    ("one line, its first two servers", {"wan": f"wan1 {WAN1[0]} {WAN1[0]} {WAN1[1]} 10.9.9.9"}, {}, "",
     [f"wan wan1 on {WAN1[0]} {WAN1[1]} ::ffff:{WAN1[0]} ::ffff:{WAN1[1]}"]),
    ("two networks on a device", {"wan": f"wan1 {WAN1[0]}", "wan6": f"wan1 {WAN1[2]} fe80::1%wan1"}, {}, "",
     [f"wan wan1 on {WAN1[0]} {WAN1[2]} fe80::1"]),
    ("no servers, no route, not up", {"wan": "wan1", "vpn": "wan2! 10.0.2.53", "wan3": "down 10.0.3.53"}, {}, "", []),
    ("a VPN", {"wan": "wan1 fd00::1", "vpn": "wan2? 10.0.2.53"}, {}, "", ["wan wan1 on fd00::1"]),
    ("chosen", {"wan": "wan1 fd00::1", "vpn": "wan2? fd00::2", "iptv": "wan3! fd00::3"}, {},
     "list line 'vpn'\nlist line 'iptv'\nlist line 'other'", ["vpn wan2 on fd00::2", "iptv wan3 on fd00::3"]),
    ("long name", {"wan_of_the_office": "wan1 fd00::1"}, {}, "", ["wan1 wan1 on fd00::1"]),
    ("disconnected: IPv6 withdrawn", {"wan": f"wan1 {WAN1[0]}", "wan6": f"wan1 {WAN1[2]}", "wanb": f"wan2 {WAN2[0]}"},
     {"wan": "disconnected"}, "", [f"wan wan1 off {WAN1[0]}", f"wanb wan2 on {WAN2[0]} ::ffff:{WAN2[0]}"]),
    ("disconnected, with IPv6 alone", {"wan6": f"wan1 {WAN1[2]}", "wanb": f"wan2 {WAN2[2]}"},
     {"wan6": "disconnected"}, "", [f"wan6 wan1 off {WAN1[2]}", f"wanb wan2 on {WAN2[2]}"]),
    ("one family disconnected", {"wan": f"wan1 {WAN1[0]}", "wan6": f"wan1 {WAN1[2]}", "wanb": f"wan2 {WAN2[0]}"},
     {"wan": "disconnected", "wan6": "connected"}, "",
     [f"wan wan1 on {WAN1[2]}", f"wanb wan2 on {WAN2[0]} ::ffff:{WAN2[0]}"]),
    ("all disconnected", {"wan": f"wan1 {WAN1[0]} {WAN1[2]}", "wanb": f"wan2 {WAN2[0]}"},
     {"wan": "disconnected", "wanb": "disconnected"}, "",
     [f"wan wan1 off {WAN1[0]} {WAN1[2]}", f"wanb wan2 off {WAN2[0]} ::ffff:{WAN2[0]}"]),
]  # fmt: skip


@pytest.mark.parametrize("case", LINES, ids=[case[0] for case in LINES])
def test_lines(router, case):
    _, networks, marks, config, lines = case
    router.networks(networks)
    router.configure(f"config dnsproxyd 'main'\n{config}\nconfig rule\noption service_if lan\n")
    for network, mark in marks.items():
        router.event(mark, network)
    assert not (ROOT / RESOLVER).exists(), "nothing before the start"
    router.init("start")
    resolver = states = ""
    for line in lines:
        name, device, state, *servers = line.split()
        resolver += f"#Interface {name}\n" + "".join(f"nameserver {server}\n" for server in servers)
        states += f"{device}={state}\n"
    assert (router.read(RESOLVER), router.read(STATES)) == (resolver, states)


def test_vendors_router_is_left_alone(router):
    zone_api = ROOT / "lib/zone/zone_api.sh"
    zone_api.parent.mkdir()
    vendors = "zone_iface_to_userif() { echo $1; }\nzone_get_effect_devices() { echo br-$1; }\n"
    zone_api.write_text(vendors, "ascii")
    router.networks({"wan": "wan1 10.0.1.53"})
    router.init("start")
    router.wait_serving()
    router.event("ifup", "wan")
    assert zone_api.read_text("ascii") == vendors and not (ROOT / RESOLVER).exists()
    assert "env DNSPROXYD_DEVICES=lan:br-lan,loopback:lo\n" in router.read("tmp/procd/daemon")


DNSMASQ = "config dnsmasq\noption disabled {}\noption port {}\n"

NOT_STARTED = [
    # its configuration, dnsmasq's, what the log says once
    ("config dnsproxyd 'main'\noption enabled '0'\n", "", ""),
    ("config rule 'lan\n", "", "/etc/config/dns cannot be read"),
    ("", "config dnsmasq\n", "not started: dnsmasq is configured to serve DNS on port 53"),
    ("", DNSMASQ.format(1, 53) + DNSMASQ.format(0, 53), "not started: dnsmasq is configured"),
    ("", "config dnsmasq 'x\n", "not started: whether dnsmasq serves DNS is unknown"),
]


@pytest.mark.parametrize(("config", "dhcp", "says"), NOT_STARTED)
def test_not_started(router, config, dhcp, says):
    if config:
        router.configure(config)
    if dhcp:
        router.dnsmasq(dhcp)
    for _ in range(2):
        router.init("start")
    assert router.pid() is None
    assert router.read("tmp/log").count(says) == 1 if says else not router.read("tmp/log")
    assert router.read("tmp/procd/triggers"), "a change of the configuration starts it"


@contextlib.contextmanager
def holder(program: str, addresses: list[str]):
    """This process holds port 53 on the addresses, under another program's name."""
    name = Path("/proc/self/comm")
    own = name.read_text("ascii")
    with contextlib.ExitStack() as sockets:
        for address in addresses:
            family = socket.AF_INET6 if ":" in address else socket.AF_INET
            sockets.enter_context(socket.socket(family, socket.SOCK_DGRAM)).bind((address, 53))
        name.write_text(program, "ascii")
        try:
            yield
        finally:
            name.write_text(own, "ascii")


@pytest.mark.parametrize("addresses", [["192.168.1.1"], ["::1"], ["127.0.0.1", "::1", "fd00:1::1"]])
def test_port_is_taken(router, addresses):
    router.dnsmasq(DNSMASQ.format(0, 0))
    with holder("unbound", addresses):
        for action in ("start", "devices", "reload"):
            router.init(action)
            assert router.pid() is None
    said = router.read("tmp/log")
    assert said.count(f"not started: UDP port 53 is held by unbound (process {os.getpid()})\n") == 1
    router.init("devices")
    assert router.pid() is None, "an event of a network is no reason to take a port that is free for a moment"
    router.init("reload")
    router.wait_serving()


def test_port_is_handed_over(router):
    """dnsmasq, told to serve no DNS, goes after the start."""
    router.dnsmasq(DNSMASQ.format(0, 0) + DNSMASQ.format(1, 53))
    with holder("dnsmasq", ["127.0.0.1", "::1"]):
        router.init("start")
        assert router.pid() is not None and not router.serves()
    router.wait_serving()
    router.dnsmasq("config dnsmasq\n")
    router.init("reload")
    assert router.pid() is None, "it is told to serve DNS again"


def test_unreadable_answers_change_nothing(router):
    router.networks({"wan": f"wan1 {WAN1[0]} {WAN1[2]}"})
    router.init("start")
    pid = router.wait_serving()
    good, before = router.read("etc/config/dns"), router.sh("dnsproxyctl list")
    router.configure("config rule 'lan\n")
    for action in ("reload", "devices", "start"):
        router.init(action)
    assert router.pid() == pid
    router.configure(good)
    for dump in ("", "{\n}\n", "Command failed: Request timed out\n"):
        (ROOT / "tmp/dump.json").write_text(dump, "ascii")
        router.event("ifup", "wan")
        assert router.sh("dnsproxyctl list") == before
    assert router.read("tmp/log").count("lines stay as they are") == 1


def test_reload_starts_anew_only_for_what_is_read_at_start(router):
    router.init("start")
    asked = router.read("tmp/procd/daemon")
    assert re.sub(r"^\w{32} .*\n", "", asked, flags=re.M) == (DATA / "procd.txt").read_text("ascii")
    assert router.read("tmp/procd/triggers") == (
        f"reload dns dhcp mwan3\nraw interface.* 2000 {INIT} devices\n"
        "config.change network /usr/lib/dnsproxyd/lines.sh update\n"
    )
    assert "command /usr/bin/dnsproxyctl watch" in router.read("tmp/procd/watch")
    first = router.wait_serving()
    router.networks({"wan": "wan1 10.0.1.53"})  # a line is no reason
    router.init("reload")
    assert router.wait_serving() == first
    assert "10.0.1.53" in router.sh("dnsproxyctl addrs"), "it was told"
    router.networks({"lan": "br-guest!"})
    router.init("devices")
    second = router.wait_serving()
    assert second != first
    router.networks({"lan": "down"})  # it keeps its device
    router.init("reload")
    assert router.wait_serving() == second
    router.init("restart")
    assert router.wait_serving() != second
    router.configure("config dnsproxyd 'main'\noption enabled 0\n")
    router.init("reload")
    assert router.pid() is None


def test_confined(router):
    ujail = ROOT / "sbin/ujail"
    ujail.parent.mkdir()
    ujail.symlink_to("/bin/true")
    router.configure("config dnsproxyd 'main'\noption confined 1\n")
    router.init("start")
    asked = router.read("tmp/procd/daemon").splitlines()
    assert asked[-3:] == ["jail dnsproxyd", "capabilities /etc/capabilities/dnsproxyd.json", "no_new_privs 1"]
    assert (ROOT / "etc/capabilities/dnsproxyd.json").exists()


class Bus:
    """A bus at the place of newer systems; what the router's scripts call is passed on to the daemon."""

    path = str(ROOT / "var/run/ubus/ubus.sock")

    def states(self) -> dict[str, str]:
        calls = ROOT / "tmp/ubus.calls"
        with Caller(self.path) as caller:
            for line in calls.read_text("ascii").splitlines() if calls.exists() else ():
                word, path, method, arguments = line.split(maxsplit=3)
                assert word == "call"
                assert caller.call(path, method, json.loads(arguments))[0] == 0
            return {device: table["status"] for device, table in caller.call("dnsproxy", "get_state")[1].items()}


def ways(client, departures, count: int = 4) -> set[str]:
    """Devices that the next queries of a LAN host leave by, over both families; every one is answered."""
    departures.clear()
    for family in (4, 6):
        host = client("h1", family=family)
        for _ in range(count):
            assert host.ask() is not None
    return {packet.device for packet in departures.catch_up()}


def test_service(router, upstreams, client, departures):
    """A day in the life of a stock router with two lines."""
    wan = {"wan": f"wan1 {WAN1[0]} {WAN1[1]}", "wan6": f"wan1 {WAN1[2]}"}
    wanb = {"wanb": f"wan2 {' '.join(WAN2)}"}
    bus = Bus()
    with Broker(bus.path) as broker:
        router.networks(wan | wanb)
        router.init("start")
        pid = router.wait_serving()
        wait.until(lambda: broker.registered, "the daemon to find the bus")
        assert ways(client, departures) == {"wan1", "wan2"}

        router.networks(wanb | {"wan": "down", "wan6": "down"})
        for network in ("wan", "wan6"):
            router.event("ifdown", network)
        assert bus.states() == {"wan2": "on"}
        assert router.read(STATES) == "wan2=on\nwan1=off\n"
        assert ways(client, departures) == {"wan2"}

        router.networks(wan | wanb)
        router.event("ifup", "wan")
        assert ways(client, departures) == {"wan1", "wan2"}

        router.event("disconnected", "wanb")
        assert bus.states() == {"wan1": "on", "wan2": "off"}
        assert ways(client, departures) == {"wan1"}
        router.event("connected", "wanb")
        assert bus.states() == {"wan1": "on", "wan2": "on"}
        assert ways(client, departures) == {"wan1", "wan2"}

        router.networks(wan | {"wanb": f"wan2 {WAN2[1]}"})
        router.event("ifupdate", "wanb")
        assert router.sh("dnsproxyctl -j get wanb") == (
            f'{{"interface":"wanb","ipv4":["{WAN2[1]}",null],"ipv6":["::ffff:{WAN2[1]}",null]}}\n'
        )
        for action, state in (("disconnected", "off"), ("connected", "on")):
            router.event(action, "wanb")  # a state alone, without a change of servers
            assert bus.states() == {"wan1": "on", "wan2": state}

        router.event("disconnected", "wanb")
        router.event("disconnected", "wan", MWAN3_SHUTDOWN="1")  # mwan3 ends, and judges no line any more
        assert bus.states() == {"wan1": "on", "wan2": "on"}
        for state in ("off", "on"):
            router.sh(f"/usr/lib/dnsproxyd/lines.sh watched wanb wan2 {state}")
            assert bus.states() == {"wan1": "on", "wan2": state}

        router.networks(wan | {"wanb": f"wan3 {WAN2[1]}"})  # as a modem that was plugged in again
        router.event("ifup", "wanb")
        assert bus.states() == {"wan1": "on", "wan3": "on"}
        assert router.pid() == pid, "nothing of this was a reason for a new start"
        assert "dnsproxyctl" not in router.read("tmp/log")

        guest = client("g1")
        assert guest.ask(timeout=0.2) is None
        router.configure(router.read("etc/config/dns") + "config rule\noption service_if 'guest'\n")
        router.init("reload")
        assert router.wait_serving() != pid
        assert guest.ask() is not None

    with subprocess.Popen(["chroot", ROOT, INIT, "stop"]):
        wait.until(lambda: router.pid() is None, "the daemon to end")
    assert not router.sh("grep -h ':0035 ' /proc/net/udp /proc/net/udp6")
    (ROOT / RESOLVER).unlink()
    router.event("ifup", "wan")
    assert not (ROOT / RESOLVER).exists(), "events count for a daemon that is meant to run"


def test_capabilities_are_enough(lab, upstreams, client, tmp_path):
    """Also for the mapping of names, and for a line that is forced by its device."""
    allowed = json.loads((PACKAGE / "files/capabilities.json").read_text("ascii"))["bounding"]
    kept = ",".join("+" + name.removeprefix("CAP_").lower() for name in allowed)
    confined = tmp_path / "confined"
    confined.write_text(
        f"#!/bin/sh\nexec setpriv --bounding-set=-all,{kept} --no-new-privs {daemon.binary()}\n", "ascii"
    )
    confined.chmod(0o755)
    files.write_rules([{"service_if": "GUEST", "force_if": "on", "out_if": "WAN2"}])
    files.write_resolv(files.resolv_of_lines(1, 2))
    with Daemon(str(confined)):
        for family in (4, 6):
            assert client("g1", family=family).ask() is not None
        run(programs.path("tools/dnsproxyctl"), "set", "WAN1", "192.0.2.1")


MASK, GROUP = 0x3F00, 32768
POLICY = f"""table inet marks {{
    chain output {{
        type route hook output priority mangle
        meta mark and {MASK} == 0 udp dport 53 meta mark set 0x200
    }}
}}"""


def test_marks_of_a_policy_router(lab, upstreams, client, tmp_path):
    """The policy marks what the router sends for the second line, and a mark of all bits passes it by, as in mwan3."""
    if subprocess.run(["nft", "-f", "-"], input=POLICY, text=True, check=False).returncode != 0:
        pytest.skip("this kernel has no nftables")
    files.write("/lib/functions.sh", f"group_add_next() {{ echo {GROUP}; }}\n")
    files.write("/etc/config/mwan3", "")
    programs.install("/usr/bin/uci", f"echo {MASK:#x}\n")
    grouped = tmp_path / "grouped"
    grouped.write_text(f"#!/bin/sh\nexec setpriv --regid={GROUP} --clear-groups {daemon.binary()}\n", "ascii")
    grouped.chmod(0o755)
    gateways = [plan.LINES[2].link4 + "254", plan.LINES[2].link6 + "254"]
    rules = [f"rule add pref 2001 fwmark 0x200/{MASK:#x} lookup 102",
             f"rule add pref 3001 fwmark 0x200/{MASK:#x} unreachable"]  # fmt: skip
    routes = [f"route add default via {gateways[0]} dev wan2 table 102",
              f"route add ::/0 via {gateways[1]} dev wan2 table 102"]  # fmt: skip
    netns.ip_batch([*routes, *rules])
    files.write_rules([{"service_if": "GUEST", "force_if": "on", "out_if": "WAN1"}])
    files.write_resolv(files.resolv_of_lines(1, 2))
    netfilter = PACKAGE / "files/netfilter.sh"
    try:
        with Daemon(str(grouped)):
            assert client("g1").ask(timeout=0.5) is None, "the policy leads it past the line's gateway"
        run(netfilter, "set", "0")
        with Daemon(str(grouped)):
            for family in (4, 6):
                assert client("g1", family=family).ask() is not None
        run(netfilter, "clear")
        assert "dnsproxyd" not in run("nft", "list", "ruleset")
    finally:
        netns.ip_batch(command.replace(" add ", " del ") for command in [*rules, *routes])
        run("nft", "flush", "ruleset")
