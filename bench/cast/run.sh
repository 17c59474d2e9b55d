#!/usr/bin/env bash
# Runs the cast benchmark on a 1920x1080 Xvfb screen with its own PulseAudio (a null source
# as the default input), both started here and stopped at the end. Arguments go to the
# program: [--seconds N] [--turns N] [--content moving|still|both].
#   bash bench/cast/run.sh --seconds 10 --turns 3
set -euo pipefail
cd "$(dirname "$0")/../.."
BIN=${CAST_BENCH:-build/bench/cast/cast_bench}
[ -x "$BIN" ] || { echo "build it first: cmake --build --preset default --target cast_bench" >&2; exit 2; }
RT=$(mktemp -d /tmp/vccast.XXXX)
pids=()
cleanup() { for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done; wait 2>/dev/null || true; rm -rf "$RT"; }
trap cleanup EXIT
mkdir -p "$RT/home" "$RT/xdg"
chmod 700 "$RT/xdg"
cat >"$RT/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$RT/pulse-native
load-module module-null-sink sink_name=bench_out
load-module module-null-source source_name=bench_in
set-default-source bench_in
PA
HOME="$RT/home" XDG_RUNTIME_DIR="$RT/xdg" pulseaudio -n -F "$RT/pulse.pa" --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no --realtime=no --high-priority=no --log-target=stderr --log-level=error 2>"$RT/pulse.log" &
pids+=($!)
exec 9<> <(:)
Xvfb -displayfd 9 -screen 0 1920x1080x24 -nolisten tcp 2>"$RT/xvfb.log" &
pids+=($!)
read -t 20 -u 9 display
exec 9<&-
export DISPLAY=":$display" PULSE_SERVER="unix:$RT/pulse-native" XDG_RUNTIME_DIR="$RT/xdg"
for _ in $(seq 50); do pactl info >/dev/null 2>&1 && break; sleep 0.2; done
"$BIN" "$@"
