#!/usr/bin/env bash
# Private mDNS hosts for the DNS-SD tests: each host is a network namespace with its own system
# bus and avahi-daemon; with two, a veth pair joins them (10.78.<n>.1 and .2). Nothing leaves them.
# usage: avahi_hosts.sh start DIR COUNT (then DIR/host<i>.bus holds the bus address) | stop DIR
# Exit 77 when this machine cannot make namespaces (not root) or has no avahi-daemon.
set -euo pipefail
cmd=${1:?start|stop}; dir=$(realpath -m "${2:?dir}")
if [ "$cmd" = stop ]; then
    for p in "$dir"/*.pid; do [ -f "$p" ] && kill "$(cat "$p")" 2>/dev/null || true; done
    for n in "$dir"/*.netns; do [ -f "$n" ] && ip netns del "$(cat "$n")" 2>/dev/null || true; done
    rm -f "$dir"/*.pid "$dir"/*.netns
    exit 0
fi
count=${3:-1}
[ "$(id -u)" -eq 0 ] && command -v avahi-daemon >/dev/null && command -v ip >/dev/null || exit 77
mkdir -p "$dir"; chmod 755 "$dir"
wait_for() {
    for _ in $(seq 1 100); do eval "$1" >/dev/null 2>&1 && return 0; sleep 0.1; done
    echo "avahi_hosts: timeout waiting for: $1" >&2
    return 1
}
tag=$$
for i in $(seq 1 "$count"); do
    ip netns add "vc-mdns-$tag-$i" || exit 77
    echo "vc-mdns-$tag-$i" >"$dir/host$i.netns"
    ip -n "vc-mdns-$tag-$i" link set lo up
done
[ "$count" -ge 2 ] && ip link add "vcm$tag-1" netns "vc-mdns-$tag-1" type veth peer name "vcm$tag-2" netns "vc-mdns-$tag-2"
for i in $(seq 1 "$count"); do
    ns="vc-mdns-$tag-$i"; ifaces=lo
    if [ "$count" -ge 2 ]; then
        ifaces="lo,vcm$tag-$i"
        ip -n "$ns" addr add "10.78.$(( tag % 200 + 20 )).$i/24" dev "vcm$tag-$i"
        ip -n "$ns" link set "vcm$tag-$i" up
    fi
    bus="$dir/host$i.bus_socket"
    dbus-daemon --config-file=/usr/share/dbus-1/system.conf --address="unix:path=$bus" --nofork --nopidfile \
        >"$dir/host$i.dbus.log" 2>&1 &
    echo $! >"$dir/host$i.dbus.pid"
    wait_for "test -S '$bus'"
    printf '[server]\nhost-name=vc-host%s\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=%s\nenable-dbus=yes\n[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\npublish-workstation=no\n' \
        "$i" "$ifaces" >"$dir/host$i.conf"
    DBUS_SYSTEM_BUS_ADDRESS="unix:path=$bus" ip netns exec "$ns" unshare -m --propagation private sh -c \
        "mkdir -p /run/avahi-daemon && mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f '$dir/host$i.conf' --no-drop-root --no-chroot --no-rlimits" \
        >"$dir/host$i.avahi.log" 2>&1 &
    echo $! >"$dir/host$i.avahi.pid"
    wait_for "DBUS_SYSTEM_BUS_ADDRESS='unix:path=$bus' dbus-send --system --print-reply --dest=org.freedesktop.Avahi / org.freedesktop.Avahi.Server.GetState | grep -q 'int32 2'"
    echo "unix:path=$bus" >"$dir/host$i.bus"
done
