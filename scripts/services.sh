#!/usr/bin/env bash
# Starts (or stops) the real services the tests talk to, isolated from the machine's own:
# a private system D-Bus, avahi-daemon in its own network namespace with only lo,
# a PulseAudio daemon with null sinks, and Xvfb on a display it picks itself.
#
# usage: services.sh start RTDIR   (then: source RTDIR/env)
#        services.sh stop RTDIR
# VC_NETNS names the namespace (default velocast-svc-<pid>); give each run its own.
set -euo pipefail
cmd=${1:?start|stop}; RT=$(realpath -m "${2:?runtime dir}")
mkdir -p "$RT"
if [ "$cmd" = stop ]; then
    for p in "$RT"/*.pid; do
        [ -f "$p" ] || continue
        kill "$(cat "$p")" 2>/dev/null || true
        rm -f "$p"
    done
    [ -f "$RT/netns" ] && ip netns del "$(cat "$RT/netns")" 2>/dev/null || true
    rm -f "$RT/netns"
    exit 0
fi
NS=${VC_NETNS:-velocast-svc-$$}
echo "$NS" >"$RT/netns"
mkdir -p "$RT/xdg-runtime" "$RT/config" "$RT/home"
chmod 700 "$RT/xdg-runtime"   # RT itself stays 755 so messagebus can reach the bus socket
wait_for() {
    for _ in $(seq 1 100); do
        if eval "$1" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    echo "services: timeout waiting for: $1" >&2
    return 1
}
env_lines=()

# Private system bus + avahi-daemon (needs root for the namespace; skipped otherwise).
if [ "$(id -u)" -eq 0 ] && command -v avahi-daemon >/dev/null && ip netns add "$NS" 2>/dev/null; then
    dbus-daemon --config-file=/usr/share/dbus-1/system.conf --address="unix:path=$RT/system_bus_socket" \
        --nofork --nopidfile >"$RT/dbus.log" 2>&1 &
    echo $! >"$RT/dbus.pid"
    export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$RT/system_bus_socket"
    wait_for "test -S '$RT/system_bus_socket'"
    ip -n "$NS" link set lo up
    printf '[server]\nhost-name=velocast-ci\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=lo\nenable-dbus=yes\n[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\npublish-workstation=no\n' >"$RT/avahi.conf"
    ip netns exec "$NS" unshare -m --propagation private sh -c \
        "mkdir -p /run/avahi-daemon && mount -t tmpfs tmpfs /run/avahi-daemon && exec avahi-daemon -f '$RT/avahi.conf' --no-drop-root --no-chroot --no-rlimits" \
        >"$RT/avahi.log" 2>&1 &
    echo $! >"$RT/avahi.pid"
    wait_for "dbus-send --system --print-reply --dest=org.freedesktop.Avahi / org.freedesktop.Avahi.Server.GetState | grep -q 'int32 2'"
    env_lines+=("export DBUS_SYSTEM_BUS_ADDRESS='$DBUS_SYSTEM_BUS_ADDRESS'")
else
    echo "services: no avahi-daemon (needs root and network namespaces); DNS-SD tests will skip" >&2
    rm -f "$RT/netns"
fi

# PulseAudio with three null sinks and a null source.
if command -v pulseaudio >/dev/null; then
    cat >"$RT/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$RT/pulse-native
load-module module-null-sink sink_name=vc_speakers sink_properties=device.description=Speakers
load-module module-null-sink sink_name=vc_hdmi sink_properties=device.description=HDMI
load-module module-null-sink sink_name=vc_headset sink_properties=device.description=Headset
load-module module-null-source source_name=vc_mic description=Microphone
PA
    HOME="$RT/home" XDG_RUNTIME_DIR="$RT/xdg-runtime" XDG_CONFIG_HOME="$RT/home/.config" \
        pulseaudio -n -F "$RT/pulse.pa" --daemonize=no --exit-idle-time=-1 --use-pid-file=no --realtime=no \
        --high-priority=no --log-target=stderr --log-level=error >"$RT/pulse.log" 2>&1 &
    echo $! >"$RT/pulse.pid"
    export PULSE_SERVER="unix:$RT/pulse-native"
    wait_for "pactl info"
    env_lines+=("export PULSE_SERVER='$PULSE_SERVER'")
fi

# Xvfb on a free display.
if command -v Xvfb >/dev/null; then
    exec 9<> <(:)
    Xvfb -displayfd 9 -screen 0 1280x800x24 -nolisten tcp >"$RT/xvfb.log" 2>&1 &
    echo $! >"$RT/xvfb.pid"
    wait_for "read -t 0.1 -u 9 d && echo \$d >'$RT/display'"
    exec 9<&-
    env_lines+=("export DISPLAY=':$(cat "$RT/display")'")
fi

env_lines+=("export XDG_RUNTIME_DIR='$RT/xdg-runtime'")
printf '%s\n' "${env_lines[@]}" >"$RT/env"
