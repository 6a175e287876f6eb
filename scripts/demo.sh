#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds the library and the guided tour (nothing else: scripts/test.sh
# builds the tests, benchmarks and the rest) and runs the tour against the
# built-in device simulator.  Missing packages are installed quietly.
set -euo pipefail
cd "$(dirname "$0")/.."

VYRIX_DEPS_QUIET=1 scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target vyrix-demo
exec build/release/tools/vyrix-demo
