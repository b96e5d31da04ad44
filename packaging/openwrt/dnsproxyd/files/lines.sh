#!/bin/sh
# shellcheck shell=dash
#
# lines.sh start | update | follow | watched NAME DEVICE on|off
#
# Shows the daemon this router's lines as netifd and mwan3 see them: /tmp/resolv.conf.auto and /tmp/online/state
# for one that starts, dnsproxyctl and the bus for one that runs. "update" does nothing before the init script's
# "start". On a router with zone functions of its own these files are the vendor's, and nothing is done.
# "follow" runs beside the daemon and updates when servers change on a line that stays up: netifd has no event for
# that, but writes all servers into its resolver file. "watched" is what dnsproxyctl watch calls.
#
# A line is a device. netifd can have several networks on one (wan, wan6), and the daemon takes a device once, so
# their servers go together under the first one's name. A network counts while it is up, has DNS servers, and has
# a default route or stands in the list "line" of /etc/config/dns. A VPN's network counts only in that list:
# otherwise queries of hosts that are not meant for the tunnel would take it, and queries that are would leave it.
#
# A query over IPv6 goes to IPv6 servers only. A line without any gets its IPv4 servers as those too
# (::ffff:192.0.2.1), since hosts have the router's IPv6 address as their DNS server wherever odhcpd runs.
#
# A line whose networks are all down is taken out of the daemon, and its device is off for when it is put in by hand.
#
# mwan3 tests networks, the daemon wants to know about devices: a line is off when mwan3 has disconnected a network
# on it and connected none. Of a line that is on, the disconnected networks' servers are left out. A line that is
# off keeps its IPv4 servers, for rules that force it and for when all are off; its IPv6 servers, for which the
# daemon does not look at the state, are left out while another line is on. A line that dnsproxyctl watch has found
# dead is off as well.
#
# In /var/run/dnsproxyd: "lines" (NAME DEVICE on|off SERVER... per line, as last shown), "devices" (NETWORK DEVICE
# of all that a network was up on, the latest first), "mwan3/NETWORK" (connected or disconnected), "dead/DEVICE".

RUN=/var/run/dnsproxyd
RESOLVER=/tmp/resolv.conf.d/resolv.conf.auto # netifd's
VPN_PROTOCOLS=" wireguard amneziawg openvpn openconnect vpnc sstp pptp l2tp gre gretap grev6 grev6tap ipip ip6ip vti vti6 xfrm vxlan vxlan6 tailscale zerotier "

# shellcheck source=/dev/null
. /lib/functions.sh

# ask INTERFACE PATH: what netifd says of an interface.
ask() { jsonfilter -s "$dump" -e "@.interface[@.interface='$1']$2"; }

# NETWORK DEVICE of every network that is up.
networks() {
    local name device
    for name in $(jsonfilter -s "$dump" -e '@.interface[@.up=true].interface'); do
        device=$(ask "$name" .l3_device)
        [ -z "$device" ] || echo "$name" "$device"
    done
}

is_line() {
    if [ -n "$chosen" ]; then
        case " $chosen " in *" $1 "*) return 0 ;; *) return 1 ;; esac
    fi
    case "$VPN_PROTOCOLS" in *" $(ask "$1" .proto) "*) return 1 ;; esac
    [ -n "$(ask "$1" '.route[@.mask=0].target')" ]
}

# Of the networks: NAME DEVICE MARK SERVER...
candidates() {
    local name device mark
    while read -r name device; do
        is_line "$name" || continue
        mark=-
        [ ! -e "$RUN/mwan3/$name" ] || read -r mark <"$RUN/mwan3/$name"
        [ ! -e "$RUN/dead/$device" ] || mark=dead
        # shellcheck disable=SC2046 # one line of all servers
        echo "$name" "$device" "$mark" $(ask "$name" "['dns-server'][*]")
    done
}

# Of the candidates: the lines.
lines() {
    awk '
        NF > 3 {
            row[++rows] = $0
            if (!($2 in name)) {
                device[++devices] = $2
                name[$2] = length($1) > 15 ? $2 : $1
            }
            if ($3 == "connected") connected[$2]
            if ($3 == "disconnected" || $3 == "dead") disconnected[$2]
        }
        END {
            for (i = 1; i <= devices; i++) {
                d = device[i]
                on[d] = (d in connected) || !(d in disconnected)
                if (on[d]) some_on = 1
            }
            for (i = 1; i <= rows; i++) {
                n = split(row[i], word)
                d = word[2]
                if (on[d] && word[3] == "disconnected") continue
                for (k = 4; k <= n; k++) {
                    sub(/%.*/, "", word[k])
                    v6 = index(word[k], ":") > 0
                    if (seen[d, word[k]]++ || count[d, v6]++ >= 2) continue
                    servers[d, v6] = servers[d, v6] " " word[k]
                }
            }
            for (i = 1; i <= devices; i++) {
                d = device[i]
                if (!count[d, 1]) {
                    servers[d, 1] = servers[d, 0]
                    gsub(/ /, " ::ffff:", servers[d, 1])
                }
                # A line with nothing else keeps its IPv6 servers: asking them tells when it is back.
                if (!on[d] && some_on && count[d, 0]) servers[d, 1] = ""
                if (count[d, 0] || count[d, 1]) print name[d], d, (on[d] ? "on" : "off") servers[d, 0] servers[d, 1]
            }
        }'
}

# NAME DEVICE on|off of the lines, and of the devices whose networks are down.
states() {
    awk '
        FILENAME == ARGV[1] { print $1, $2, $3; shown[$2]; next }
        FILENAME == ARGV[2] { shown[$2]; next }
        !($2 in shown) { print $1, $2, "off"; shown[$2] }' "$RUN/lines" "$RUN/networks" "$RUN/devices"
}

# differences OLD NEW: what to tell dnsproxyctl. The daemon maps each name to the device that the network has by
# then, so a line that has gone goes by its device where its name now belongs to another line.
differences() {
    awk '
        { servers = $0; sub(/^[^ ]+ [^ ]+ [^ ]+/, "", servers) }
        FILENAME == ARGV[1] { old[$2] = servers; name[$2] = $1; next }
        {
            if (($2 in name) && old[$2] != servers) print "del", $1
            if (!($2 in name) || old[$2] != servers) print "put", $1 servers
            delete name[$2]
            taken[$1]
        }
        END { for (device in name) print "del", (name[device] in taken) ? device : name[device] }' "$1" "$2"
}

# replace FILE: by standard input, at once.
replace() { cat >"$1.new" && mv "$1.new" "$1"; }

write_files() {
    mkdir -p /tmp/online
    awk '{ print "#Interface " $1; for (i = 4; i <= NF; i++) print "nameserver " $i }' "$RUN/lines" |
        replace /tmp/resolv.conf.auto
    states | awk '{ print $2 "=" $3 }' | replace /tmp/online/state
}

tell_daemon() {
    local words said
    differences "$1" "$2" | while read -r words; do
        # shellcheck disable=SC2086 # the words of a command line
        said=$(dnsproxyctl $words 2>&1 </dev/null)
        case $? in
            0) ;;
            3) break ;; # it does not run, and will read the files
            *) logger -t dnsproxyd -p daemon.warn "dnsproxyctl $words: $said" ;;
        esac
    done
}

tell_bus() {
    local name device state
    states | while read -r name device state; do
        ubus -t 3 call dnsproxy update_if "{\"name\":\"$name\",\"dev\":\"$device\",\"status\":\"$state\"}" </dev/null
    done >/dev/null 2>&1
}

follow() {
    local now seen=
    while sleep 5; do
        now=$(cat "$RESOLVER" 2>/dev/null)
        # A stopped mwan3 says so only of the lines that it had connected.
        [ -d /var/run/mwan3 ] || [ ! -d "$RUN/mwan3" ] || now="$now stopped"
        if [ "$now" != "$seen" ] || [ -e "$RUN/missed" ]; then
            /usr/lib/dnsproxyd/lines.sh update
            seen=${now% stopped}
        fi
    done
}

watched() {
    mkdir -p "$RUN/dead"
    if [ "$2" = on ]; then rm -f "$RUN/dead/$1"; else : >"$RUN/dead/$1"; fi
}

update() {
    local bridge chosen dump before="$RUN/lines.before"
    [ "$1" = start ] || [ -e "$RUN/lines" ] || return 0
    config_load dns
    config_get_bool bridge main bridge 1
    config_get chosen main line
    [ "$bridge" -eq 1 ] || return 0
    [ "$(readlink /lib/zone/zone_api.sh)" = /usr/lib/dnsproxyd/zone_api.sh ] || return 0

    # One at a time; each sees the state that the last event left.
    mkdir -p "$RUN"
    exec 9>"$RUN/lock"
    flock 9
    touch "$RUN/lines" "$RUN/devices"
    dump=$(ubus -t 10 call network.interface dump 2>/dev/null)
    if [ -z "$(jsonfilter -s "$dump" -e '@.interface[*].interface' 2>/dev/null)" ]; then
        [ -e "$RUN/missed" ] || logger -t dnsproxyd -p daemon.warn "netifd does not tell its networks: lines stay as they are"
        : >"$RUN/missed"
        return 0
    fi
    rm -f "$RUN/missed"
    [ -d /var/run/mwan3 ] || rm -rf "$RUN/mwan3"
    cp "$RUN/lines" "$before"
    networks >"$RUN/networks"
    awk '!seen[$0]++' "$RUN/networks" "$RUN/devices" | replace "$RUN/devices"
    candidates <"$RUN/networks" | lines | replace "$RUN/lines"
    # The files come first: a daemon that does not hear what follows has yet to read them.
    write_files
    tell_daemon "$before" "$RUN/lines"
    tell_bus
}

case $1 in
    follow) follow ;;
    watched) watched "$3" "$4" && update ;;
    *) update "$1" ;;
esac
