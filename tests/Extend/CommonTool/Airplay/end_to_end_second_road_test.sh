#!/usr/bin/env bash
# The second road end to end: the real program under Xvfb in a network namespace, the reference
# receiver, a private avahi-daemon and a PulseAudio with module-raop-discover. After the receiver's
# configuration both services and a RAOP output device must appear; the receiver's stop and the
# panel's "停止投屏" must each withdraw them. Exit 77 (skipped) without the tools or namespaces.
# usage: end_to_end_second_road_test.sh VELOCAST_BIN RECEIVER_BIN
set -euo pipefail
app=$1 receiver=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
source "$here/../../../support/end_to_end.sh"
ls /usr/lib/pulse-*/modules/module-raop-discover.so >/dev/null 2>&1 || { echo "skip: pulseaudio-module-raop is not installed"; exit 77; }
start_namespace avahi-browse pulseaudio pactl
cleanup_extra() { bash "$here/avahi_hosts.sh" stop "$tmp/mdns" || true; }
rc=0; bash "$here/avahi_hosts.sh" start "$tmp/mdns" 1 || rc=$?
[ $rc -eq 0 ] || { [ $rc -eq 77 ] && { echo "skip: no private avahi-daemon"; exit 77; }; fail "avahi-daemon"; }
export DBUS_SYSTEM_BUS_ADDRESS=$(cat "$tmp/mdns/host1.bus")

# The sound server, looking for RAOP services through the private daemon.
mkdir -p "$tmp/pulse-home" "$tmp/pulse-run"; chmod 700 "$tmp/pulse-run"
cat >"$tmp/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$tmp/pulse-native
load-module module-null-sink sink_name=vc_speakers
load-module module-raop-discover
PA
in_ns env HOME="$tmp/pulse-home" XDG_RUNTIME_DIR="$tmp/pulse-run" pulseaudio -n -F "$tmp/pulse.pa" --daemonize=no \
    --exit-idle-time=-1 --use-pid-file=no --realtime=no --high-priority=no --log-target=stderr --log-level=info \
    >"$tmp/pulse.log" 2>&1 &
pids+=($!)
export PULSE_SERVER="unix:$tmp/pulse-native"
wait_for 20 pactl info || fail "PulseAudio did not start" "$tmp/pulse.log"

start_xvfb
start_receiver --permission manual
start_app
focus
in_ns xdotool type --delay 80 "$code"
wait_for 30 has_event '"event":"heartbeat"' || fail "not admitted" "$tmp/app.log"

# The panel opens on its start button. Shift+Tab reaches the road box, Space opens it, Tab
# and Space pick "系统投屏" (focus returns to the box), Tab and Space press "开启投屏".
focus
in_ns xdotool key shift+Tab space Tab space Tab space
wait_for 30 has_event '"id":"id_permission_request".*"type":2' || fail "no second-road request" "$tmp/app.log"

browse() { timeout 5 avahi-browse -t -p -k "$1" 2>/dev/null | grep '^+;' || true; }
advertised() { browse _airplay._tcp | grep -q 'Korvane' && browse _raop._tcp | grep -q '025643000001\\064Korvane'; }
withdrawn() { [ -z "$(browse _airplay._tcp)" ] && [ -z "$(browse _raop._tcp)" ]; }
raop_sink() { pactl list short sinks | grep -q raop_output; }
no_raop_sink() { ! raop_sink; }
round() { # round LABEL: the receiver allows and sends its configuration; everything must appear
    echo grant >&3
    echo airplay-config >&3
    wait_for 30 advertised || fail "$1: services not advertised" "$tmp/app.log"
    wait_for 30 raop_sink || fail "$1: no RAOP output device" "$tmp/pulse.log"
    echo "$1: advertised; output device: $(pactl list short sinks | grep raop_output | cut -f2)"
}
gone() { # gone LABEL: services and output device withdrawn
    wait_for 30 withdrawn || fail "$1 did not withdraw the services" "$tmp/app.log"
    wait_for 30 no_raop_sink || fail "the output device stayed after $1"
    echo "$1: withdrawn, output device gone"
}

round "receiver ends"
echo stop >&3
gone "the receiver's stop"

# The panel still shows "停止投屏" (it does not follow the receiver's end of this road):
# Space sets it back, Space starts again.
focus
in_ns xdotool key space space
two_requests() { [ "$(count_event '"id":"id_permission_request"')" -ge 2 ]; }
wait_for 30 two_requests || fail "no second request"
round "panel ends"
before=$(count_event '"id":"id_permission_disconnect"')
focus
in_ns xdotool key space
gone "停止投屏"
[ "$(count_event '"id":"id_permission_disconnect"')" -gt "$before" ] || fail "no id_permission_disconnect sent"
grep -q 'regist airplay : Korvane无线投屏 (null)' "$tmp/app.log" || fail "no registration log line"
echo "1 passed, 0 failed"
