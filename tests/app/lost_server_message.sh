#!/usr/bin/env bash
# Keep recording off (widmo's default, no level log): a sound server that goes
# away stops the recording with a message, and the message never takes the
# keyboard: once the server is back, the first Space (to wherever the keyboard
# is, as a user presses it) records again, and the first Ctrl+Q quits.
#   lost_server_message.sh <widmo executable>
set -u
exe=$1
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
server_script=${WIDMO_SOUND_SERVER_SCRIPT:?run under scripts/services.sh}
pid=
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    pactl info >/dev/null 2>&1 || bash "$server_script" start >/dev/null 2>&1
    rm -rf "$home"
}
trap cleanup EXIT
fail() { echo "lost_server_message: $*"; tail -20 "$home/log" 2>/dev/null; exit 1; }
capturing() {
    pactl list short source-outputs 2>/dev/null | awk '$3 != "-" { found = 1 } END { exit !found }'
}
wait_until() { # wait_until TENTHS COMMAND...
    local n=$1
    shift
    for _ in $(seq "$n"); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}
windows() { [ "$(xdotool search --onlyvisible --name '^Widmo$' 2>/dev/null | wc -l)" -ge "$1" ]; }

HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
    XDG_DATA_HOME="$home/.local/share" "$exe" >>"$home/log" 2>&1 &
pid=$!
wait_until 300 windows 1 || fail "no window"
sleep 1
xdotool windowfocus --sync "$(xdotool search --onlyvisible --name '^Widmo$' | head -1)"
xdotool key space
wait_until 100 capturing || fail "the program did not start recording"
bash "$server_script" stop || fail "the sound server did not stop"
wait_until 50 windows 2 || fail "no message beside the window"
bash "$server_script" start || fail "the sound server did not start again"
sleep 1
xdotool key space
wait_until 50 capturing || fail "the first Space after the message did not record again"
windows 2 || fail "the Space closed the message instead"
xdotool key ctrl+q
wait_until 100 bash -c "! kill -0 $pid" || fail "the first Ctrl+Q did not quit"
wait "$pid"
status=$?
pid=
[ "$status" -eq 0 ] || fail "exited with $status"
echo "lost_server_message: the message left the keyboard to the window"
