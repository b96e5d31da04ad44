"""Names and addresses of the lab.

The router has the first address of every network. A line is an outgoing device with the network
behind it, where two servers with two addresses each listen; a host is a network namespace on a
local device. Every network namespace is named after what is in it: `h1`, `up2`.
"""

from typing import NamedTuple

LAN = "br-lan"
GUEST = "br-guest"
PPP = "ppp0"
PPPOE = "br-pppoe"
VPN_LINE = 9


class Network(NamedTuple):
    """A local device of the router; the router is `.1` and `::1` in it."""

    device: str
    router4: str
    router6: str


class Host(NamedTuple):
    """A host behind a local device, in the network namespace of its name."""

    name: str
    address4: str
    address6: str
    network: Network

    def router(self, family: int = 4) -> str:
        """The router's address in this host's network, where its queries go."""
        return self.network.router4 if family == 4 else self.network.router6


class Server(NamedTuple):
    """One address of a server: `slot` 0 or 1 on its line, `family` 4 or 6."""

    line: int
    slot: int
    family: int
    address: str

    @property
    def label(self) -> str:
        """As a person would name it: `wan1, server 2`."""
        return f"{LINES[self.line].device}, server {self.slot + 1}"

    @property
    def mark4(self) -> str:
        """The address that this server answers to a question of type A."""
        return f"198.51.100.{self.line}{self.slot + 1}"

    @property
    def mark6(self) -> str:
        """The address that this server answers to a question of type AAAA."""
        return f"2001:db8::{self.line}{self.slot + 1}"


class Line(NamedTuple):
    """An outgoing device and the network behind it."""

    number: int
    device: str

    @property
    def netns(self) -> str:
        """The network namespace behind the device."""
        return f"up{self.number}"

    @property
    def link4(self) -> str:
        """The link's network without its last number; the router is 1 there and the provider's gateway 254."""
        return f"100.64.{self.number}."

    @property
    def link6(self) -> str:
        return f"fd00:b:{self.number}::"

    @property
    def servers4(self) -> tuple[Server, ...]:
        return tuple(Server(self.number, i, 4, f"10.0.{self.number}.{53 + i}") for i in (0, 1))

    @property
    def servers6(self) -> tuple[Server, ...]:
        return tuple(Server(self.number, i, 6, f"fd00:a:{self.number}::{53 + i}") for i in (0, 1))

    def servers_of(self, family: int) -> tuple[Server, ...]:
        return self.servers4 if family == 4 else self.servers6

    @property
    def servers(self) -> tuple[Server, ...]:
        """Both IPv4 addresses, then both IPv6 addresses."""
        return self.servers4 + self.servers6

    @property
    def addresses(self) -> tuple[str, ...]:
        """The four addresses as text, in the order of `servers`."""
        return tuple(server.address for server in self.servers)


NETWORKS = {
    LAN: Network(LAN, "192.168.1.1", "fd00:1::1"),
    GUEST: Network(GUEST, "192.168.2.1", "fd00:2::1"),
    PPP: Network(PPP, "192.168.3.1", "fd00:3::1"),
    PPPOE: Network(PPPOE, "192.168.4.1", "fd00:4::1"),
}

HOSTS = {
    "h1": Host("h1", "192.168.1.11", "fd00:1::11", NETWORKS[LAN]),
    "h2": Host("h2", "192.168.1.12", "fd00:1::12", NETWORKS[LAN]),
    "g1": Host("g1", "192.168.2.11", "fd00:2::11", NETWORKS[GUEST]),
    "p1": Host("p1", "192.168.3.11", "fd00:3::11", NETWORKS[PPP]),
}

# The router asking itself: a host like the others, in no namespace of its own.
ROUTER = Host("", "127.0.0.1", "::1", Network("lo", "127.0.0.1", "::1"))

LINES = {n: Line(n, f"wan{n}") for n in (1, 2, 3)} | {VPN_LINE: Line(VPN_LINE, "pt-vpn0")}

# Logical interface names, as the rules and the resolver file use them, and their devices.
LOGICAL = {
    "LAN": LAN,
    "GUEST": GUEST,
    "PPPOES": PPPOE,
    "PPP": "ppp0",
    "WAN1": "wan1",
    "WAN2": "wan2",
    "WAN3": "wan3",
    "VPN": "pt-vpn0",
    "IPTV": "br-iptv",  # has a name but no device
}


def server_at(address: str) -> Server:
    """The server that owns this address."""
    for line in LINES.values():
        for server in line.servers:
            if server.address == address:
                return server
    raise KeyError(address)
