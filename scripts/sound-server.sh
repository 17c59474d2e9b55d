#!/usr/bin/env bash
# A private sound server for tests, with the devices the audio tests expect:
#   sinks vc_speakers ("Speakers"), vc_headset ("Headset"), vc_room ("Room", stands in for
#   what a microphone hears), and the null source vc_mic ("Microphone").
# usage: sound-server.sh start pulse|pipewire DIR   (then: source DIR/env)
#        sound-server.sh stop DIR
# PipeWire runs with WirePlumber and pipewire-pulse on a private session bus, with a private
# runtime directory and home (WirePlumber keeps its default choices there).
set -euo pipefail
cmd=$1
if [ "$cmd" = stop ]; then
  RT=$(realpath -m "$2")
  for p in "$RT"/*.pid; do [ -f "$p" ] && kill "$(cat "$p")" 2>/dev/null || true; done
  exit 0
fi
kind=$2; RT=$(realpath -m "$3")
mkdir -p "$RT/run" "$RT/home" "$RT/config" "$RT/state" "$RT/data"; chmod 700 "$RT/run"
wait_for() { for _ in $(seq 1 100); do if eval "$1" >/dev/null 2>&1; then return 0; fi; sleep 0.1; done; echo "timeout: $1" >&2; return 1; }
export HOME="$RT/home" XDG_RUNTIME_DIR="$RT/run" XDG_CONFIG_HOME="$RT/config" XDG_STATE_HOME="$RT/state" XDG_DATA_HOME="$RT/data"
export PULSE_SERVER="unix:$RT/run/pulse-native"
case "$kind" in
pulse)
  cat >"$RT/pulse.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$RT/run/pulse-native
load-module module-null-sink sink_name=vc_speakers sink_properties=device.description=Speakers
load-module module-null-sink sink_name=vc_headset sink_properties=device.description=Headset
load-module module-null-sink sink_name=vc_room sink_properties=device.description=Room
load-module module-null-source source_name=vc_mic description=Microphone
PA
  pulseaudio -n -F "$RT/pulse.pa" --daemonize=no --exit-idle-time=-1 --use-pid-file=no --realtime=no \
    --high-priority=no --log-target=stderr --log-level=error >"$RT/pulse.log" 2>&1 & echo $! >"$RT/pulse.pid"
  wait_for "pactl info"
  ;;
pipewire)
  dbus-daemon --session --address="unix:path=$RT/run/bus" --nofork --nopidfile >"$RT/dbus.log" 2>&1 & echo $! >"$RT/dbus.pid"
  export DBUS_SESSION_BUS_ADDRESS="unix:path=$RT/run/bus"
  wait_for "test -S $RT/run/bus"
  pipewire >"$RT/pipewire.log" 2>&1 & echo $! >"$RT/pipewire.pid"
  wait_for "test -S $RT/run/pipewire-0"
  wireplumber >"$RT/wireplumber.log" 2>&1 & echo $! >"$RT/wireplumber.pid"
  pipewire-pulse >"$RT/pipewire-pulse.log" 2>&1 & echo $! >"$RT/pipewire-pulse.pid"
  export PULSE_SERVER="unix:$RT/run/pulse/native"
  wait_for "pactl info"
  for s in speakers:Speakers headset:Headset room:Room; do
    pactl load-module module-null-sink sink_name=vc_${s%%:*} sink_properties=device.description=${s#*:} >/dev/null
  done
  pactl load-module module-null-sink sink_name=vc_mic media.class=Audio/Source/Virtual \
    sink_properties=device.description=Microphone >/dev/null
  wait_for "pactl list short sinks | grep -q vc_room"
  ;;
*) echo "unknown sound server: $kind" >&2; exit 2 ;;
esac
# A known starting point: the speakers play, the room is what the default input hears.
wait_for "pactl set-default-sink vc_speakers"
wait_for "pactl set-default-source vc_room.monitor"
cat >"$RT/env" <<ENV
export PULSE_SERVER='$PULSE_SERVER'
ENV
