#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Runs integration tests (the API against the device simulator over
# pseudo-terminals) under valgrind's memcheck; fails on any memory error or
# definite leak.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
# Each test in a process of its own, as ctest runs them.
run() {
  local program=$1 filter=$2 suite="" name
  for name in $("$program" --gtest_list_tests --gtest_filter="$filter" | grep -v '^Running main' | sed 's/ *#.*//'); do
    case "$name" in *.) suite=$name; continue ;; esac
    echo "-- memcheck: $(basename "$program") $suite$name"
    valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
      --show-leak-kinds=definite,indirect "$program" --gtest_filter="$suite$name" > "$log" 2>&1 || {
        cat "$log"; exit 1; }
  done
}
log=$(mktemp)
trap 'rm -f "$log"' EXIT
tests=build/release/tests
run "$tests/operation_tests" 'Operations.GetCommandsDecodeTheirReplies:Operations.SystemInfo*:Operations.EventLog*:Operations.Upgrade*'
run "$tests/api_link_tests" 'Connections.*:Handles.*:TwoDevices.*:Transport.EveryTag*:Transport.ErrorReply*'
run "$tests/llc_tests" 'Llc.ReplyRoundTrip*:Llc.ResendRequestRepeats*:Llc.PacketsSharing*:Llc.RealPacketAfterNoise*:Llc.CloseFromAnotherThread*:Llc.CallbackMay*:Llc.Oversized*'
run "$tests/fault_tests" 'Faulty.HangUpInTheMiddleOfAFirmwareUpgrade:Faulty.RepliesSplit*:Faulty.RandomBytes*'
run "$tests/link_tests" 'Links.ThreadsSharing*:Links.CommandWaiting*:Links.Statistics*:Links.SecondDevice*:MessageQueue.*'
run "$tests/net_tests" 'TelnetFilter.*:Schemes/Remote.FirmwareUpgrade*:Schemes/Remote.PayloadsOfIac*:Schemes/Remote.TwoLines*:Unreachable.*'
