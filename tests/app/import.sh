#!/usr/bin/env bash
# A file named on the command line is imported: widmo-studio starts with a WAV
# (and a second file, which it names as ignored),
# asks whether to import it, "Yes" (the default button) fills the document, and
# the document saved at the normal quit holds the file's samples, bit for bit
# (its whole intervals: the document never shows more than the file holds).
# The user's file stays where it was.
#   import.sh <widmo-studio executable>
set -u
exe=$1
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
pid=
trap '[ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; rm -rf "$home"' EXIT
fail() { echo "import: $*"; cat "$home/log" 2>/dev/null; exit 1; }

# Three seconds at the document's default 44.1 kHz (no conversion question) of a tone whose level and pitch change every
# 1000 samples: a misplaced or lost block of samples cannot look right.
wav="$home/in put.wav"
python3 - "$wav" <<'EOF' || fail "no test file"
import array, math, sys, wave
data = array.array("h", (int(12000 * (1 + (k // 1000) % 3) / 3 *
                             math.sin(2 * math.pi * (300 + 40 * (k // 1000)) * k / 44100))
                         for k in range(3 * 44100)))
with wave.open(sys.argv[1], "wb") as w:
    w.setnchannels(1); w.setsampwidth(2); w.setframerate(44100); w.writeframes(data.tobytes())
EOF

# Handed over as a file manager does with two selected files (Exec=... %F):
# the first is imported, the second (silence) only named as ignored.
second="$home/second.wav"
python3 -c 'import sys, wave
w = wave.open(sys.argv[1], "wb"); w.setnchannels(1); w.setsampwidth(2); w.setframerate(44100)
w.writeframes(bytes(2 * 44100)); w.close()' "$second" || fail "no second file"

HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
    XDG_DATA_HOME="$home/.local/share" "$exe" "$wav" "$second" >"$home/log" 2>&1 &
pid=$!
asked=no
for _ in $(seq 300); do
    if [ "$(xdotool search --onlyvisible --name '^Widmo Studio$' 2>/dev/null | wc -l)" -ge 2 ]; then
        asked=yes; break
    fi
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
done
[ "$asked" = yes ] || fail "the import was not offered"
sleep 0.5
xdotool windowfocus --sync "$(xdotool search --onlyvisible --name '^Widmo Studio$' | tail -1)" key Return
sleep 5 # the import and its recalculation take well under a second
kill -TERM "$pid"
wait "$pid"
status=$?
pid=
[ "$status" -eq 0 ] || fail "exited with $status"
[ -f "$wav" ] || fail "the imported file was removed"
grep -qF "ignored: $second" "$home/log" || fail "the second file was not named as ignored"

python3 - "$wav" "$home/.local/share/Widmo/widmo-studio/analyzer.last.dat" \
    "$home/.config/Widmo/widmo-studio-state.conf" <<'EOF' || fail "the document is not the file"
import array, configparser, sys, wave
with wave.open(sys.argv[1]) as w:
    expected = array.array("h", w.readframes(w.getnframes()))
store = array.array("f", open(sys.argv[2], "rb").read())
state = configparser.ConfigParser()
state.read(sys.argv[3])
size = int(state["General"]["lastSession.intervalSizeInFrames"])
written = int(state["General"]["analyzerDefaults.actualInterval"]) * size
# An imported document is as long as whole intervals of the file allow.
whole = len(expected) // size * size
if written != whole:
    sys.exit(f"import: {written} samples kept, {whole} expected")
wrong = next((k for k in range(whole) if store[k] != expected[k] / 32768.0), None)
if wrong is not None:
    sys.exit(f"import: sample {wrong} is {store[wrong]}, the file's is {expected[wrong] / 32768.0}")
EOF
echo "import: the file named on the command line is the document, sample for sample"
