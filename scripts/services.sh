#!/usr/bin/env bash
# Test services: a private sound server with a null sink and a virtual
# microphone, an X server (Xvfb with Mesa) and a JACK server on the dummy driver.
# The sound server is PulseAudio, or PipeWire with pipewire-pulse and
# WirePlumber (and a private D-Bus session bus) when WIDMO_SOUND_SERVER=pipewire;
# scripts/sound-server.sh starts, stops and restarts it.
#
# Source this file, then call services_start; services_stop undoes it. The
# services live in a private runtime folder, so they never meet a user's own
# sound server or display, and two runs on one machine do not collide.
#
# The sound server also has null sinks at 192 and 384 kHz (the highest rate
# PulseAudio accepts; 768 kHz is refused) for the ultrasonic tests, which
# put a virtual microphone on their monitors while they need one.
#
# Exported for the tests: WIDMO_SOUND_SERVER, WIDMO_SOUND_SERVER_SCRIPT (its
# "restart MS" restarts the server), PULSE_SERVER, WIDMO_TEST_SINK, WIDMO_TEST_SOURCE,
# WIDMO_TEST_SINK_192, WIDMO_TEST_SINK_384, DISPLAY, JACK_DEFAULT_SERVER,
# WIDMO_SERVICES_DIR. The JACK server's process id is in
# $WIDMO_SERVICES_DIR/jack.pid, the X server's in $WIDMO_SERVICES_DIR/xvfb.pid.

WIDMO_SERVICES_DIR=""
_widmo_pids=()
_widmo_scripts="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"

_services_log() { echo "services: $*" >&2; }

_wait_for() {
    # _wait_for SECONDS COMMAND...: polls COMMAND every 0.1 s.
    local limit=$(( $1 * 10 )); shift
    local i
    for (( i = 0; i < limit; i++ )); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    return 1
}

_start_sound_server() {
    export WIDMO_SOUND_SERVER="${WIDMO_SOUND_SERVER:-pulseaudio}"
    export WIDMO_SOUND_SERVER_SCRIPT="$_widmo_scripts/sound-server.sh"
    export XDG_RUNTIME_DIR="$WIDMO_SERVICES_DIR/runtime"
    mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
    export PULSE_RUNTIME_PATH="$XDG_RUNTIME_DIR/pulse"
    export PULSE_STATE_PATH="$WIDMO_SERVICES_DIR/pulse-state"
    export PULSE_SERVER="unix:$PULSE_RUNTIME_PATH/native"
    export WIDMO_TEST_SINK=widmo_sink
    export WIDMO_TEST_SOURCE=widmo_mic
    export WIDMO_TEST_SINK_192=widmo_sink192
    export WIDMO_TEST_SINK_384=widmo_sink384
    if [ "$WIDMO_SOUND_SERVER" = pipewire ]; then
        # WirePlumber ends at once without a D-Bus session bus, and there is
        # none on a headless machine: a private one, for the sound server only.
        local bus="unix:path=$XDG_RUNTIME_DIR/bus"
        if ! dbus-daemon --session --fork --nopidfile --address="$bus" --print-pid \
            >"$WIDMO_SERVICES_DIR/dbus.pid" 2>"$WIDMO_SERVICES_DIR/dbus.log"; then
            _services_log "dbus-daemon did not start:"; cat "$WIDMO_SERVICES_DIR/dbus.log" >&2
            return 1
        fi
        export WIDMO_SOUND_SERVER_BUS="$bus"
    fi
    bash "$WIDMO_SOUND_SERVER_SCRIPT" start || return 1
    _services_log "$WIDMO_SOUND_SERVER at $PULSE_SERVER"
}

_start_xvfb() {
    local fdfile="$WIDMO_SERVICES_DIR/display"
    : >"$fdfile"
    # -noreset: without it the server resets whenever its last client leaves,
    # and a test connecting at that moment finds no display.
    Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset +extension GLX \
        3>"$fdfile" >"$WIDMO_SERVICES_DIR/xvfb.log" 2>&1 &
    _widmo_pids+=($!)
    echo $! >"$WIDMO_SERVICES_DIR/xvfb.pid" # the frame benchmark counts the server's CPU
    if ! _wait_for 10 test -s "$fdfile"; then
        _services_log "Xvfb did not start:"; cat "$WIDMO_SERVICES_DIR/xvfb.log" >&2
        return 1
    fi
    export DISPLAY=":$(tr -d '[:space:]' <"$fdfile")"
    _services_log "Xvfb on $DISPLAY"
}

_start_jack() {
    export JACK_DEFAULT_SERVER="widmo_test_$$"
    export JACK_NO_AUDIO_RESERVATION=1
    jackd --no-realtime -n "$JACK_DEFAULT_SERVER" -d dummy -r 48000 -p 512 \
        >"$WIDMO_SERVICES_DIR/jack.log" 2>&1 &
    _widmo_pids+=($!)
    # A server-restart test ends this server and writes its successor's id here.
    echo $! >"$WIDMO_SERVICES_DIR/jack.pid"
    if ! _wait_for 10 jack_lsp; then
        _services_log "jackd did not start:"; cat "$WIDMO_SERVICES_DIR/jack.log" >&2
        return 1
    fi
    _services_log "JACK server $JACK_DEFAULT_SERVER"
}

services_start() {
    WIDMO_SERVICES_DIR="$(mktemp -d /tmp/widmo-services.XXXXXX)"
    export WIDMO_SERVICES_DIR
    _start_sound_server && _start_xvfb && _start_jack
}

services_stop() {
    local pid
    # The sound server's processes, also those a server-restart test started.
    if [ -n "$WIDMO_SERVICES_DIR" ]; then
        bash "$WIDMO_SOUND_SERVER_SCRIPT" stop || true
        if [ -s "$WIDMO_SERVICES_DIR/dbus.pid" ]; then
            kill "$(cat "$WIDMO_SERVICES_DIR/dbus.pid")" 2>/dev/null || true
        fi
    fi
    if [ -n "$WIDMO_SERVICES_DIR" ] && [ -s "$WIDMO_SERVICES_DIR/jack.pid" ]; then
        local jack_pid
        jack_pid="$(cat "$WIDMO_SERVICES_DIR/jack.pid")"
        kill "$jack_pid" 2>/dev/null || true
        # A restarted server is not this shell's child: wait until it is gone,
        # so that the next start may take its name.
        _wait_for 5 bash -c "! kill -0 $jack_pid" || true
    fi
    for pid in "${_widmo_pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${_widmo_pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    _widmo_pids=()
    [ -n "$WIDMO_SERVICES_DIR" ] && rm -rf "$WIDMO_SERVICES_DIR"
    WIDMO_SERVICES_DIR=""
}
