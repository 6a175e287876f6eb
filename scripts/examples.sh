#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs a build of the library into a temporary prefix, builds the C
# examples in examples/c against that installed tree only, and runs the
# serial ones against the installed device simulator.
#   scripts/examples.sh [BUILD-DIR]    (default build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
[ -f "$build/CMakeCache.txt" ] || { echo "examples.sh: no build in $build" >&2; exit 1; }

work=$(mktemp -d)
sim_pid=""
cleanup() {
  for pid in $sim_pid; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S examples/c -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" -j2

export VYRIX_LOG=off
"$work/prefix/bin/vyrix-sim" --link "$work/tty" --notify-every 0.1 >"$work/sim.out" &
sim_pid=$!
"$work/prefix/bin/vyrix-sim" --link "$work/tty2" >"$work/sim2.out" &
sim_pid="$sim_pid $!"
for out in sim sim2; do
  for _ in $(seq 100); do grep -q "^Try:" "$work/$out.out" 2>/dev/null && break; sleep 0.05; done
  grep -q "^Try:" "$work/$out.out" || { echo "examples.sh: the simulator did not start" >&2; exit 1; }
done

"$work/build/vyrix-example-uart" "$work/tty"
head -c 9000 /dev/urandom >"$work/image.bin"
"$work/build/vyrix-example-upgrade" "$work/tty" "$work/image.bin"
timeout 20 "$work/build/vyrix-example-messages" "$work/tty" 2
"$work/build/vyrix-example-two-devices" "$work/tty" "$work/tty2"
echo "examples.sh: the examples build against the installed tree and run"
