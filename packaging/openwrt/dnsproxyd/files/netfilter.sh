#!/bin/sh
# shellcheck shell=dash
#
# netfilter.sh set PORT [DEVICE...] | clear
#
# Two things that the daemon needs of the packet filter on some routers, in chains of their own:
#
# mwan3 marks what the router sends for the line that its policy picks, and the kernel then looks for a route by that
# mark. A socket that is tied to another line finds none, and the kernel takes the server for a neighbour. The mark
# with all bits of mwan3's mask is the one that mwan3 passes by, so the daemon's queries get it before mwan3 sees
# them. The daemon's sockets are known by its group, which nothing else runs in.
#
# With a PORT, what hosts on these devices send to the router's own port 53 goes to the resolver on that port.

GROUP=dnsproxyd

# Bits of mwan3's mask, 0 where it is not installed.
mwan3_mask() {
    if [ -e /etc/config/mwan3 ]; then
        uci -q get mwan3.globals.mmx_mask || echo 0x3F00
    else
        echo 0
    fi
}

rules_for_nft() {
    local device list=
    echo "table inet dnsproxyd
    delete table inet dnsproxyd
    table inet dnsproxyd {"
    [ "$mask" = 0 ] || echo "chain own_queries {
        type route hook output priority mangle - 1
        meta skgid $gid udp dport 53 meta mark set meta mark | $mask
    }"
    for device; do list="$list${list:+, }\"$device\""; done
    [ -z "$list" ] || echo "chain local_names {
        type nat hook prerouting priority dstnat - 1
        iifname { $list } fib daddr type local meta l4proto { tcp, udp } th dport 53 redirect to :$port
    }"
    echo "}"
}

set_nft() {
    rules_for_nft "$@" | nft -f -
}

clear_nft() { nft delete table inet dnsproxyd 2>/dev/null; }

# chain PROGRAM TABLE HOOK: makes our chain, empty, the first of the hook.
chain() {
    "$1" -w -t "$2" -N dnsproxyd 2>/dev/null || "$1" -w -t "$2" -F dnsproxyd
    "$1" -w -t "$2" -C "$3" -j dnsproxyd 2>/dev/null || "$1" -w -t "$2" -I "$3" -j dnsproxyd
}

set_iptables() {
    local program device proto
    clear_iptables
    for program in iptables ip6tables; do
        command -v "$program" >/dev/null || continue
        if [ "$mask" != 0 ]; then
            chain "$program" mangle OUTPUT
            "$program" -w -t mangle -A dnsproxyd -p udp --dport 53 -m owner --gid-owner "$gid" \
                -j MARK --set-xmark "$mask/$mask" || return
        fi
        [ $# -eq 0 ] || chain "$program" nat PREROUTING
        for device; do
            for proto in udp tcp; do
                "$program" -w -t nat -A dnsproxyd -i "$device" -p "$proto" --dport 53 -m addrtype --dst-type LOCAL \
                    -j REDIRECT --to-ports "$port" || return
            done
        done
    done
}

clear_iptables() {
    local program table
    for program in iptables ip6tables; do
        for table in "mangle OUTPUT" "nat PREROUTING"; do
            "$program" -w -t "${table% *}" -D "${table#* }" -j dnsproxyd
            "$program" -w -t "${table% *}" -F dnsproxyd
            "$program" -w -t "${table% *}" -X dnsproxyd
        done
    done 2>/dev/null
    return 0
}

filter=iptables
! command -v nft >/dev/null || filter=nft

case $1 in
    set)
        # shellcheck source=/dev/null
        . /lib/functions.sh
        port=$2
        shift 2
        mask=$(mwan3_mask)
        gid=0
        [ "$mask" = 0 ] || gid=$(group_add_next "$GROUP")
        if [ "$mask$*" != 0 ] && ! command -v "$filter" >/dev/null; then
            said="there is neither nft nor iptables"
        else
            said=$("set_$filter" "$@" 2>&1) && exit 0
        fi
        [ -z "$said" ] || logger -s -t dnsproxyd -p daemon.err "the packet filter refuses: $said"
        ;;
    clear) "clear_$filter" ;;
esac
