"""What the daemon makes of its files at start, as its dump shows it: of the recorded ones, and of stranger ones."""

import random
import re
import socket
import struct
from pathlib import Path

import pytest

from lab import files, wait
from lab.daemon import TOP, Daemon

DATA = TOP / "tests/data/config"
REQUEST_PIPE = Path("/var/run/nmpipe/dnsproxypublicrecvpipe")
LAN_RULE = "config rule\n\toption name lan\n\toption service_if LAN\n"
LAN = "listen br-lan\n"
WAN1 = "#Interface WAN1\nnameserver 10.0.1.53\n"
LINE1 = "line wan1 10.0.1.53 0.0.0.0 :: ::\n"


def tables(output: str) -> str:
    """Both interface tables from the dump, a line each: listen interfaces, and lines with the servers of their slots."""
    text = ""
    for device, forced, out in re.findall(
        r"^ifname:(.*)\.\nSpecify out interface = (\d)     (?:out interface name:(.*)\.)?$", output, re.M
    ):
        text += f"listen {device or '-'}" + (f" forced to {out or '-'}\n" if forced == "1" else "\n")
    for line in re.findall(r"^ifname:.* ifindex:0\.\n(?:The .*\n)+", output, re.M):
        raw = re.findall(r"server address:([0-9a-f]+)\.$", line, re.M)
        servers = [socket.inet_ntoa(struct.pack("=I", int(number, 16))) for number in raw]
        servers += re.findall(r"IPv6 server address:(.*)$", line, re.M)
        text += f"line {re.match(r'ifname:(.*) ifindex', line)[1]} {' '.join(servers)}\n"
    for kind in ("listen", "server"):
        (size,) = re.findall(rf"{kind} interface\(size:(\d+)\)", output)
        assert len(re.findall(f"^{kind.replace('server', 'line')} ", text, re.M)) == int(size)
    return text


def tables_of(rules: str, resolv: str | None) -> str:
    files.write(files.RULES, rules)
    if resolv is not None:
        files.write(files.RESOLV, resolv)
    with Daemon() as daemon:
        return tables(daemon.output())


@pytest.mark.parametrize("path", sorted(DATA.glob("*.r*")), ids=lambda path: path.name)
def test_recorded_files(lab, path):
    text = path.read_bytes().decode()
    rules, resolv = (text, None) if path.suffix == ".rules" else (LAN_RULE, text)
    assert tables_of(rules, resolv) == path.with_suffix(".expect").read_text(encoding="utf-8")


@pytest.mark.parametrize(
    "rules, resolv, expected",
    [
        (LAN_RULE * 300, None, LAN),
        (LAN_RULE, "#Interface WAN1\n" + "x" * 10_000_000 + "\nnameserver 10.0.1.53\n", LAN + LINE1),
        (LAN_RULE, WAN1 + "nameserver 10.0.1.54\n" * 500_000, LAN + LINE1.replace("0.0.0.0", "10.0.1.54")),
    ],
    ids=("many rules", "10 MB in a line", "10 MB in lines"),
)
def test_huge_files(lab, rules, resolv, expected):
    assert tables_of(rules, resolv) == expected


# That a file cannot be parsed has one result, whatever its fault.
@pytest.mark.parametrize("text", (None, "config rule\n\toption name 'lan\n"), ids=("missing", "open quote"))
def test_without_rules_the_daemon_ends(lab, text):
    if text is not None:
        files.write(files.RULES, text)
    with Daemon(serving=False) as daemon:
        assert daemon.process.wait(wait.PATIENCE) == 0, daemon.output()
        assert not REQUEST_PIPE.exists()
        assert "***Show" not in daemon.output()


def test_binary_files(upstreams, client):
    noise = bytes(random.Random(1).choices(range(256), k=20000))
    files.write(files.RULES, LAN_RULE)
    files.write(files.ONLINE_STATE, "")
    Path(files.ONLINE_STATE).write_bytes(noise)
    Path(files.RESOLV).write_bytes(WAN1.encode() + noise)
    with Daemon():
        assert client("h1").ask() is not None


MAPPINGS = {
    # what the second zone function does, the device that comes of it (None: none)
    "prints a device": ("echo wan1", "wan1"),
    "prints it and fails": ("echo wan1; return 1", "wan1"),
    "prints two lines": ("echo wan1; echo wan2", "wan1"),
    "prints 15 characters": ("echo 123456789012345", "123456789012345"),
    "prints 16 characters": ("echo 1234567890123456", None),
    "prints no line feed": ("printf wan12", "wan1"),
    "prints a line feed": ("echo", ""),
    "fails": ("return 1", None),
    "kills itself": ("kill -9 $$", None),
    "prints lines without end": ("while :; do echo wan1; done", "wan1"),
    "prints one line without end": ("tr '\\0' x </dev/zero", None),
    "prints zeros without end": ("cat /dev/zero", ""),
    "complains": ("echo no such zone >&2", None),
}


@pytest.mark.parametrize("body, device", MAPPINGS.values(), ids=MAPPINGS)
def test_mapping_commands(lab, body, device):
    functions = 'zone_iface_to_userif() {\n echo "$1"\n}\nzone_get_effect_devices() {\n'
    functions += f" case $1 in ODD) {body} ;; *) echo br-lan ;; esac\n}}\n"
    files.write(files.ZONE_API, functions)
    line = "" if device is None else LINE1.replace("wan1", device)
    rules = "config rule\n\toption service_if ODD\n" + LAN_RULE
    assert tables_of(rules, WAN1.replace("WAN1", "ODD")) == f"listen {device or '-'}\n" + LAN + line


@pytest.mark.parametrize("text", (None, "", "syntax error (\n"), ids=("missing", "empty", "with an error"))
def test_zone_functions(lab, text):
    files.remove(files.ZONE_API)
    if text is not None:
        files.write(files.ZONE_API, text)
    rules = LAN_RULE + "config rule\n\toption service_if loopback\n"
    assert tables_of(rules, WAN1) == "listen -\nlisten lo\n"


@pytest.mark.parametrize("name", ("x;canary", "x&canary", "x|canary", "$(canary)", "`canary`", "x>canary", "-x'\"*~"))
def test_names_never_run_as_commands(lab, name):
    canary = Path("/tmp/canary")
    files.write(files.ZONE_API, Path(files.ZONE_API).read_text() + f"canary() {{ touch {canary}; }}\n")
    files.write_rules([{"name": "bad", "service_if": name, "force_if": "on", "out_if": name}])
    files.write_resolv({"WAN1": ["10.0.1.53"], name: ["10.0.2.53"]})
    with Daemon() as daemon:
        assert tables(daemon.output()) == "listen - forced to -\n" + LINE1
    assert not canary.exists() and not Path("canary").exists()
