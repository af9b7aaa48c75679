#!/usr/bin/env bash
# widmo-studio where it cannot write: a read-only configuration folder, and a
# data folder too full for the last-session file.
#  1. Configuration folder read-only: the program starts with the settings it
#     finds, says once that settings cannot be saved, runs and quits cleanly,
#     and the settings file is as it was.
#  2. Data folder full while recording: the periodic save of the last-session
#     file fails; one message says so, the recording goes on, no half-written
#     file is left, the previous last-session file is kept unchanged and the
#     next start offers it for recovery.
# Each case runs the program in a mount namespace of its own (unshare), where
# the folder is a read-only bind mount or a small tmpfs.
#   unwritable.sh <widmo-studio executable>
set -u
[ -n "${TRACE:-}" ] && set -x
exe=$1
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
pid=
cleanup() {
    [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
    rm -rf "$home"
}
trap cleanup EXIT
fail() { echo "unwritable: $*"; tail -n 20 "$home"/*.log 2>/dev/null; exit 1; }

cfg="$home/.config/Widmo"
datadir="$home/.local/share/Widmo/widmo-studio"
data="$datadir/analyzer.last.dat"
# A mount namespace: root needs none of its own user namespace, anyone else does.
if [ "$(id -u)" -eq 0 ]; then isolated=(unshare -m); else isolated=(unshare -rm); fi
start() { # <log name> [command run in the namespace before] [command run there after]
    # SIGTERM is handed on to the program, whose own status is the result.
    "${isolated[@]}" bash -c "${2:-true} || exit 90; \"\$@\" & child=\$!
        trap 'kill -TERM \$child' TERM; wait \$child; status=\$?
        [ \$status -gt 128 ] && { wait \$child; status=\$?; }
        ${3:-true}; exit \$status" _ \
        env HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
        XDG_DATA_HOME="$home/.local/share" "$exe" >>"$home/$1.log" 2>&1 &
    pid=$!
}
windows() { xdotool search --onlyvisible --name '^Widmo Studio' 2>/dev/null | wc -l; }
wait_windows() { # <count>: until that many windows of the program are shown
    for _ in $(seq 300); do
        [ "$(windows)" -ge "$1" ] && return 0
        kill -0 "$pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}
press() {
    local w
    w=$(xdotool search --onlyvisible --name '^Widmo Studio' | head -1)
    xdotool windowfocus --sync "$w" key "$1"
}
recording() {
    pactl list short source-outputs | awk '$3 != "-" { found = 1 } END { exit !found }'
}
quit() {
    kill -TERM "$pid"
    wait "$pid"
    local status=$?
    pid=
    [ "$status" -eq 0 ] || fail "exited with $status"
}
"${isolated[@]}" true || fail "no mount namespace can be made here (unshare)"

# 0. An ordinary run records a few seconds: settings, state and a last-session file.
start normal
wait_windows 1 || fail "no window"
sleep 1
press space
for _ in $(seq 100); do recording && break; sleep 0.1; done
recording || fail "did not start recording"
sleep 3
quit
[ -f "$data" ] && [ -f "$cfg/widmo-studio.conf" ] || fail "the ordinary run saved no files"
cp "$cfg/widmo-studio.conf" "$home/settings.kept"
cp "$data" "$home/data.kept"
size=$(stat -c %s "$data")

# 1. Configuration folder read-only.
start readonly "mount --bind '$cfg' '$cfg' && mount -o remount,bind,ro '$cfg'"
wait_windows 1 || fail "no window with a read-only configuration folder"
sleep 2
xdotool search --onlyvisible --name '^Widmo Studio \(settings are not saved\)$' >/dev/null ||
    fail "the title does not say that settings are not saved"
[ "$(grep -c 'Settings cannot be saved' "$home/readonly.log")" -eq 1 ] ||
    fail "did not say once that settings cannot be saved"
quit
cmp -s "$cfg/widmo-studio.conf" "$home/settings.kept" || fail "the settings file changed"

# 2. Data folder with room for one last-session file and half of a second:
# the first save while recording writes it, the next ones (a temporary file
# beside the kept one) run out of room. What the folder holds when the
# program has quit is listed and the file copied out, from inside the
# namespace, whose tmpfs goes with it.
rm -f "$data"
room=$(( size + size / 2 ))
start full "mount -t tmpfs -o size=$room tmpfs '$datadir'" \
    "ls -A '$datadir' >'$home/full.listing'; cp '$data' '$home/full.dat'"
wait_windows 1 || fail "no window with a small data folder"
sleep 1
press space
for _ in $(seq 100); do recording && break; sleep 0.1; done
recording || fail "did not start recording"
# Saves are due every 5 s: the first fits, the second fails with a message.
for _ in $(seq 200); do [ "$(windows)" -ge 2 ] && break; sleep 0.1; done
[ "$(windows)" -ge 2 ] || fail "no message when the last-session file could not be written"
grep -q 'No space left on device' "$home/full.log" || fail "the failure's cause was not logged"
sleep 6 # another failed save: no second message
[ "$(windows)" -eq 2 ] || fail "more than one message for the same failure"
recording || fail "the recording stopped on a full disk"
quit
[ "$(cat "$home/full.listing")" = analyzer.last.dat ] ||
    fail "the data folder holds more than the last-session file: $(cat "$home/full.listing")"
[ "$(stat -c %s "$home/full.dat")" -eq "$size" ] || fail "the kept last-session file is not whole"

# 3. The kept file is offered at the next start, on a disk with room again.
cp "$home/full.dat" "$data"
start offered
wait_windows 2 || fail "the kept recording was not offered"
quit
echo "unwritable: a read-only configuration and a full disk were reported and lost nothing"
