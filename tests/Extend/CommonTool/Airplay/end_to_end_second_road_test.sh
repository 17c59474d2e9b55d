#!/usr/bin/env bash
# The second road end to end: the real program under Xvfb in a network namespace, the
# reference receiver, a private avahi-daemon and a PulseAudio with module-raop-discover.
# The road is picked and started with the keyboard in the real window; after the receiver's
# id_airplay_config both services must be on this machine and the sound server must offer
# an output device for the receiver; the receiver's "stop" (id_permission_disconnect type 2)
# and the panel's "停止投屏" must each withdraw them.
#
# usage: end_to_end_second_road_test.sh VELOCAST_BIN RECEIVER_BIN
# Exit 77 (skipped) when namespaces, Xvfb, avahi-daemon or the RAOP module are not available.
set -euo pipefail
app=$1 receiver=$2
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
for tool in ip Xvfb xdotool avahi-browse pulseaudio pactl; do
    command -v "$tool" >/dev/null || { echo "skip: $tool is not installed"; exit 77; }
done
ls /usr/lib/pulse-*/modules/module-raop-discover.so >/dev/null 2>&1 || { echo "skip: pulseaudio-module-raop is not installed"; exit 77; }
ns="vc-road-$$"
tmp=$(mktemp -d /tmp/velocast-road.XXXXXX)
chmod 755 "$tmp"
pids=()
cleanup() {
    for p in $(ip netns pids "$ns" 2>/dev/null) "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    for _ in $(seq 1 30); do [ -z "$(ip netns pids "$ns" 2>/dev/null)" ] && break; sleep 0.1; done
    for p in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$p" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
    bash "$here/avahi_hosts.sh" stop "$tmp/mdns" || true
    rm -rf "$tmp"
}
trap cleanup EXIT
ip netns add "$ns" 2>/dev/null || { echo "skip: cannot create a network namespace (needs root)"; exit 77; }
rc=0; bash "$here/avahi_hosts.sh" start "$tmp/mdns" 1 || rc=$?
[ $rc -eq 0 ] || { [ $rc -eq 77 ] && { echo "skip: no private avahi-daemon"; exit 77; }; echo "FAIL: avahi-daemon"; exit 1; }
export DBUS_SYSTEM_BUS_ADDRESS
DBUS_SYSTEM_BUS_ADDRESS=$(cat "$tmp/mdns/host1.bus")

in_ns() { ip netns exec "$ns" "$@"; }
in_ns ip link set lo up
in_ns ip link add vc-rx type veth peer name vc-tx
in_ns ip addr add 10.77.1.1/24 dev vc-rx
in_ns ip addr add 10.77.1.2/24 dev vc-tx
in_ns ip link set vc-rx up
in_ns ip link set vc-tx up
in_ns ip route add default via 10.77.1.254 dev vc-tx src 10.77.1.2

wait_for() { # wait_for SECONDS COMMAND...
    local limit=$(( $1 * 10 )); shift
    for _ in $(seq 1 "$limit"); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    return 1
}
events="$tmp/events.jsonl"
has_event() { grep -q "$1" "$events"; }
count_event() { grep -c "$1" "$events" || true; }

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
wait_for 20 pactl info || { echo "FAIL: PulseAudio did not start"; cat "$tmp/pulse.log"; exit 1; }

exec 9<> <(:)
in_ns Xvfb -displayfd 9 -screen 0 1024x768x24 -nolisten tcp >"$tmp/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 30 -u 9 display || { echo "FAIL: Xvfb did not start"; exit 1; }
exec 9<&-
export DISPLAY=":$display"

mkfifo "$tmp/commands"
in_ns "$receiver" --bind 10.77.1.1 --headless --quiet --event-log "$events" --safe-code 3 --permission manual \
    <"$tmp/commands" &
pids+=($!)
exec 3>"$tmp/commands"
wait_for 30 has_event '"listening"' || { echo "FAIL: the receiver did not start"; exit 1; }
code=$(grep '"listening"' "$events" | sed -E 's/.*"code":"([0-9]{6})".*/\1/')

mkdir -p "$tmp/config/Velocast" "$tmp/home" "$tmp/run" "$tmp/tmp"; chmod 700 "$tmp/run"
printf '[General]\nInitPCName=true\n' >"$tmp/config/Velocast/Velocast.ini"
in_ns env HOME="$tmp/home" XDG_CONFIG_HOME="$tmp/config" XDG_RUNTIME_DIR="$tmp/run" TMPDIR="$tmp/tmp" \
    QT_QPA_PLATFORM=xcb "$app" >"$tmp/app.log" 2>&1 &
pids+=($!)
window=""
for _ in $(seq 1 300); do
    window=$(in_ns xdotool search --name '^Velocast$' 2>/dev/null | head -n1 || true)
    [ -n "$window" ] && break
    sleep 0.1
done
[ -n "$window" ] || { echo "FAIL: no window"; cat "$tmp/app.log"; exit 1; }
wait_for 30 grep -q 'net : .* 10.77.1.2' "$tmp/app.log" || { echo "FAIL: no network report"; cat "$tmp/app.log"; exit 1; }
focus() { in_ns xdotool windowmap "$window" 2>/dev/null || true; timeout 5 ip netns exec "$ns" xdotool windowfocus "$window" || true; sleep 0.3; }
focus
in_ns xdotool type --delay 80 "$code"
wait_for 30 has_event '"event":"heartbeat"' || { echo "FAIL: not admitted"; cat "$tmp/app.log"; exit 1; }

# The panel opens on its start button. Shift+Tab reaches the road box, Space opens it, Tab
# and Space pick "系统投屏" (focus returns to the box), Tab and Space press "开启投屏".
sleep 0.3
focus
in_ns xdotool key shift+Tab space Tab space Tab space
wait_for 30 has_event '"id":"id_permission_request".*"type":2' || { echo "FAIL: no second-road request"; cat "$tmp/app.log"; exit 1; }

browse() { timeout 5 avahi-browse -t -p -k "$1" 2>/dev/null | grep '^+;' || true; }
advertised() { browse _airplay._tcp | grep -q 'Korvane' && browse _raop._tcp | grep -q '025643000001\\064Korvane'; }
withdrawn() { [ -z "$(browse _airplay._tcp)" ] && [ -z "$(browse _raop._tcp)" ]; }
raop_sink() { pactl list short sinks | grep -q raop_output; }
no_raop_sink() { ! pactl list short sinks | grep -q raop_output; }
round() { # round LABEL: the receiver allows and sends its configuration; everything must appear
    echo grant >&3
    echo airplay-config >&3
    wait_for 30 advertised || { echo "FAIL($1): services not advertised"; cat "$tmp/app.log"; exit 1; }
    timeout 5 avahi-browse -t -r -p -k _raop._tcp | grep '^=' | grep -q ';10.77.1.1;7000;' \
        || { echo "FAIL($1): the RAOP service does not resolve to the receiver"; exit 1; }
    wait_for 30 raop_sink || { echo "FAIL($1): no RAOP output device"; pactl list short sinks; tail -20 "$tmp/pulse.log"; exit 1; }
    echo "$1: advertised; output device: $(pactl list short sinks | grep raop_output | cut -f2)"
}

round "receiver ends"
echo stop >&3
wait_for 30 withdrawn || { echo "FAIL: the receiver's stop did not withdraw the services"; exit 1; }
wait_for 30 no_raop_sink || { echo "FAIL: the output device stayed after the receiver's stop"; exit 1; }
echo "receiver ends: withdrawn, output device gone"

# The panel still shows "停止投屏" (it does not follow the receiver's end of this road):
# Space sets it back, Space starts again.
focus
in_ns xdotool key space space
wait_for 30 bash -c "[ \$(grep -c '\"id\":\"id_permission_request\"' '$events') -ge 2 ]" || { echo "FAIL: no second request"; exit 1; }
round "panel ends"
before=$(count_event '"id":"id_permission_disconnect"')
focus
in_ns xdotool key space
wait_for 30 withdrawn || { echo "FAIL: 停止投屏 did not withdraw the services"; cat "$tmp/app.log"; exit 1; }
wait_for 30 no_raop_sink || { echo "FAIL: the output device stayed after 停止投屏"; exit 1; }
[ "$(count_event '"id":"id_permission_disconnect"')" -gt "$before" ] || { echo "FAIL: no id_permission_disconnect sent"; exit 1; }
grep -q 'regist airplay : Korvane无线投屏 (null)' "$tmp/app.log" || { echo "FAIL: no registration log line"; exit 1; }
echo "panel ends: withdrawn, output device gone, receiver told"
echo "1 passed, 0 failed"
