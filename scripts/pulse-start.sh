#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Starts a private PulseAudio server with one null sink, for the tests that
# play sound, and prints the line that points clients at it:
#
#     eval "$(scripts/pulse-start.sh DIR)"     # exports PULSE_SERVER
#     ...tests...
#     scripts/pulse-stop.sh DIR
#
# DIR (created if needed) holds the server's socket, its configuration, its
# log and its process id; nothing outside it is touched, so this works as
# root on a machine without a sound card, D-Bus or a user session.
#
# The server is a per-user daemon with the native protocol on a socket of its
# own and no default script (no hardware detection).  The null sink is
# loaded with rewinds disabled: by default it renders up to two seconds
# ahead and rewinds when a stream starts, which stalls a new stream's clock
# and blurs its timing.  The daemon avoids resampling, so a stream's samples
# reach the sink (and its monitor) as they were written.
set -euo pipefail

dir=${1:?usage: pulse-start.sh DIR}
rate=${SORVEL_PULSE_RATE:-48000}
mkdir -p "$dir/config/pulse"
dir=$(cd "$dir" && pwd)
socket=$dir/native

if ! command -v pulseaudio >/dev/null 2>&1 || ! command -v pactl >/dev/null 2>&1; then
    echo "pulse-start: pulseaudio and pactl are needed (Debian: pulseaudio, pulseaudio-utils)" >&2
    exit 1
fi

if [[ -f $dir/pid ]] && kill -0 "$(cat "$dir/pid")" 2>/dev/null; then
    echo "pulse-start: a server from $dir is running already (pid $(cat "$dir/pid"))" >&2
    exit 1
fi
rm -f "$socket"

cat >"$dir/config/pulse/daemon.conf" <<CONF
exit-idle-time = -1
avoid-resampling = yes
default-sample-rate = $rate
alternate-sample-rate = 44100
flat-volumes = no
CONF

# The daemon looks for its configuration, cookie and runtime files under
# these; none of them may point at the real user's session.
export HOME=$dir XDG_CONFIG_HOME=$dir/config XDG_RUNTIME_DIR=$dir PULSE_RUNTIME_PATH=$dir/runtime
unset PULSE_SERVER DBUS_SESSION_BUS_ADDRESS

pulseaudio -n --daemonize=no --exit-idle-time=-1 --use-pid-file=no --log-target=stderr \
    -L "module-native-protocol-unix socket=$socket auth-anonymous=1" \
    -L "module-null-sink sink_name=sorvel_null rate=$rate norewinds=1" \
    >"$dir/log" 2>&1 </dev/null &
pid=$!
echo "$pid" >"$dir/pid"

# Wait until the server answers, for at most ten seconds.
deadline=$((SECONDS + 10))
until PULSE_SERVER=unix:$socket pactl info >/dev/null 2>&1; do
    if ! kill -0 "$pid" 2>/dev/null; then
        echo "pulse-start: the server exited at start; its log ($dir/log):" >&2
        sed 's/^/  /' "$dir/log" >&2
        rm -f "$dir/pid"
        exit 1
    fi
    if ((SECONDS >= deadline)); then
        echo "pulse-start: the server did not answer within 10 s; its log ($dir/log):" >&2
        sed 's/^/  /' "$dir/log" >&2
        kill "$pid" 2>/dev/null || true
        rm -f "$dir/pid"
        exit 1
    fi
    # pactl itself waits for the socket, so this loop polls at its pace.
    sleep 0.05
done
echo "export PULSE_SERVER=unix:$socket"
