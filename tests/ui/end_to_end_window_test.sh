#!/usr/bin/env bash
# The real program under Xvfb in a network namespace against the reference receiver: the code
# typed with xdotool brings an admission request and heartbeats, casting brings video, and the
# receiver's close brings the window back to code entry.
# usage: end_to_end_window_test.sh VELOCAST_BIN RECEIVER_BIN (exit 77: skipped)
set -euo pipefail
app=$1 receiver=$2
source "$(dirname "${BASH_SOURCE[0]}")/../support/end_to_end.sh"
start_namespace
start_xvfb
start_receiver --permission-wait 300 --log-frames
start_app
focus
in_ns xdotool type --delay 80 "$code"
wait_for 30 has_event '"id":"id_connect_request"' || fail "no admission request" "$tmp/app.log"
request=$(grep '"id":"id_connect_request"' "$events")
grep -q '"ip":"10.77.1.2"' <<<"$request" || fail "wrong address in the request: $request"
grep -q '"safe_code":"3"' <<<"$request" || fail "wrong safe code: $request"
wait_for 30 has_event '"event":"heartbeat"' || fail "no heartbeat after admission"

# The panel's start button has the focus; the receiver asks us to wait, then allows.
focus
in_ns xdotool key space
wait_for 30 has_event '"id":"id_permission_request"' || fail "no permission request" "$tmp/app.log"
wait_for 40 has_event '"event":"video_frame"' || fail "no video reached the receiver" "$tmp/app.log"

echo close >&3
# A close that finds a heartbeat unread arrives as a reset, which the heartbeat notices (16 s at most).
wait_for 40 grep -qE 'disconnectWithNotice|brokenWithNotice' "$tmp/app.log" || fail "the close was not noticed" "$tmp/app.log"
sleep 0.5
focus
in_ns xdotool type --delay 80 "$code"
two_requests() { [ "$(count_event '"id":"id_connect_request"')" -ge 2 ]; }
wait_for 30 two_requests || fail "code entry did not come back" "$tmp/app.log"
echo "1 passed, 0 failed"
