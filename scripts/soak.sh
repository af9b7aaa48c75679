#!/usr/bin/env bash
# A long run of widmo-studio at its heaviest settings under the test services:
# 384 kHz from the 384 kHz null sink's monitor, the shortest interval (256 frames), FFT
# 65,536, 4,096 rows, the spectrogram filling a 1280x1024 window, real-time
# transposition on, a 40 kHz tone with a 1 s rise every 10 s playing in.
# Every minute it writes a row to a CSV: the process's RSS, threads, open
# file descriptors, the "too slow" messages seen (each is dismissed and the
# recording started again) and the capture blocks the program reported as
# dropped, and at the end plots the columns into a PNG.
#   scripts/soak.sh [MINUTES (60)] [OUTPUT FOLDER (soak-<date>)]
# Not part of the test suite: it takes its time by design.
set -eu
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
minutes=${1:-60}
out=${2:-$root/soak-$(date +%Y%m%d-%H%M)}
exe="$root/build/app/widmo-studio"
[ -x "$exe" ] || { echo "soak: build widmo-studio first (cmake --build build)"; exit 1; }
mkdir -p "$out"
out=$(cd "$out" && pwd)
# A copy runs, so that the build may go on meanwhile.
cp "$exe" "$out/widmo-studio"
exe="$out/widmo-studio"
home=$(mktemp -d)
# shellcheck source=services.sh
source "$root/scripts/services.sh"
pid=
player=
finish() {
    [ -n "$player" ] && kill "$player" 2>/dev/null
    [ -n "$pid" ] && kill -TERM "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
    services_stop
    rm -rf "$home"
}
trap finish EXIT
services_start

# The settings a user would choose on the settings pages, and the spectrogram
# alone on the screen.
mkdir -p "$home/.config/Widmo"
cat >"$home/.config/Widmo/widmo-studio.conf" <<CONF
[General]
VersionKey=kzr4410pwmq2093xa
analyzerDefaults.sampleRate=384000
analyzerDefaults.intervalSizeInFrames=0
analyzerDefaults.fftSize=65536
analyzerDefaults.fftDisplaySize=4096
analyzerDefaults.recordingTranspositionOn=true
CONF
cat >"$home/.config/Widmo/widmo-studio-state.conf" <<CONF
[General]
VersionKey=kzr4410pwmq2093xa
mainViewController.spectrogramVsChartSegmentedControl=0
mainViewController.spectrogramPIP=false
mainViewController.chartPIP=false
CONF
pactl set-default-source "$WIDMO_TEST_SINK_384.monitor"
sox -n -r 384000 -c 1 -b 16 "$home/tone.wav" synth 1 sine 40000 fade 1 1 0 pad 0 9 vol 0.3
( while true; do paplay -d "$WIDMO_TEST_SINK_384" "$home/tone.wav"; done ) &
player=$!

HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
    XDG_DATA_HOME="$home/.local/share" "$exe" >"$out/program.log" 2>&1 &
pid=$!
main=
for _ in $(seq 300); do
    main=$(xdotool search --onlyvisible --name '^Widmo Studio$' 2>/dev/null | head -1) && [ -n "$main" ] && break
    sleep 0.1
done
[ -n "$main" ] || { echo "soak: no window"; exit 1; }
xdotool windowsize --sync "$main" 1280 1024
sleep 2
xdotool windowfocus --sync "$main" key space

messages=0
echo "minute,rss_mb,threads,fds,too_slow_messages,dropped_blocks,recording" >"$out/soak.csv"
start=$(date +%s)
for (( minute = 1; minute <= minutes; minute++ )); do
    # Poll every 2 s: a message is dismissed and the recording started again.
    while [ $(( $(date +%s) - start )) -lt $(( minute * 60 )) ]; do
        sleep 2
        kill -0 "$pid" 2>/dev/null || { echo "soak: the program ended"; exit 1; }
        if [ "$(xdotool search --onlyvisible --name '^Widmo Studio' 2>/dev/null | wc -l)" -gt 1 ]; then
            messages=$(( messages + 1 ))
            box=$(xdotool search --onlyvisible --name '^Widmo Studio' | grep -v "^$main\$" | head -1)
            xdotool windowfocus --sync "$box" key Return 2>/dev/null || true
            sleep 2
            xdotool windowfocus --sync "$main" key space 2>/dev/null || true
        fi
    done
    rss=$(awk '/^VmRSS/ { printf "%.1f", $2 / 1024 }' "/proc/$pid/status")
    threads=$(awk '/^Threads/ { print $2 }' "/proc/$pid/status")
    fds=$(find "/proc/$pid/fd" -mindepth 1 -maxdepth 1 | wc -l)
    dropped=$(grep -o 'recording: [0-9]* capture blocks dropped' "$out/program.log" |
        awk '{ s += $2 } END { print s + 0 }')
    if pactl list short source-outputs | awk '$3 != "-" { f = 1 } END { exit !f }'; then
        recording=1
    else
        recording=0
    fi
    echo "$minute,$rss,$threads,$fds,$messages,$dropped,$recording" | tee -a "$out/soak.csv"
done
python3 "$root/scripts/soak_plot.py" "$out/soak.csv" "$out/soak.png"
echo "soak: $out/soak.csv and $out/soak.png"
