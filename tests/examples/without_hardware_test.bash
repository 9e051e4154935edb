#!/bin/bash
# The control loop runs where there is no CAN, and shows what a drive would be told.
# Usage: without_hardware_test.bash WITHOUT_HARDWARE
set -u

fail() {
  echo "FAILED: $*"
  echo "$output"
  exit 1
}

output=$(env -u SPDLOG_STDOUT -u SPDLOG_SYSTEMD -u SPDLOG_LEVEL "$1" 2>/dev/null) ||
  fail "exit status $?"
for line in '[INFO] reset node:1' '[INFO] active node:1' '[INFO] start node:1' \
  '[INFO] enable speed mode and pdo mode node:1 period:10' \
  '[DEBUG] set speed node:1 rpm_l:60 rpm_r:30' '[DEBUG] set speed node:1 rpm_l:0 rpm_r:0' \
  '[DEBUG] get speed node:3 rpm_l:100 encoder_l:1000 rpm_r:200 encoder_r:2000'; do
  grep -qF -- "$line" <<<"$output" || fail "no line \"$line\""
done
(($(grep -cx '  100.0 rpm   200.0 rpm' <<<"$output") == 20)) || fail "not 20 speeds"
[[ $(grep -v 'destroyed' <<<"$output" | tail -n 1) == 'the control loop ran; no wheel turned' ]] ||
  fail "no verdict"
