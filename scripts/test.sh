#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Builds everything (the tests, benchmarks, tools and examples) and runs
# every test.
#   scripts/test.sh          the release build
#   scripts/test.sh asan     built with AddressSanitizer + UndefinedBehaviorSanitizer
#   scripts/test.sh tsan     the threaded tests built with ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-release}"

scripts/deps.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"
