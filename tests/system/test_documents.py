"""The documents, run as a reader would: each example's rules make a daemon, each command of docs/administration.md
prints what the page shows.
"""

import contextlib
import re

import programs
import pytest

from lab import files, netns, wait
from lab.broker import Broker
from lab.daemon import TOP, Daemon
from lab.upstream import answer, delayed

PAGE = TOP / "docs/administration.md"
BLOCK = re.compile(r"^(?:##+ (?P<heading>[^\n]*)|```(?P<kind>\w+)\n(?P<text>.*?)^```)$", re.MULTILINE | re.DOTALL)
COMMAND = re.compile(r"^(router(?=#)|\w+(?=\$))[#$] (.*)$")


def run(prompt: str, command: str) -> str:
    """What a command prints, with process numbers that do not change."""
    result = netns.run(None if prompt == "router" else prompt, ["sh", "-c", command], timeout=wait.PATIENCE)
    return re.sub(r"process \d+", "process 812", result.stdout + result.stderr)


def printed(console: str) -> str:
    """A console block with what its commands print now."""
    text = ""
    for line in console.splitlines():
        if found := COMMAND.match(line):
            text += line + "\n" + run(*found.groups())
    return text


@pytest.fixture(autouse=True)
def router_programs(monkeypatch):
    programs.install_ubus()
    monkeypatch.setenv("PATH", f"{programs.path('tools')}:/usr/sbin:/usr/bin:/sbin:/bin")


@pytest.mark.parametrize(
    "document, example, count",
    [
        ("docs/man/dnsproxyd-rules.5", r"^\.EX\n(.*?)^\.EE$", 4),
        ("README.md", r"^((?:    (?:config rule|    option [^\n]*)?\n|\n)+)", 1),
    ],
)
def test_rules_of_other_documents(upstreams, document, example, count):
    text = (TOP / document).read_text(encoding="utf-8")
    examples = [found for found in re.findall(example, text, re.MULTILINE | re.DOTALL) if "config rule" in found]
    assert len(examples) == count
    files.write_resolv(files.resolv_of_lines(1, 2))
    with Broker("/var/run/ubus.sock") as bus:
        for rules in examples:
            files.write(files.RULES, rules)
            wait.until(lambda: not bus.objects(), "the bus to forget the daemon before")
            with Daemon() as daemon:
                bus.wait_for("dnsproxy")
                assert run("router", "dnsproxyctl check") == "nothing found\n", rules
                assert f"listen interface(size:{rules.count('config rule') - rules.count('pppoes')})" in daemon.output()


def test_administration(upstreams):
    seen = set()
    with Broker("/var/run/ubus.sock") as bus, contextlib.ExitStack() as running:
        for block in BLOCK.finditer(PAGE.read_text(encoding="utf-8")):
            kind, text = block["kind"], block["text"]
            seen.add(kind)
            if kind is None:
                upstreams[1].answer_with(delayed(1) if "fastest" in block["heading"] else answer)
            elif kind == "resolv":
                files.write(files.RESOLV, text)
            elif kind == "uci":
                running.close()
                wait.until(lambda: not bus.objects(), "the bus to forget the daemon before")
                files.write(files.RULES, text)
                daemon = running.enter_context(Daemon())
                bus.wait_for("dnsproxy")
            elif kind == "console":
                assert printed(text) == text
            else:
                assert kind == "dump" and text in daemon.output()
    assert seen == {None, "resolv", "uci", "console", "dump"}
