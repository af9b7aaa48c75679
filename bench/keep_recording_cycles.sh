#!/usr/bin/env bash
# widmo-studio records from the virtual microphone while its module is
# unloaded and loaded again CYCLES times (100 by default), under the test
# services. For each cycle: whether capture resumed (the program's capture
# stream is back on the microphone) and how long after the load; every tenth
# cycle the program's resident memory and open file descriptors. The
# baseline is the same program at cycle 0, after the same warm-up.
#   source scripts/services.sh && services_start
#   bench/keep_recording_cycles.sh build/app/widmo-studio [CYCLES]
#   services_stop
set -u
exe=${1:?usage: $0 path/to/widmo-studio [cycles]}
cycles=${2:-100}
home=$(mktemp -d)
pid=
player=
cleanup() {
    [ -n "$player" ] && kill "$player" 2>/dev/null
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    [ -n "${KEEP_LOG:-}" ] && cp "$home/log" "$KEEP_LOG"
    rm -rf "$home"
}
trap cleanup EXIT
sink=${WIDMO_TEST_SINK:-widmo_sink}
mic=${WIDMO_TEST_SOURCE:-widmo_mic}
now() { date +%s%N; }
module() { pactl list short modules | awk -v m="source_name=$mic" 'index($0, m) { print $1 }'; }
load() {
    pactl load-module module-remap-source master="$sink.monitor" source_name="$mic" \
        source_properties=device.description=WidmoTestMic >/dev/null
    pactl set-default-source "$mic"
}
# The program's capture stream on the microphone (its own stream has no client).
capturing() { pactl list short source-outputs | awk '$3 != "-" { found = 1 } END { exit !found }'; }
rss_kb() { awk '/^VmRSS/ { print $2 }' "/proc/$pid/status"; }
fds() { ls "/proc/$pid/fd" | wc -l; }

# A tone keeps the sink rendering, so the microphone delivers at once.
sox -n -r 48000 -c 1 -b 16 "$home/tone.wav" synth 600 sine 1000 vol 0.5
paplay -d "$sink" "$home/tone.wav" &
player=$!
HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
    XDG_DATA_HOME="$home/.local/share" "$exe" >"$home/log" 2>&1 &
pid=$!
for _ in $(seq 300); do
    w=$(xdotool search --onlyvisible --name '^Widmo Studio$' 2>/dev/null | head -1)
    [ -n "$w" ] && break
    sleep 0.1
done
sleep 1
xdotool windowfocus --sync "$w" key space
for _ in $(seq 100); do capturing && break; sleep 0.1; done
capturing || { echo "the program did not start recording"; exit 1; }
sleep 5
echo "cycle rss_kB fds resume_ms"
echo "0 $(rss_kb) $(fds) -"
resumed=0
total_ms=0
max_ms=0
for cycle in $(seq "$cycles"); do
    pactl unload-module "$(module)"
    for _ in $(seq 100); do capturing || break; sleep 0.02; done
    sleep 0.3
    load
    loaded=$(now)
    ok=no
    for _ in $(seq 500); do
        if capturing; then ok=yes; break; fi
        sleep 0.01
    done
    ms=$(( ($(now) - loaded) / 1000000 ))
    kill -0 "$pid" 2>/dev/null || { echo "the program ended at cycle $cycle"; tail "$home/log"; exit 1; }
    if [ "$ok" = yes ]; then
        resumed=$((resumed + 1))
        total_ms=$((total_ms + ms))
        [ "$ms" -gt "$max_ms" ] && max_ms=$ms
    fi
    sleep 0.5
    if [ $((cycle % 10)) -eq 0 ]; then echo "$cycle $(rss_kb) $(fds) $ms"; fi
done
echo "resumed $resumed of $cycles cycles; resume after the load: mean $((total_ms / (resumed > 0 ? resumed : 1))) ms, max $max_ms ms"
echo "gaps marked (the program's log): $(grep -c 'Capture resumed' "$home/log")"
kill -TERM "$pid"
wait "$pid"
echo "exit status $?"
pid=
