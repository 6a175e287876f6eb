#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs the fuzz targets for SECONDS each (default 60) on a copy of their seed
# corpus; fails on any finding.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"

scripts/deps.sh
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
for target in build/fuzz/fuzz/fuzz_*; do
  name=$(basename "$target")
  seeds="fuzz/corpus/${name#fuzz_}"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  cp -r "$seeds/." "$work/" 2>/dev/null || true
  echo "-- $name for ${seconds}s"
  "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$work/" "$work" 2>&1 |
    grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|stat::peak_rss|==[0-9]+==ERROR|SUMMARY|Done)' || true
  found=$(find "$work" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \) -print)
  if [ -n "$found" ]; then
    echo "$name found a failure:"; echo "$found"
    exit 1
  fi
  rm -rf "$work"; trap - EXIT
done
