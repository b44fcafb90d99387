#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Stops the server that scripts/pulse-start.sh DIR started and waits until it
# is gone.  Does nothing when none runs from DIR.
set -euo pipefail

dir=${1:?usage: pulse-stop.sh DIR}
[[ -f $dir/pid ]] || exit 0
pid=$(cat "$dir/pid")
rm -f "$dir/pid"
kill "$pid" 2>/dev/null || exit 0
for _ in $(seq 100); do
    kill -0 "$pid" 2>/dev/null || exit 0
    sleep 0.05
done
echo "pulse-stop: server $pid did not stop in 5 s; killing it" >&2
kill -KILL "$pid" 2>/dev/null || true
