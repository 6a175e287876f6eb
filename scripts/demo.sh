#!/usr/bin/env bash
# Builds the library and its tools and runs the guided tour against the
# built-in device simulator.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
if [ -x build/release/tools/vyrix-demo ]; then
  exec build/release/tools/vyrix-demo
fi
exec build/release/examples/vyrix-version
