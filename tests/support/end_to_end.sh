# Sourced by the end-to-end scripts with $app and $receiver set: a network namespace with a
# veth pair (receiver 10.77.1.1, program 10.77.1.2, a default route so the program sees a
# network; nothing leaves it), Xvfb, the receiver steered through fd 3 and the real program,
# all inside the namespace and ended with the script.
ns="vc-e2e-$$"
tmp=$(mktemp -d /tmp/velocast-e2e.XXXXXX)
chmod 755 "$tmp"
pids=()
events="$tmp/events.jsonl"
cleanup_extra() { :; }
cleanup() {
    for p in $(ip netns pids "$ns" 2>/dev/null) "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait_for 3 test -z "$(ip netns pids "$ns" 2>/dev/null)" || true
    for p in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$p" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
    cleanup_extra
    rm -rf "$tmp"
}
trap cleanup EXIT

in_ns() { ip netns exec "$ns" "$@"; }
fail() { echo "FAIL: $1"; [ -z "${2:-}" ] || cat "$2"; exit 1; }
wait_for() { # wait_for SECONDS COMMAND...
    local limit=$(( $1 * 10 )); shift
    for _ in $(seq 1 "$limit"); do "$@" >/dev/null 2>&1 && return 0; sleep 0.1; done
    return 1
}
has_event() { grep -q "$1" "$events"; }
count_event() { grep -c "$1" "$events" || true; }

# start_namespace EXTRA_TOOLS...: exit 77 (skipped) without the tools or namespaces.
start_namespace() {
    for tool in ip Xvfb xdotool "$@"; do
        command -v "$tool" >/dev/null || { echo "skip: $tool is not installed"; exit 77; }
    done
    ip netns add "$ns" 2>/dev/null || { echo "skip: cannot create a network namespace (needs root)"; exit 77; }
    in_ns ip link set lo up
    in_ns ip link add vc-rx type veth peer name vc-tx
    in_ns ip addr add 10.77.1.1/24 dev vc-rx
    in_ns ip addr add 10.77.1.2/24 dev vc-tx
    in_ns ip link set vc-rx up
    in_ns ip link set vc-tx up
    in_ns ip route add default via 10.77.1.254 dev vc-tx src 10.77.1.2
}

# Every X client runs in the namespace too: the abstract X socket lives in it.
start_xvfb() {
    exec 9<> <(:)
    in_ns Xvfb -displayfd 9 -screen 0 1024x768x24 -nolisten tcp >"$tmp/xvfb.log" 2>&1 &
    pids+=($!)
    read -r -t 30 -u 9 display || fail "Xvfb did not start" "$tmp/xvfb.log"
    exec 9<&-
    export DISPLAY=":$display"
}

# start_receiver ARGS...: commands go to fd 3; sets $code.
start_receiver() {
    mkfifo "$tmp/commands"
    in_ns "$receiver" --bind 10.77.1.1 --headless --quiet --event-log "$events" --safe-code 3 "$@" <"$tmp/commands" &
    pids+=($!)
    exec 3>"$tmp/commands"
    wait_for 30 has_event '"listening"' || fail "the receiver did not start"
    code=$(grep '"listening"' "$events" | sed -E 's/.*"code":"([0-9]{6})".*/\1/')
}

# The program with a home, settings and temporary folder of its own (single instance per
# user), past the display-name prompt; sets $window once it has seen the namespace's network.
start_app() {
    mkdir -p "$tmp/config/Velocast" "$tmp/home" "$tmp/run" "$tmp/tmp"
    chmod 700 "$tmp/run"
    printf '[General]\nInitPCName=true\n' >"$tmp/config/Velocast/Velocast.ini"
    in_ns env HOME="$tmp/home" XDG_CONFIG_HOME="$tmp/config" XDG_RUNTIME_DIR="$tmp/run" TMPDIR="$tmp/tmp" \
        QT_QPA_PLATFORM=xcb "$app" >"$tmp/app.log" 2>&1 &
    pids+=($!)
    find_window() { window=$(in_ns xdotool search --onlyvisible --name '^Velocast$' 2>/dev/null | head -n1); [ -n "$window" ]; }
    wait_for 30 find_window || fail "no window" "$tmp/app.log"
    wait_for 30 grep -q 'net : .* 10.77.1.2' "$tmp/app.log" || fail "no network report" "$tmp/app.log"
}

# A window just mapped may refuse the focus for a moment on a loaded machine.
focus() {
    in_ns xdotool windowmap "$window" 2>/dev/null || true
    wait_for 5 timeout 5 ip netns exec "$ns" xdotool windowfocus "$window" || true
    sleep 0.3
}
