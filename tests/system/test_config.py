"""What the daemon makes of its files at start, as its start-up dump shows it."""

import random
import re
import socket
import struct
from pathlib import Path
from typing import NamedTuple

import pytest

from lab import files, plan, wait
from lab.daemon import Daemon

REQUEST_PIPE = Path("/var/run/nmpipe/dnsproxypublicrecvpipe")

TWO_RULES = [
    {"name": "lan", "service_if": "LAN"},
    {"name": "guest", "service_if": "GUEST", "force_if": "on", "out_if": "WAN2"},
]

DUMP_OF_TWO_RULES_AND_TWO_LINES = """\
***Show listen interface(size:2)***
ifname:br-lan.
Specify out interface = 0    \x20


ifname:br-guest.
Specify out interface = 1     out interface name:wan2.


***Show server interface(size:2)***
ifname:wan1 ifindex:0.
The 0 server address:3501000a.
The 1 server address:3601000a.
The 0 IPv6 server address:fd00:a:1::53
The 1 IPv6 server address:fd00:a:1::54
The next dns server index:0
The serverFd = -1.
The useCount:0
The is_down:0


ifname:wan2 ifindex:0.
The 0 server address:3502000a.
The 1 server address:0.
The 0 IPv6 server address:::
The 1 IPv6 server address:::
The next dns server index:0
The serverFd = -1.
The useCount:0
The is_down:0


***Show server cache interface***
cache init:0  \x20

End

"""


def test_the_start_up_dump(start):
    lines = {"WAN1": plan.LINES[1].addresses, "WAN2": ["10.0.2.53"]}
    daemon = start(TWO_RULES, lines)
    assert daemon.output() == DUMP_OF_TWO_RULES_AND_TWO_LINES


class Listen(NamedTuple):
    device: str
    out: str | None = None  # device that it is forced to


class Line(NamedTuple):
    device: str
    servers4: tuple[str, str]
    servers6: tuple[str, str]


def line(device: str, *servers: str) -> Line:
    """With the servers in the order of the dump's slots; none is 0.0.0.0 and "::"."""
    servers4 = [server for server in servers if ":" not in server] + ["0.0.0.0"] * 2
    servers6 = [server for server in servers if ":" in server] + ["::"] * 2
    return Line(device, tuple(servers4[:2]), tuple(servers6[:2]))


def tables(output: str) -> tuple[list[Listen], list[Line]]:
    """Both interface tables from the dump."""
    listens = [
        Listen(device, out if forced == "1" else None)
        for device, forced, out in re.findall(
            r"^ifname:(.*)\.\nSpecify out interface = (\d)     (?:out interface name:(.*)\.)?$",
            output,
            re.M,
        )
    ]
    lines = []
    for text in re.findall(r"^ifname:.* ifindex:0\.\n(?:The .*\n)+", output, re.M):
        device = re.match(r"ifname:(.*) ifindex", text)[1]
        raw = re.findall(r"server address:([0-9a-f]+)\.$", text, re.M)
        servers4 = tuple(socket.inet_ntoa(struct.pack("=I", int(number, 16))) for number in raw)
        lines.append(
            Line(device, servers4, tuple(re.findall(r"IPv6 server address:(.*)$", text, re.M)))
        )
    assert f"listen interface(size:{len(listens)})" in output
    assert f"server interface(size:{len(lines)})" in output
    return listens, lines


def rule(*options: str) -> str:
    return "config rule\n" + "".join(f"\toption {option}\n" for option in options)


LAN_RULE = rule("name lan", "service_if LAN")

BOTH = [Listen(""), Listen("br-lan")]
RULE_FILES = {
    # text, listen interfaces
    "no rule section": ("config zone\n\toption service_if LAN\n", []),
    "no name": (rule("service_if LAN"), [Listen("br-lan")]),
    "no service_if": (rule("name a"), [Listen("")]),
    "unknown service_if": (rule("name a", "service_if NOWHERE") + LAN_RULE, BOTH),
    "too long a service_if": (rule(f"service_if {'x' * 35}") + LAN_RULE, BOTH),
    "service_if loopback": (rule("name self", "service_if loopback"), [Listen("lo")]),
    "a service_if twice": (LAN_RULE + rule("service_if LAN", "force_if on", "out_if WAN1"), [Listen("br-lan")]),
    "forced": (rule("service_if LAN", "force_if on", "out_if WAN1"), [Listen("br-lan", "wan1")]),
    "forced to nothing": (rule("service_if LAN", "force_if on"), [Listen("br-lan", "")]),
    "forced to an unknown": (rule("service_if LAN", "force_if on", "out_if NO"), [Listen("br-lan", "")]),
    "forced with a capital": (rule("service_if LAN", "force_if On", "out_if WAN1"), [Listen("br-lan")]),
    "list options": (
        "config rule\n\tlist service_if LAN\n\tlist service_if GUEST\n"
        "\tlist force_if off\n\tlist force_if on\n\tlist out_if WAN2\n\tlist out_if WAN1\n",
        [Listen("br-guest", "wan1")],
    ),
    "the PPPoE server": (rule("name dnsproxy_pppoes", "service_if PPPOES") + LAN_RULE, [Listen("br-lan")]),
    "a thousand rules": (LAN_RULE * 1000, [Listen("br-lan")]),
}


@pytest.mark.parametrize("text, expected", RULE_FILES.values(), ids=RULE_FILES)
def test_rule_files(lab, text, expected):
    files.write(files.RULES, text)
    with Daemon() as daemon:
        assert tables(daemon.output())[0] == expected


# That a file cannot be parsed has one result, whatever its fault.
@pytest.mark.parametrize("text", (None, "config rule\n\toption name 'lan\n"), ids=("missing", "open quote"))
def test_without_rules_the_daemon_ends(lab, text):
    if text is not None:
        files.write(files.RULES, text)
    with Daemon(serving=False) as daemon:
        assert daemon.process.wait(wait.PATIENCE) == 0, daemon.output()
        assert not REQUEST_PIPE.exists()
        assert "***Show" not in daemon.output()


WAN1 = "#Interface WAN1\nnameserver 10.0.1.53\n"
WAN2 = "#Interface WAN2\nnameserver 10.0.2.53\n"
LINE1 = line("wan1", "10.0.1.53")
LINE2 = line("wan2", "10.0.2.53")


def servers(*addresses: str) -> str:
    return "".join(f"nameserver {address}\n" for address in addresses)


NO_ADDRESSES = ("255.255.255.255", "10.0.0.256", "dns.test", ":", "fd00::g", "1:2:3", "")
RESOLVER_FILES = {
    # text, server interfaces
    "missing": (None, []),
    "no section": ("nameserver 10.0.1.53\n", []),
    "servers before the first section": ("nameserver 10.9.9.9\n" + WAN1, [LINE1]),
    "no final line feed": (WAN1 + WAN2.rstrip("\n"), [LINE1, LINE2]),
    "carriage returns": ((WAN1 + WAN2).replace("\n", "\r\n"), [LINE1, LINE2]),
    "blanks and tabs": ("  \t#Interface\t WAN1 x\n\t nameserver \t10.0.1.53 y\n", [LINE1]),
    "a blank in the keyword": ("# Interface WAN1\nnameserver 10.0.1.53\n" + WAN2, [LINE2]),
    "other keywords": (WAN1 + "Nameserver 10.1.1.1\nnameservers 10.1.1.2\nsearch lan\n\n \n", [LINE1]),
    "no server": ("#Interface WAN1\n" + WAN2, [line("wan1"), LINE2]),
    "too many servers": (
        "#Interface WAN1\n" + "".join(servers(f"10.0.0.{i}", f"fd00::{i}") for i in (1, 2, 3)),
        [line("wan1", "10.0.0.1", "10.0.0.2", "fd00::1", "fd00::2")],
    ),
    "addresses that are none": ("#Interface WAN1\n" + servers(*NO_ADDRESSES, "fe80::7"), [line("wan1", "fe80::7")]),
    "loopback": ("#Interface loopback\nnameserver 127.0.0.1\n" + WAN1, [LINE1]),
    "one section twice": (  # and the rest is not read
        WAN1 + servers("fd00::1") + "#Interface WAN1\n" + servers("10.0.1.54", "fd00::2") + WAN2,
        [line("wan1", "10.0.1.53", "fd00::2")],
    ),
    "an unknown section": (WAN1 + "#Interface NOWHERE\nnameserver 10.1.1.1\n" + WAN2, [LINE1]),
    "a section without a name": (WAN1 + "#Interface\n" + WAN2, [LINE1]),
    "a name that is too long": (WAN1 + f"#Interface {'x' * 40}\n" + WAN2, [LINE1]),
    "a device that is not there": ("#Interface IPTV\nnameserver 10.0.1.53\n", [line("br-iptv", "10.0.1.53")]),
    "10 MB in a line": ("#Interface WAN1\n" + "x" * 10_000_000 + "\nnameserver 10.0.1.53\n", [LINE1]),
    "10 MB in lines": (WAN1 + "nameserver 10.0.1.54\n" * 500_000, [line("wan1", "10.0.1.53", "10.0.1.54")]),
}


@pytest.mark.parametrize("text, expected", RESOLVER_FILES.values(), ids=RESOLVER_FILES)
def test_resolver_files(lab, text, expected):
    files.write(files.RULES, LAN_RULE)
    if text is not None:
        files.write(files.RESOLV, text)
    with Daemon() as daemon:
        assert tables(daemon.output())[1] == expected


@pytest.mark.parametrize("seed", range(5))
def test_binary_files(upstreams, client, seed):
    noise = bytes(random.Random(seed).choices(range(256), k=20000))
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
    files.write(files.RULES, rule("service_if ODD") + LAN_RULE)
    files.write(files.RESOLV, "#Interface ODD\nnameserver 10.0.1.53\n")
    with Daemon() as daemon:
        listens, lines = tables(daemon.output())
        assert listens == [Listen(device or ""), Listen("br-lan")]
        assert lines == ([] if device is None else [line(device, "10.0.1.53")])


@pytest.mark.parametrize("text", (None, "", "syntax error (\n"), ids=("missing", "empty", "with an error"))
def test_zone_functions(lab, text):
    files.remove(files.ZONE_API)
    if text is not None:
        files.write(files.ZONE_API, text)
    files.write(files.RULES, LAN_RULE + rule("service_if loopback"))
    files.write(files.RESOLV, WAN1)
    with Daemon() as daemon:
        assert tables(daemon.output()) == ([Listen(""), Listen("lo")], [])


@pytest.mark.parametrize("name", ("x;canary", "x&canary", "x|canary", "$(canary)", "`canary`", "x>canary", "-x'\"*~"))
def test_names_never_run_as_commands(lab, name):
    canary = Path("/tmp/canary")
    files.write(files.ZONE_API, Path(files.ZONE_API).read_text() + f"canary() {{ touch {canary}; }}\n")
    files.write_rules([{"name": "bad", "service_if": name, "force_if": "on", "out_if": name}, TWO_RULES[0]])
    files.write_resolv({"WAN1": ["10.0.1.53"], name: ["10.0.2.53"]})
    with Daemon() as daemon:
        assert tables(daemon.output()) == ([Listen("", ""), Listen("br-lan")], [LINE1])
    assert not canary.exists() and not Path("canary").exists()
