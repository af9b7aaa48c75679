#!/usr/bin/env bash
# Two copies of widmo-studio at once. The second copy starts with the shared
# state read-only: its title says so, it does not take the first copy's
# last-session file at its start, and it writes neither settings nor state nor
# that file when it quits. A copy killed with SIGKILL leaves a lock that the
# next start takes over.
#   instances.sh <widmo-studio executable>
set -u
exe=$1
home=$(mktemp -d)
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null; done
    rm -rf "$home"
}
trap cleanup EXIT
fail() { echo "instances: $*"; tail -n 20 "$home"/*.log 2>/dev/null; exit 1; }

data="$home/.local/share/Widmo/widmo-studio/analyzer.last.dat"
start() { # <log name>: starts a copy; its pid is in $last
    HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_CACHE_HOME="$home/.cache" \
        XDG_DATA_HOME="$home/.local/share" "$exe" >>"$home/$1.log" 2>&1 &
    last=$!
    pids+=("$last")
}
wait_title() { # <title regex> <pid>
    for _ in $(seq 300); do
        xdotool search --onlyvisible --name "$1" >/dev/null 2>&1 && return 0
        kill -0 "$2" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}
press() { # <title regex> <key>
    local w
    w=$(xdotool search --onlyvisible --name "$1" | tail -1)
    xdotool windowfocus --sync "$w" key "$2"
}
recording() { # a client's recording stream exists
    pactl list short source-outputs | awk '$3 != "-" { found = 1 } END { exit !found }'
}
quit() { # <pid>: SIGTERM, as a session manager ends a program; fails on a bad exit
    kill -TERM "$1"
    wait "$1"
    local status=$?
    [ "$status" -eq 0 ] || fail "a copy exited with $status"
}
snapshot() { # every file of the shared state but the lock, with its checksum
    (cd "$home" && find .config .local -type f ! -name '*.lock' -print0 | sort -z |
        xargs -0 md5sum)
}
plain='^Widmo Studio$'
readonly_title='^Widmo Studio \(read-only: another copy is running\)$'

# 1. The first copy records a few seconds (its periodic save writes the
# last-session file), stops, and quits, so that settings and state exist.
start first
first=$last
wait_title "$plain" "$first" || fail "no window of the first copy"
sleep 1
press "$plain" space
for _ in $(seq 100); do recording && break; sleep 0.1; done
recording || fail "the first copy did not start recording"
sleep 7
press "$plain" space
sleep 2
[ -f "$data" ] || fail "no last-session file while recording"

# 2. A second copy beside it: read-only, and the shared files stay as they are.
before=$(snapshot)
start second
second=$last
wait_title "$readonly_title" "$second" || fail "the second copy did not say it is read-only"
grep -q 'Another copy of this program is running' "$home/second.log" ||
    fail "the second copy did not explain why it is read-only"
sleep 3
quit "$second"
after=$(snapshot)
[ "$before" = "$after" ] || fail "the second copy changed the shared files:
$(diff <(echo "$before") <(echo "$after"))"
xdotool search --onlyvisible --name "$plain" >/dev/null || fail "the first copy's window is gone"
quit "$first"

# 3. A copy killed without warning leaves its lock; the next copy takes it over.
start killed
wait_title "$plain" "$last" || fail "no window after the restart"
kill -KILL "$last"
wait "$last" 2>/dev/null
start successor
successor=$last
wait_title "Widmo Studio" "$successor" || fail "no window after the kill"
sleep 1
xdotool search --onlyvisible --name "$plain" >/dev/null ||
    fail "the copy after a killed one is not the owner: $(xdotool search --onlyvisible --name 'Widmo' getwindowname %@)"
quit "$successor"
echo "instances: the second copy was read-only and left the first copy's files alone"
