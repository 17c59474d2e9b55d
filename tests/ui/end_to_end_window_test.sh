#!/usr/bin/env bash
# The real program under Xvfb, in a network namespace of its own, against the reference
# receiver: the code is typed into the real window with xdotool; the receiver must see the
# admission request and heartbeats, and closing the receiver's end must bring the window
# back to code entry.
#
# usage: end_to_end_window_test.sh VELOCAST_BIN RECEIVER_BIN
# Exit 77 (skipped) when namespaces or Xvfb are not available here.
set -euo pipefail
app=$1 receiver=$2
for tool in ip Xvfb xdotool; do
    command -v "$tool" >/dev/null || { echo "skip: $tool is not installed"; exit 77; }
done
ns="vc-e2e-$$"
tmp=$(mktemp -d /tmp/velocast-e2e.XXXXXX)
pids=()
cleanup() {
    # Everything started here runs inside the namespace: end all of it.
    for p in $(ip netns pids "$ns" 2>/dev/null) "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    for _ in $(seq 1 30); do [ -z "$(ip netns pids "$ns" 2>/dev/null)" ] && break; sleep 0.1; done
    for p in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$p" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "$tmp"
}
trap cleanup EXIT
ip netns add "$ns" 2>/dev/null || { echo "skip: cannot create a network namespace (needs root)"; exit 77; }

# Two ends of a veth pair inside the namespace: 10.77.1.1 for the receiver, 10.77.1.2 for
# us, and a default route so that the program sees a network. Nothing leaves the namespace.
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

# Xvfb inside the namespace.
exec 9<> <(:)
ip netns exec "$ns" Xvfb -displayfd 9 -screen 0 1024x768x24 -nolisten tcp >"$tmp/xvfb.log" 2>&1 &
pids+=($!)
read -r -t 30 -u 9 display || { echo "FAIL: Xvfb did not start"; cat "$tmp/xvfb.log"; exit 1; }
exec 9<&-
# Every X client of this test runs inside the namespace too: a display number is only
# unique per namespace (the abstract X socket lives in it), so outside it ":N" may be
# somebody else's server.
export DISPLAY=":$display"

mkfifo "$tmp/commands"
ip netns exec "$ns" "$receiver" --bind 10.77.1.1 --headless --quiet --event-log "$events" --safe-code 3 \
    --permission-wait 300 --log-frames <"$tmp/commands" &
pids+=($!)
exec 3>"$tmp/commands"
wait_for 30 has_event '"listening"' || { echo "FAIL: the receiver did not start"; exit 1; }
code=$(grep '"listening"' "$events" | sed -E 's/.*"code":"([0-9]{6})".*/\1/')
echo "receiver shows code $code"

# A home, settings and temporary folder of its own: the program is single-instance per user
# through a socket in the temporary folder, and must not find another copy of itself.
mkdir -p "$tmp/config/Velocast" "$tmp/home" "$tmp/run" "$tmp/tmp"
chmod 700 "$tmp/run"
# The display-name prompt of the very first panel is covered by the window tests; here the
# panel opens straight onto its start button.
printf '[General]\nInitPCName=true\n' >"$tmp/config/Velocast/Velocast.ini"
ip netns exec "$ns" env HOME="$tmp/home" XDG_CONFIG_HOME="$tmp/config" XDG_RUNTIME_DIR="$tmp/run" TMPDIR="$tmp/tmp" \
    QT_QPA_PLATFORM=xcb "$app" >"$tmp/app.log" 2>&1 &
pids+=($!)

window=""
for _ in $(seq 1 300); do
    window=$(in_ns xdotool search --onlyvisible --name '^Velocast$' 2>/dev/null | head -n1 || true)
    [ -n "$window" ] && break
    sleep 0.1
done
[ -n "$window" ] || { echo "FAIL: no window"; cat "$tmp/app.log"; exit 1; }
# Wait until the program has seen the namespace's network (the code boxes need it).
wait_for 30 grep -q 'net : .* 10.77.1.2' "$tmp/app.log" || { echo "FAIL: no network report"; cat "$tmp/app.log"; exit 1; }
# A window just mapped may refuse the focus for a moment on a loaded machine.
wait_for 5 timeout 5 ip netns exec "$ns" xdotool windowfocus "$window" || true
in_ns xdotool type --delay 80 "$code"

wait_for 30 has_event '"id":"id_connect_request"' || { echo "FAIL: no admission request"; cat "$tmp/app.log"; exit 1; }
grep '"id":"id_connect_request"' "$events" | grep -q '"ip":"10.77.1.2"' || { echo "FAIL: wrong address in the request"; grep id_connect_request "$events"; exit 1; }
grep '"id":"id_connect_request"' "$events" | grep -q '"safe_code":"3"' || { echo "FAIL: wrong safe code"; exit 1; }
wait_for 30 has_event '"event":"heartbeat"' || { echo "FAIL: no heartbeat after admission"; exit 1; }
echo "admitted, heartbeats flowing"

# The panel has the focus on its start button: start casting. The receiver asks us to wait,
# then allows, and the screen of this display starts to arrive at its media port.
sleep 0.3
timeout 5 ip netns exec "$ns" xdotool windowfocus "$window" || true
in_ns xdotool key space
wait_for 30 has_event '"id":"id_permission_request"' || { echo "FAIL: no permission request"; cat "$tmp/app.log"; exit 1; }
wait_for 40 has_event '"event":"video_frame"' || { echo "FAIL: no video reached the receiver"; cat "$tmp/app.log"; exit 1; }
echo "casting: permission asked, video arriving"

echo close >&3
# A close that finds a heartbeat unread reaches us as a reset, which the heartbeat notices
# (16 s at most); a clean close is seen at once.
wait_for 40 grep -qE 'disconnectWithNotice|brokenWithNotice' "$tmp/app.log" || { echo "FAIL: the close was not noticed"; cat "$tmp/app.log"; exit 1; }
# Back at code entry: a new code typed into the boxes connects again.
sleep 0.5
# A window just mapped may refuse the focus for a moment on a loaded machine.
wait_for 5 timeout 5 ip netns exec "$ns" xdotool windowfocus "$window" || true
in_ns xdotool type --delay 80 "$code"
two_requests() { [ "$(grep -c '"id":"id_connect_request"' "$events")" -ge 2 ]; }
wait_for 30 two_requests || { echo "FAIL: code entry did not come back"; cat "$tmp/app.log"; exit 1; }
echo "back at code entry after the receiver closed"
echo "1 passed, 0 failed"
