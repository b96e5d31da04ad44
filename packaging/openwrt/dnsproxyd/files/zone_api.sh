# shellcheck shell=dash
#
# The zone functions for routers that have none of their own: a network's name is its name in
# /etc/config/network. One that is down stands for the device that it was up on last. A name that is no network's
# stands for the device of this name, also after that has gone. A network without a device prints nothing.

zone_iface_to_userif() { echo "$1"; }

zone_get_effect_devices() {
    local device
    # shellcheck source=/dev/null
    . /lib/functions/network.sh
    network_get_device device "$1" ||
        device=$(awk -v name="$1" '
            $1 == name { known = $2; exit }
            $2 == name { known = name }
            END { print known }' /var/run/dnsproxyd/devices 2>/dev/null)
    [ -n "$device" ] || [ ! -e "/sys/class/net/$1" ] || device=$1
    [ -z "$device" ] || echo "$device"
}
