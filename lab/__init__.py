"""The router in a box: network devices, hosts, DNS servers and the daemon, inside one sandbox.

Everything here runs inside `lab/enter`; the sandbox's own network namespace is the router.

    plan      names and addresses of the devices, hosts and lines
    netns     work in another network namespace
    router    Lab: makes the devices and hosts, changes the lines
    files     the files that the daemon reads
    daemon    Daemon: the daemon's process, as shipped
    upstream  Upstream: scripted DNS servers behind a line
    client    Client: a host that asks, one query or thousands
    broker    Broker: the message bus; Caller: a client of it; messages in bus, attacks in hostile_bus
    chart     pictures of figures
    sniffer   Sniffer: which device a query left by
    dns       DNS messages, as much as the above need
    wait      wait for a condition, never for a time
"""
