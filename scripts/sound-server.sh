#!/usr/bin/env bash
# The test sound server, PulseAudio or PipeWire (with pipewire-pulse and
# WirePlumber), in the private folders that scripts/services.sh set up.
#
#   sound-server.sh start          starts it and loads the test devices
#   sound-server.sh stop           ends it and waits until it is gone
#   sound-server.sh restart MS     stop, MS milliseconds without a server, start
#
# Needs WIDMO_SERVICES_DIR, WIDMO_SOUND_SERVER (pulseaudio or pipewire),
# XDG_RUNTIME_DIR, PULSE_SERVER and the WIDMO_TEST_* device names, as
# services_start exports them; under PipeWire also DBUS_SESSION_BUS_ADDRESS
# (WirePlumber exits without a session bus). The servers' process ids are kept
# in $WIDMO_SERVICES_DIR/sound-server.pids, so that a restart made by a test
# (not a child of the services' shell) is ended by services_stop too.
#
# Devices, the same under both servers: a null sink at 48 kHz (the default
# sink), a virtual microphone remapping its monitor (the default source) and
# null sinks at 192 and 384 kHz for the ultrasonic tests. pipewire-pulse
# accepts the same pactl load-module commands as PulseAudio.
set -euo pipefail

pids_file="$WIDMO_SERVICES_DIR/sound-server.pids"
server="${WIDMO_SOUND_SERVER:-pulseaudio}"

log() { echo "sound-server: $*" >&2; }

wait_for() {
    # wait_for SECONDS COMMAND...: polls COMMAND every 0.1 s for SECONDS.
    local end=$((SECONDS + $1))
    shift
    while ((SECONDS < end)); do
        if "$@" >/dev/null 2>&1; then return 0; fi
        sleep 0.1
    done
    return 1
}

# Starts a server process detached from the caller: its output goes to a log
# (a test that runs this script reads the script's output until it closes), and
# it is not a child that the caller would have to wait for.
launch() {
    local name=$1
    shift
    setsid "$@" >>"$WIDMO_SERVICES_DIR/$name.log" 2>&1 </dev/null &
    echo $! >>"$pids_file"
}

load_devices() {
    pactl load-module module-remap-source master="$WIDMO_TEST_SINK.monitor" \
        source_name="$WIDMO_TEST_SOURCE" source_properties=device.description=WidmoTestMic \
        >/dev/null
    pactl load-module module-null-sink sink_name="$WIDMO_TEST_SINK_192" rate=192000 >/dev/null
    pactl load-module module-null-sink sink_name="$WIDMO_TEST_SINK_384" rate=384000 >/dev/null
    pactl set-default-sink "$WIDMO_TEST_SINK"
    pactl set-default-source "$WIDMO_TEST_SOURCE"
}

# WirePlumber, not pipewire-pulse, turns the configured defaults into the
# default devices that pactl reports: once the virtual microphone is the
# default source, the session manager has seen the devices and links streams.
session_manager_ready() {
    pactl info | grep -q "^Default Source: $WIDMO_TEST_SOURCE\$"
}

start() {
    mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
    case "$server" in
    pulseaudio)
        # -n: no default modules, so nothing suspends the sink or probes hardware.
        launch pulse pulseaudio --daemonize=no --exit-idle-time=-1 -n --use-pid-file=no \
            --load=module-native-protocol-unix \
            --load="module-null-sink sink_name=$WIDMO_TEST_SINK rate=48000"
        ;;
    pipewire)
        # The daemon first: the session manager and the Pulse server connect to
        # it and end when it ends.
        # Its own bus, configuration and state folders: WirePlumber would
        # otherwise restore defaults remembered from an earlier run.
        local env=(env DBUS_SESSION_BUS_ADDRESS="${WIDMO_SOUND_SERVER_BUS:?}"
            XDG_CONFIG_HOME="$WIDMO_SERVICES_DIR/pipewire-config"
            XDG_STATE_HOME="$WIDMO_SERVICES_DIR/pipewire-state")
        launch pipewire "${env[@]}" pipewire
        if ! wait_for 10 test -S "$XDG_RUNTIME_DIR/pipewire-0"; then
            log "PipeWire did not start:"
            cat "$WIDMO_SERVICES_DIR/pipewire.log" >&2
            return 1
        fi
        launch wireplumber "${env[@]}" wireplumber
        launch pipewire-pulse "${env[@]}" pipewire-pulse
        ;;
    *)
        log "unknown sound server '$server' (pulseaudio or pipewire)"
        return 1
        ;;
    esac
    if ! wait_for 10 pactl info; then
        log "$server did not answer:"
        tail -n 20 "$WIDMO_SERVICES_DIR"/*.log >&2
        return 1
    fi
    if [ "$server" = pipewire ]; then
        pactl load-module module-null-sink sink_name="$WIDMO_TEST_SINK" rate=48000 >/dev/null
    fi
    load_devices
    # Under PipeWire the session manager links streams: a stream that starts
    # before it has seen the devices waits unlinked.
    if [ "$server" = pipewire ] && ! wait_for 10 session_manager_ready; then
        log "WirePlumber did not take the virtual microphone:"
        tail -n 20 "$WIDMO_SERVICES_DIR/wireplumber.log" >&2
        return 1
    fi
}

stop() {
    [ -s "$pids_file" ] || return 0
    local pid
    # Reverse order: the Pulse server and the session manager before the daemon.
    for pid in $(tac "$pids_file"); do
        kill "$pid" 2>/dev/null || true
    done
    for pid in $(cat "$pids_file"); do
        wait_for 5 bash -c "! kill -0 $pid" || kill -KILL "$pid" 2>/dev/null || true
    done
    : >"$pids_file"
    wait_for 5 bash -c '! pactl info' || true
}

case "${1:-}" in
start) start ;;
stop) stop ;;
restart)
    stop
    sleep "$(awk -v ms="${2:-0}" 'BEGIN { print ms / 1000 }')"
    start
    ;;
*)
    echo "usage: $0 start | stop | restart MILLISECONDS" >&2
    exit 2
    ;;
esac
