#!/usr/bin/env bash
# Starts (or stops) a private Wayland desktop for the Wayland capture and input tests: a
# session D-Bus of its own, headless mutter with one virtual monitor, PipeWire and
# WirePlumber, the desktop-portal frontend and a test portal backend that forwards to
# mutter's own ScreenCast/RemoteDesktop API (no dialog), all in private XDG directories.
#
# usage: wayland-services.sh start RTDIR   (then: source RTDIR/env)
#        wayland-services.sh stop RTDIR
# Exits 3, with the reason on stderr, when this machine lacks a piece.
set -euo pipefail
cmd=${1:?start|stop}; RT=$(realpath -m "${2:?runtime dir}")
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$RT"
export XDG_RUNTIME_DIR="$RT/run" XDG_CONFIG_HOME="$RT/config" XDG_DATA_HOME="$RT/data" \
    XDG_STATE_HOME="$RT/state" XDG_CACHE_HOME="$RT/cache" HOME="$RT/home"
export DBUS_SESSION_BUS_ADDRESS="unix:path=$XDG_RUNTIME_DIR/bus"

stop_pid() {
    local pid=$1
    kill "$pid" 2>/dev/null || return 0
    for _ in $(seq 1 30); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
}

if [ "$cmd" = stop ]; then
    # The frontend starts the document portal and the permission store by bus activation.
    if [ -S "$XDG_RUNTIME_DIR/bus" ]; then
        for name in org.freedesktop.portal.Documents org.freedesktop.impl.portal.PermissionStore; do
            pid=$(busctl --user call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus \
                GetConnectionUnixProcessID s "$name" 2>/dev/null | awk '{print $2}') || true
            [ -n "${pid:-}" ] && stop_pid "$pid"
        done
    fi
    for svc in portal backend wireplumber pipewire mutter dbus; do
        [ -f "$RT/$svc.pid" ] && stop_pid "$(cat "$RT/$svc.pid")"
        rm -f "$RT/$svc.pid"
    done
    if grep -q " $XDG_RUNTIME_DIR/doc " /proc/mounts 2>/dev/null; then
        fusermount3 -u "$XDG_RUNTIME_DIR/doc" 2>/dev/null || fusermount -u "$XDG_RUNTIME_DIR/doc" 2>/dev/null || umount -l "$XDG_RUNTIME_DIR/doc" || true
    fi
    exit 0
fi

missing() { echo "wayland-services: $1" >&2; exit 3; }
for tool in dbus-daemon mutter pipewire wireplumber busctl; do
    command -v "$tool" >/dev/null || missing "$tool is not installed"
done
FRONTEND=/usr/libexec/xdg-desktop-portal
[ -x "$FRONTEND" ] || missing "xdg-desktop-portal is not installed"
/usr/bin/python3 -c 'import gi; gi.require_version("Gio", "2.0")' 2>/dev/null || missing "python3-gi is not installed"

mkdir -p "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_STATE_HOME" "$XDG_CACHE_HOME" "$HOME" "$RT/portals"
chmod 700 "$XDG_RUNTIME_DIR"
wait_for() {
    for _ in $(seq 1 150); do
        if eval "$1" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    echo "wayland-services: timeout waiting for: $1" >&2
    bash "$0" stop "$RT"
    exit 1
}
has_name() { busctl --user status "$1" >/dev/null 2>&1; }

dbus-daemon --session --address="$DBUS_SESSION_BUS_ADDRESS" --nofork --nopidfile >"$RT/dbus.log" 2>&1 &
echo $! >"$RT/dbus.pid"
wait_for "test -S '$XDG_RUNTIME_DIR/bus'"

export WAYLAND_DISPLAY="vc-wayland-$$"
mutter --headless --virtual-monitor 1280x800 --wayland --no-x11 --wayland-display="$WAYLAND_DISPLAY" --sm-disable \
    >"$RT/mutter.log" 2>&1 &
echo $! >"$RT/mutter.pid"
wait_for "test -S '$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY' && has_name org.gnome.Mutter.ScreenCast && has_name org.gnome.Mutter.RemoteDesktop"

pipewire >"$RT/pipewire.log" 2>&1 &
echo $! >"$RT/pipewire.pid"
wait_for "test -S '$XDG_RUNTIME_DIR/pipewire-0'"
wireplumber >"$RT/wireplumber.log" 2>&1 &
echo $! >"$RT/wireplumber.pid"

export VC_PORTAL_LOG="$RT/portal-calls.jsonl" VC_PORTAL_CONTROL="$RT/portal-control"
: >"$VC_PORTAL_LOG"; : >"$VC_PORTAL_CONTROL"
/usr/bin/python3 "$here/../tests/wayland/portal_test_backend.py" >"$RT/backend.log" 2>&1 &
echo $! >"$RT/backend.pid"
wait_for "has_name org.freedesktop.impl.portal.desktop.test"

printf '[portal]\nDBusName=org.freedesktop.impl.portal.desktop.test\nInterfaces=org.freedesktop.impl.portal.RemoteDesktop;org.freedesktop.impl.portal.ScreenCast;\nUseIn=test\n' \
    >"$RT/portals/test.portal"
XDG_DESKTOP_PORTAL_DIR="$RT/portals" XDG_CURRENT_DESKTOP=test "$FRONTEND" --replace >"$RT/portal.log" 2>&1 &
echo $! >"$RT/portal.pid"
wait_for "has_name org.freedesktop.portal.Desktop"

cat >"$RT/env" <<ENV
export XDG_RUNTIME_DIR='$XDG_RUNTIME_DIR' XDG_CONFIG_HOME='$XDG_CONFIG_HOME' XDG_DATA_HOME='$XDG_DATA_HOME'
export XDG_STATE_HOME='$XDG_STATE_HOME' XDG_CACHE_HOME='$XDG_CACHE_HOME'
export DBUS_SESSION_BUS_ADDRESS='$DBUS_SESSION_BUS_ADDRESS' WAYLAND_DISPLAY='$WAYLAND_DISPLAY'
export XDG_SESSION_TYPE=wayland XDG_CURRENT_DESKTOP=test
export VC_PORTAL_LOG='$VC_PORTAL_LOG' VC_PORTAL_CONTROL='$VC_PORTAL_CONTROL'
ENV
