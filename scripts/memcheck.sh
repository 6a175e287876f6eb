#!/usr/bin/env bash
# Runs integration tests (the API against the device simulator over
# pseudo-terminals) under valgrind's memcheck; fails on any memory error or
# definite leak.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
cmake --preset release >/dev/null
cmake --build --preset release
run() {
  echo "-- memcheck: $*"
  valgrind --quiet --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite,indirect \
    --show-leak-kinds=definite,indirect "$@" > /tmp/vyrix-memcheck.log 2>&1 || {
      cat /tmp/vyrix-memcheck.log; exit 1; }
  grep -E '^\[  (PASSED|FAILED)' /tmp/vyrix-memcheck.log
}
tests=build/release/tests
run "$tests/operation_tests" --gtest_filter='Operations.GetCommandsDecodeTheirReplies:Operations.SystemInfo*:Operations.EventLog*:Operations.Upgrade*'
run "$tests/api_link_tests" --gtest_filter='Connections.*:Transport.EveryTag*:Transport.ErrorReply*'
run "$tests/llc_tests" --gtest_filter='Llc.ReplyRoundTrip*:Llc.ResendRequestRepeats*:Llc.ConnectionlessMessagesReach*:Llc.Oversized*'
run "$tests/fault_tests" --gtest_filter='Faulty.HangUpInTheMiddleOfAFirmwareUpgrade:Faulty.RepliesSplit*:Faulty.RandomBytes*'
