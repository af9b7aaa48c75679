#!/usr/bin/env bash
# A recording survives the program being killed: widmo-studio records a chirp
# from the virtual microphone and is killed with SIGKILL; the last-session file
# must hold what was played except at most the last 10 s, and the next start
# must offer the recovery, whose "Yes" keeps the document (the program then
# quits normally and saves the recovered document again).
#   recovery.sh <widmo-studio executable>
set -u
exe=$1
here=$(cd "$(dirname "$0")" && pwd)
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
pid=
player=
cleanup() {
    [ -n "$player" ] && kill "$player" 2>/dev/null
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    rm -rf "$home"
}
trap cleanup EXIT
fail() { echo "recovery: $*"; cat "$home/log" 2>/dev/null; exit 1; }

data="$home/.local/share/Widmo/widmo-studio/analyzer.last.dat"
state="$home/.config/Widmo/widmo-studio-state.conf"
start() {
    HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
        XDG_DATA_HOME="$home/.local/share" "$exe" >>"$home/log" 2>&1 &
    pid=$!
}
# Waits until `count` top-level windows are called "Widmo Studio" (the main
# window, then a message box beside it).
wait_windows() {
    for _ in $(seq 300); do
        [ "$(xdotool search --onlyvisible --name '^Widmo Studio$' 2>/dev/null | wc -l)" -ge "$1" ] &&
            return 0
        kill -0 "$pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}
press() { # key to the newest "Widmo Studio" window
    local w
    w=$(xdotool search --onlyvisible --name '^Widmo Studio$' | tail -1)
    xdotool windowfocus --sync "$w" key "$1"
}

python3 "$here/recovered_audio.py" make "$home/chirp.wav" || fail "no test signal"

# 1. Record the chirp, kill the program while it plays.
start
wait_windows 1 || fail "no window"
sleep 1
press space
recording=no
for _ in $(seq 100); do
    # A client's recording stream: the virtual microphone's own stream has no
    # client ("-"), and the driver column reads protocol-native.c under
    # PulseAudio but PipeWire under pipewire-pulse.
    if pactl list short source-outputs | awk '$3 != "-" { found = 1 } END { exit !found }'; then
        recording=yes; break
    fi
    sleep 0.1
done
[ "$recording" = yes ] || fail "the program did not start recording"
paplay -d "${WIDMO_TEST_SINK:-widmo_sink}" "$home/chirp.wav" &
player=$!
began=$(date +%s.%N)
sleep 13
kill -KILL "$pid"
killed=$(date +%s.%N)
wait "$pid" 2>/dev/null
pid=
kill "$player" 2>/dev/null
wait "$player" 2>/dev/null
player=
[ -f "$data" ] || fail "no last-session file after the kill"
cp "$data" "$home/kept.dat"
cp "$state" "$home/kept.conf"
python3 "$here/recovered_audio.py" check "$home/kept.dat" "$home/kept.conf" \
    "$(awk "BEGIN { print $killed - $began }")" || fail "the recording was not kept"

# 2. The next start offers the recovery; "Yes" (the default button) keeps it.
start
wait_windows 2 || fail "no recovery offered at the next start"
[ -f "$data" ] && fail "the last-session file was not consumed by the start"
press Return
sleep 2
kill -TERM "$pid"
wait "$pid"
status=$?
pid=
[ "$status" -eq 0 ] || fail "exited with $status"
kept=$(grep '^analyzerDefaults.actualInterval=' "$home/kept.conf")
grep -q "^$kept\$" "$state" || fail "the recovered document was not kept ($kept expected)"
cmp -s "$data" "$home/kept.dat" || fail "the recovered samples differ from the file's"
if grep -i -E 'error|fatal|critical|assert|segmentation' "$home/log" | grep -v -i 'XGetInputFocus'; then
    fail "logged an error"
fi
echo "recovery: the killed recording was kept, offered and recovered"
