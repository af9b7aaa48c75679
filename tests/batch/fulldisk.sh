#!/usr/bin/env bash
# widmo-analyze writing into a folder that fills up: the file whose outputs do
# not fit gets one line on standard error naming it and the cause, the exit
# status says a file failed, the file that fits is done, and no partial or
# temporary file is left in the folder. The folder is a small tmpfs in a mount
# namespace of the run's own (unshare).
#   fulldisk.sh <widmo-analyze executable>
set -u
exe=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "fulldisk: $*"; cat "$work/err" 2>/dev/null; exit 1; }
if [ "$(id -u)" -eq 0 ]; then isolated=(unshare -m); else isolated=(unshare -rm); fi
"${isolated[@]}" true || fail "no mount namespace can be made here (unshare)"

sox -n -r 48000 -c 1 -b 16 "$work/short.wav" synth 1 sine 1000 vol 0.5 || fail "no test signal"
sox -n -r 48000 -c 1 -b 16 "$work/long.wav" synth 60 sine 1000 vol 0.5
mkdir "$work/out"
# 1 MB: the short file's spectrogram and spectrum (0.3 MB) fit, the long file's picture (11 MB) does not.
"${isolated[@]}" bash -c 'mount -t tmpfs -o size=1m tmpfs "$1" || exit 90
    "$2" --spectrogram --spectrum --jobs 1 -o "$1" "$3" "$4" 2>"$5"; status=$?
    ls -A "$1" >"$6"; exit $status' _ \
    "$work/out" "$exe" "$work/short.wav" "$work/long.wav" "$work/err" "$work/listing"
status=$?
[ "$status" -eq 1 ] || fail "exit status $status, 1 expected (a file failed)"
[ "$(grep -c 'long.wav' "$work/err")" -eq 1 ] || fail "not one line naming the file that failed"
grep -q 'No space left on device' "$work/err" || fail "the cause is not named"
grep -q 'short.wav' "$work/err" && fail "the file that fits was reported"
grep -q -E '^short\.wav\.png$' "$work/listing" && grep -q -E '^short\.wav\.spectrum\.csv$' "$work/listing" ||
    fail "the short file's outputs are missing: $(cat "$work/listing")"
grep -q -E '\.part$|^\.' "$work/listing" && fail "temporary files left: $(cat "$work/listing")"
grep -q -E '^long\.wav\.png$' "$work/listing" && fail "a partial picture carries the final name"
echo "fulldisk: the output that did not fit was reported and nothing partial was left"
