#!/usr/bin/env bash
# Starts a built application against the test services, lets it run, ends it
# with SIGTERM as a session manager would, and fails on a crash, an error in
# its log, or a state record that was not saved on the way out.
#   smoke.sh <executable> <application name> [damaged-settings]
# With "damaged-settings" the program starts from a settings file holding
# values that once crashed or hung it, and must replace them by its defaults.
set -u
exe=$1
name=$2
damaged=${3:-}
home=$(mktemp -d)
# This test is about crashes, errors and the saved state; leaks are checked by
# the unit tests. LeakSanitizer's own stop-the-world at exit is not reliable
# while the sound server's and Mesa's threads wind down.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
trap 'rm -rf "$home"' EXIT
log="$home/log"
settings="$home/.config/Widmo/$name.conf"
if [ "$damaged" = damaged-settings ]; then
    mkdir -p "$home/.config/Widmo"
    printf '%s\n' '[General]' 'VersionKey=kzr4410pwmq2093xa' \
        'analyzerDefaults.fftDisplaySize=2147483647' 'analyzerDefaults.fftSize=2147483647' \
        'analyzerDefaults.sampleRate=inf' 'analyzerDefaults.octaveRTABand=0' >"$settings"
fi

HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
    XDG_DATA_HOME="$home/.local/share" "$exe" >"$log" 2>&1 &
pid=$!
# Up to 30 s for the window (a sanitizer build under load starts slowly),
# then a few seconds of running.
shown=no
for _ in $(seq 300); do
    if xwininfo -root -tree 2>/dev/null | grep -q '"Widmo'; then shown=yes; break; fi
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
sleep 3
if [ "$shown" != yes ]; then
    echo "smoke: $name showed no window"; kill -KILL "$pid" 2>/dev/null; cat "$log"; exit 1
fi
if ! kill -0 "$pid" 2>/dev/null; then
    echo "smoke: $name ended by itself:"; cat "$log"; exit 1
fi
kill -TERM "$pid"
wait "$pid"
status=$?
cat "$log"
if [ "$status" -ne 0 ]; then
    echo "smoke: $name exited with $status after SIGTERM"; exit 1
fi
# Lines the program or Qt print for real faults (the X server's own focus
# warning under Xvfb is not one).
if grep -i -E 'error|fatal|critical|assert|segmentation' "$log" | grep -v -i 'XGetInputFocus'; then
    echo "smoke: $name logged an error"; exit 1
fi
state="$home/.config/Widmo/$name-state.conf"
if ! grep -q 'VersionKey=kzr4410pwmq2093xa' "$state" 2>/dev/null; then
    echo "smoke: $name did not save its state to $state"; exit 1
fi
if [ "$damaged" = damaged-settings ]; then
    for key in fftDisplaySize=2048 fftSize=4096 sampleRate=44100 octaveRTABand=6; do
        if ! grep -q "^analyzerDefaults.$key\$" "$settings"; then
            echo "smoke: $name did not replace the damaged settings ($key expected)"; exit 1
        fi
    done
    if [ "$(grep -c 'is not offered by the settings screens' "$log")" -ne 4 ]; then
        echo "smoke: $name did not report each replaced setting once"; exit 1
    fi
fi
echo "smoke: $name ran, quit cleanly and saved its state"
