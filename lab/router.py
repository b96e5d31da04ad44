"""The router's devices and what is behind them.

    h1 192.168.1.11 --+                                          +-- wan1 -- up1  10.0.1.53 .54
    h2 192.168.1.12 --+-- br-lan    192.168.1.1                  |
                                                 the router      +-- wan2 -- up2  10.0.2.53 .54
    g1 192.168.2.11 ----- br-guest  192.168.2.1  (the sandbox's  |
                                                  own network    +-- wan3 -- up3  10.0.3.53 .54
    p1 192.168.3.11 ----- ppp0      192.168.3.1   namespace)     |
                          br-pppoe  192.168.4.1                  +-- pt-vpn0 -- up9  10.0.9.53 .54

Every device, host and server has an IPv6 address too; `plan` lists them. IPv6 addresses are usable
at once: nothing looks for duplicates. A device that is set down keeps its addresses.

The servers of a line stand beyond its provider's gateway, which answers ARP for its own address only. Each line has
a default route with a metric of its own. So a query whose route is wrong is lost, as it is on a real line. With
`on_link` the servers are neighbours of the router instead, for measurements and for tests that set routes themselves.

Lab is a context manager. A sandbox holds one at a time; leaving it removes every device and host.
"""

import errno
import socket
from collections.abc import Iterable

from lab import netns, plan, wait
from lab.plan import HOSTS, LINES, NETWORKS

_SYSCTLS = {
    f"ipv6/conf/{scope}/{key}": value
    for scope in ("all", "default")
    for key, value in (("disable_ipv6", 0), ("accept_dad", 0), ("accept_ra", 0))
}

_ROUTER_SYSCTLS = _SYSCTLS | {
    "ipv6/conf/all/keep_addr_on_down": 1,
    "ipv6/conf/default/keep_addr_on_down": 1,
    "ipv6/conf/all/forwarding": 1,
    "ipv4/ip_forward": 1,
    "ipv4/conf/all/rp_filter": 0,
    "ipv4/conf/default/rp_filter": 0,
}


# TCP, of any host: answers with a reset.
_CLOSED_PORT = 9


def _router_addresses(device: str, address4: str, address6: str) -> list[str]:
    return [
        f"address add {address4}/24 dev {device}",
        f"address add {address6}/64 dev {device} nodad",
    ]


def _answers(address: str) -> bool:
    try:
        socket.create_connection((address, _CLOSED_PORT), timeout=wait.PATIENCE).close()
    except ConnectionRefusedError:
        pass
    except OSError as error:
        if error.errno != errno.EHOSTUNREACH:
            raise
        return False  # the link was not up while the kernel asked for the far side's link address
    return True


def _wait_connected(name: str | None, addresses: Iterable[str]) -> None:
    """Returns once the network namespace reaches the addresses and they reach it.

    The kernel brings a fresh link up in its own time, and holds back what is sent until the far side's link
    address is known. After this a datagram arrives before the call that sends it returns.
    """
    for address in addresses:
        with netns.inside(name):
            wait.until(lambda address=address: _answers(address), f"a path to {address}")


def _require_sandbox() -> None:
    with open("/proc/self/mounts", encoding="utf-8") as mounts:
        if not any(line.startswith("lab / overlay ") for line in mounts):
            raise RuntimeError("the lab needs its sandbox: run this by lab/enter")


class Lab:
    """Makes all devices and hosts on entry and removes them on exit."""

    def __init__(self, on_link: bool = False):
        self._on_link = on_link

    def __enter__(self) -> "Lab":
        _require_sandbox()
        if len(socket.if_nameindex()) != 1:
            raise RuntimeError("the sandbox already holds a lab")
        netns.set_sysctls(_ROUTER_SYSCTLS)
        netns.ip_batch(f"netns add {name}" for name in self._namespaces())
        for name in self._namespaces():
            netns.set_sysctls(_SYSCTLS, name)

        netns.ip_batch(self._local_devices())
        for host in HOSTS.values():
            netns.ip_batch(self._host_setup(host), host.name)
            self.host_wait(host.name)
        for number in LINES:
            self.line_create(number)
        return self

    def __exit__(self, *_exception) -> None:
        # As a group they go together, which is ten times as fast as one after the other.
        devices = [name for _, name in socket.if_nameindex() if name != "lo"]
        netns.ip_batch(
            [
                *(f"link set {device} group 1" for device in devices),
                "link delete group 1",
                *(f"netns delete {name}" for name in self._namespaces()),
            ]
        )

    @staticmethod
    def _namespaces() -> list[str]:
        return [*HOSTS, *(line.netns for line in LINES.values())]

    @staticmethod
    def _local_devices() -> list[str]:
        lines = []
        for device in (plan.LAN, plan.GUEST, plan.PPPOE):
            lines.append(f"link add {device} type bridge mcast_snooping 0")
            lines.append(f"link set {device} up")
        for host in HOSTS.values():
            device = host.network.device
            if device == plan.PPP:
                lines.append(f"link add {device} type veth peer name eth0 netns {host.name}")
            else:
                port = f"port-{host.name}"
                lines.append(f"link add {port} type veth peer name eth0 netns {host.name}")
                lines.append(f"link set {port} master {device} up")
        lines.append(f"link set {plan.PPP} up")
        for network in NETWORKS.values():
            lines += _router_addresses(network.device, network.router4, network.router6)
        return lines

    @staticmethod
    def _host_setup(host: plan.Host) -> list[str]:
        return [
            "link set lo up",
            "link set eth0 up",
            f"address add {host.address4}/24 dev eth0",
            f"address add {host.address6}/64 dev eth0 nodad",
            f"route add default via {host.network.router4}",
            f"route add ::/0 via {host.network.router6}",
        ]

    def host_create(self, name: str, device: str) -> None:
        """Makes a local device, under any name, for a host without one: `p1` after `ppp0` went."""
        host = HOSTS[name]
        netns.ip_batch(
            [
                f"link add {device} type veth peer name eth0 netns {name}",
                f"link set {device} up",
                *_router_addresses(device, host.network.router4, host.network.router6),
            ]
        )
        netns.ip_batch(self._host_setup(host), name)
        self.host_wait(name)

    @staticmethod
    def host_wait(name: str) -> None:
        """Waits until a host and the router reach each other, as they do unless its device was changed."""
        _wait_connected(name, (HOSTS[name].router(family) for family in (4, 6)))

    def line_create(self, number: int) -> None:
        """Makes a line's device with the network behind it; sockets of its servers work again."""
        line = LINES[number]
        netns.ip_batch(
            [
                f"link add {line.device} type veth peer name eth0 netns {line.netns}",
                f"link set {line.device} up",
                *self._addresses(line, line.device, 1),
            ]
        )
        # Of an IPv6 address the kernel speaks on its own link only.
        netns.set_sysctls({"ipv4/conf/all/arp_ignore": 1}, line.netns)
        servers = "eth0" if self._on_link else "lo"
        length4, length6 = (24, 64) if self._on_link else (32, 128)
        netns.ip_batch(
            [
                "link set lo up",
                "link set eth0 up",
                *self._addresses(line, "eth0", 254),
                *(f"address replace {server.address}/{length4} dev {servers}" for server in line.servers4),
                *(f"address replace {server.address}/{length6} dev {servers} nodad" for server in line.servers6),
                f"route add default via {line.link4}1",
                f"route add ::/0 via {line.link6}1",
            ],
            line.netns,
        )
        self._line_routes(line)

    def _addresses(self, line: plan.Line, device: str, end: int) -> list[str]:
        """Of one end of a line's link; on_link the router's end is among the servers' addresses."""
        ours = end == 1 and self._on_link
        return [
            f"address add {line.link4}{end}/24 dev {device}",
            f"address add {line.link6}{end}/64 dev {device} nodad",
            *([f"address add 10.0.{line.number}.1/24 dev {device}"] if ours else []),
            *([f"address add fd00:a:{line.number}::1/64 dev {device} nodad"] if ours else []),
        ]

    def _line_routes(self, line: plan.Line) -> None:
        """The kernel forgets a device's routes when it goes down."""
        if not self._on_link:
            netns.ip_batch(
                [
                    f"route replace default via {line.link4}254 dev {line.device} metric {line.number}",
                    f"route replace ::/0 via {line.link6}254 dev {line.device} metric {line.number}",
                ]
            )
        _wait_connected(None, [f"{line.link4}254", f"{line.link6}254"])
        _wait_connected(line.netns, [f"{line.link4}1", f"{line.link6}1"])

    def line_delete(self, number: int) -> None:
        """Removes a line's device, as pulling out a USB modem does."""
        netns.ip_batch([f"link delete {LINES[number].device}"])

    def line_set(self, number: int, up: bool) -> None:
        """Sets a line's device up or down; it keeps its index and its addresses."""
        netns.ip_batch([f"link set {LINES[number].device} {'up' if up else 'down'}"])
        if up:
            self._line_routes(LINES[number])

    def line_rename(self, number: int, name: str) -> None:
        """Gives a line's device another name; `link_rename`, the other way round, undoes it."""
        self.link_rename(LINES[number].device, name)

    @staticmethod
    def link_rename(old: str, new: str) -> None:
        """Renames any device of the router; it is down for a moment, as the kernel demands, and keeps its routes."""
        routes = []
        for family, everywhere in ((4, "0.0.0.0/0"), (6, "::/0")):
            shown = netns.run(None, ["ip", f"-{family}", "route", "show", "default", "dev", old]).stdout
            routes += [f"route add {r.replace('default', everywhere)} dev {new}" for r in shown.splitlines()]
        netns.ip_batch([f"link set {old} down", f"link set {old} name {new}", f"link set {new} up", *routes])
