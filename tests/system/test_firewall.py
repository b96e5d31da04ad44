"""The firewall rules of docs/reliability.md against replies forged with the right identifier to the right port."""

import re
import socket
import subprocess

import pytest

from lab import dns, netns, plan
from lab.daemon import TOP
from lab.upstream import Upstream, reply_to, silent

LINE = plan.LINES[1]
RULES = re.search(r"```nft\n(.*?)```", (TOP / "docs/reliability.md").read_text(encoding="utf-8"), re.DOTALL)[1]
STRANGERS = {4: "10.0.1.99", 6: "fd00:a:1::99"}


@pytest.fixture(params=(False, True), ids=("open", "guarded"))
def guarded(request, lab):
    if request.param and subprocess.run(["nft", "-f", "-"], input=RULES, text=True, check=False).returncode != 0:
        pytest.skip("this kernel has no nftables with connection tracking")
    yield request.param
    if request.param:
        subprocess.run(["nft", "flush", "ruleset"], check=True)


@pytest.mark.parametrize("forger", ["a stranger's port 53", "another port of the server"])
def test_forged_replies(lab, start, client, family, guarded, forger):
    server = LINE.servers_of(family)[0]
    sender = (STRANGERS[family], 53) if "stranger" in forger else (server.address, 5353)
    if sender[0] != server.address:
        with_length = f"{sender[0]}/24" if family == 4 else f"{sender[0]}/64 nodad"
        netns.ip_batch([f"address replace {with_length} dev eth0"], LINE.netns)
    start([{"name": "lan", "service_if": "LAN"}], {"WAN1": [server.address]})
    host = client("h1", family)
    with Upstream(1, policy=silent) as wan1:
        port = host.send(dns.query(host.fresh_ident(host.open())), host.ports()[0])
        (query,) = wan1.wait_for(1)
        good = reply_to(query)
        forged = good[:-1] + b"!"
        with netns.inside(LINE.netns):
            sock = socket.socket(socket.AF_INET if family == 4 else socket.AF_INET6, socket.SOCK_DGRAM)
        with sock:
            sock.bind(sender)
            sock.sendto(forged, query.source[:2])
        if guarded:
            wan1.answer_now(query)
        assert host.receive(port)[2:] == (good if guarded else forged)[2:]
