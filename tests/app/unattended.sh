#!/usr/bin/env bash
# Unattended recording through the real program and the test sound server:
# widmo-studio records a 1 kHz tone from the virtual microphone with its level
# log on; the sound server is stopped for 5 s and started again.
#  - capture resumes within 2 s of the server's return, without a key;
#  - the document (the last-session file and keys, written when the
#    recording is stopped) holds the tone before and after a gap of silence
#    marked as long as capture was away (within 0.2 s), and its length is the
#    wall-clock time of the recording;
#  - the level log has the "capture stopped" and "capture resumed" lines;
#  - while the program waits for the server, the first Space stops the
#    recording (capture does not come back), and the first Ctrl+Q quits.
#   unattended.sh <widmo-studio executable>
set -u
exe=$1
here=$(cd "$(dirname "$0")" && pwd)
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
server_script=${WIDMO_SOUND_SERVER_SCRIPT:?run under scripts/services.sh}
pid=
player=
cleanup() {
    [ -n "$player" ] && kill "$player" 2>/dev/null
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    # The services outlive the test with their server running.
    pactl info >/dev/null 2>&1 || bash "$server_script" start >/dev/null 2>&1
    rm -rf "$home"
}
trap cleanup EXIT
fail() { echo "unattended: $*"; tail -40 "$home/log" 2>/dev/null; exit 1; }
now() { date +%s.%N; }
elapsed() { awk "BEGIN { printf \"%.3f\", $2 - $1 }"; }

data="$home/.local/share/Widmo/widmo-studio/analyzer.last.dat"
state="$home/.config/Widmo/widmo-studio-state.conf"
levels="$home/levels.csv"
# The level log on, as the sound level page leaves it.
mkdir -p "$home/.config/Widmo"
cat >"$home/.config/Widmo/widmo-studio.conf" <<CONF
[General]
soundLevels.logEnabled=true
soundLevels.logPath=$levels
soundLevels.logPeriod=1
CONF

python3 "$here/unattended_check.py" make "$home/tone.wav" || fail "no test signal"

window=
start_program() {
    HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
        XDG_DATA_HOME="$home/.local/share" "$exe" >>"$home/log" 2>&1 &
    pid=$!
    for _ in $(seq 300); do
        window=$(xdotool search --onlyvisible --name '^Widmo Studio$' 2>/dev/null | head -1)
        [ -n "$window" ] && return 0
        kill -0 "$pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}
# The program's capture stream is on the server (the virtual microphone's own
# stream has no client, "-").
capturing() {
    pactl list short source-outputs 2>/dev/null | awk '$3 != "-" { found = 1 } END { exit !found }'
}
wait_capturing() { # wait_capturing SECONDS
    local end
    end=$(awk "BEGIN { print $(date +%s) + $1 }")
    while [ "$(date +%s)" -lt "$end" ]; do
        capturing && return 0
        sleep 0.05
    done
    return 1
}
# Keys go to the main window, where a user's keyboard is (no message shows in
# this mode that could take it; lost_server_message.sh tests that one).
key() { xdotool windowfocus --sync "$window" key "$1"; }
play() {
    # A low latency keeps the null sink rendering in small steps: its monitor
    # then delivers in real time.
    paplay --latency-msec=10 -d "${WIDMO_TEST_SINK:-widmo_sink}" "$home/tone.wav" >/dev/null 2>&1 &
    player=$!
}
stop_player() { [ -n "$player" ] && kill "$player" 2>/dev/null; wait "$player" 2>/dev/null; player=; }

# The tone plays before the recording starts: an idle null sink hands its
# monitor's first data to a new stream only after about 1.5 s.
play
start_program || fail "no window"
sleep 2
key space
wait_capturing 10 || fail "the program did not start recording"
recording_began=$(now)
sleep 3

# 1. The server away for 5 s.
stopped=$(now)
bash "$server_script" stop || fail "the sound server did not stop"
stop_player
sleep 5
bash "$server_script" start || fail "the sound server did not start again"
back=$(now)
# A fresh server hands out its first capture data some time after it
# answers (about 1.7 s for the test server): an independent client's first
# data says when capture could resume, and so how long it was away.
first_data() { # first_data FILE: the time of the server's first capture data, into FILE
    parec -d "${WIDMO_TEST_SOURCE:-widmo_mic}" --format=float32le --channels=2 \
        --latency-msec=10 2>/dev/null | head -c 64 >/dev/null
    now >"$1"
}
first_data "$home/first_data" &
play
wait_capturing 10 || fail "capture did not resume within 10 s of the server's return"
resumed=$(now)
delay=$(elapsed "$back" "$resumed")
echo "unattended: capture resumed $delay s after the server's return"
awk "BEGIN { exit !($delay <= 2.0) }" || fail "capture resumed after $delay s (2 s allowed)"
kill -0 "$pid" 2>/dev/null || fail "the program ended"
for _ in $(seq 50); do [ -s "$home/first_data" ] && break; sleep 0.1; done
[ -s "$home/first_data" ] || fail "the server handed out no capture data"
away=$(elapsed "$stopped" "$(cat "$home/first_data")")
echo "unattended: the server's first capture data came $(elapsed "$back" "$(cat "$home/first_data")") s after its return"
sleep 3

# 2. Space stops the recording; the stop saves the document.
key space
stopped_recording=$(now)
sleep 2
capturing && fail "Space did not stop the recording: $(pactl list short source-outputs; pactl list short clients)"
[ -f "$data" ] || fail "no last-session file after the stop"
cp "$data" "$home/kept.dat"
cp "$state" "$home/kept.conf"
python3 "$here/unattended_check.py" check "$home/kept.dat" "$home/kept.conf" "$levels" \
    "$away" "$(elapsed "$recording_began" "$stopped_recording")" || fail "the document is wrong"

# 3. While the program waits for the server, the first Space stops the recording.
key space
wait_capturing 10 || fail "Space did not start recording again"
bash "$server_script" stop || fail "the sound server did not stop"
sleep 1.5
key space
sleep 0.5
bash "$server_script" start || fail "the sound server did not start again"
wait_capturing 4 && fail "capture came back: the first Space while waiting did not stop it"

# 4. While the program waits, the first Ctrl+Q quits.
key space
wait_capturing 10 || fail "Space did not start recording again"
bash "$server_script" stop || fail "the sound server did not stop"
sleep 1.5
key ctrl+q
for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
kill -0 "$pid" 2>/dev/null && fail "the first Ctrl+Q while waiting did not quit"
wait "$pid"
status=$?
pid=
[ "$status" -eq 0 ] || fail "exited with $status"
bash "$server_script" start || fail "the sound server did not start again"
# The losses of the server are logged as the platform's errors; nothing else may be.
if grep -i -E 'error|fatal|critical|assert|segmentation' "$home/log" |
    grep -v -i -E 'XGetInputFocus|^error [0-9]+ from pa_'; then
    fail "logged an error"
fi
echo "unattended: resumed by itself, gap marked, keys acted at the first press"
