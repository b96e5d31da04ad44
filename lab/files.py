"""The files that the daemon reads, as the router's scripts write them.

All are private to the sandbox. A file that is not written is not there, except the zone functions,
which `write_zone_api` must have written before the daemon can map any logical name.
"""

import os
from collections.abc import Iterable, Mapping

from lab import plan

RULES = "/etc/config/dns"
RESOLV = "/tmp/resolv.conf.auto"
ONLINE_STATE = "/tmp/online/state"
ZONE_API = "/lib/zone/zone_api.sh"


def write(path: str, text: str) -> None:
    """Writes any file, with the folders that it needs."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def _quoted(value: str) -> str:
    return "'" + value.replace("'", "'\\''") + "'"


def write_rules(rules: Iterable[Mapping[str, str | list[str]]]) -> None:
    """One "rule" section per item; a value that is a list is written as a list option."""
    text = ""
    for rule in rules:
        text += "config rule\n"
        for option, value in rule.items():
            if isinstance(value, str):
                text += f"\toption {option} {_quoted(value)}\n"
            else:
                text += "".join(f"\tlist {option} {_quoted(item)}\n" for item in value)
        text += "\n"
    write(RULES, text)


def write_resolv(sections: Mapping[str, Iterable[str]]) -> None:
    """One section per logical interface name, with the addresses of its servers."""
    text = ""
    for name, addresses in sections.items():
        text += f"#Interface {name}\n"
        text += "".join(f"nameserver {address}\n" for address in addresses)
    write(RESOLV, text)


def resolv_of_lines(*numbers: int, ipv4: bool = True, ipv6: bool = True) -> dict[str, list[str]]:
    """Sections for `write_resolv`: these lines with all their servers."""
    names = {device: name for name, device in plan.LOGICAL.items()}
    sections = {}
    for number in numbers:
        line = plan.LINES[number]
        servers = (line.servers4 if ipv4 else ()) + (line.servers6 if ipv6 else ())
        sections[names[line.device]] = [server.address for server in servers]
    return sections


def write_online_state(states: Mapping[str, str]) -> None:
    """One line per device: its name and its state, "on" or "off"."""
    write(ONLINE_STATE, "".join(f"{device}={state}\n" for device, state in states.items()))


def write_zone_api(table: Mapping[str, str] | None = None) -> None:
    """The shell functions that map a logical name to its user interface and that to its device."""
    table = plan.LOGICAL if table is None else table
    names = "".join(f"        {name}) echo {name.lower()} ;;\n" for name in table)
    devices = "".join(f"        {name.lower()}) echo {dev} ;;\n" for name, dev in table.items())
    write(
        ZONE_API,
        "# Logical interface names, user interfaces and devices of this router.\n"
        "zone_iface_to_userif() {\n"
        f'    case "$1" in\n{names}    esac\n'
        "}\n\n"
        "zone_get_effect_devices() {\n"
        f'    case "$1" in\n{devices}    esac\n'
        "}\n",
    )


def remove(*paths: str) -> None:
    """Removes files, whether or not they are there."""
    for path in paths or (RULES, RESOLV, ONLINE_STATE, ZONE_API):
        try:
            os.unlink(path)
        except FileNotFoundError:
            pass
