#!/bin/bash
# One case of the control loop that knows no make: where there is no CAN, and on simulated drives.
# Usage: without_hardware_test.bash CASE WITHOUT_HARDWARE MOTOR_DRIVE_SIM
set -u

if [[ ${1-} != Runs* && ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
[[ $1 == --own-network ]] && shift
readonly test_case=$1 example=$2 simulator=$3
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"
unset SPDLOG_STDOUT SPDLOG_SYSTEMD SPDLOG_LEVEL

RunsWhereThereIsNoCan() {
  start
  expect_status 0
  local line
  for line in '\[INFO\] reset node:1' '\[INFO\] active node:2' '\[INFO\] start node:1' \
    '\[INFO\] enable speed mode and pdo mode node:2 period:10' \
    '\[INFO\] wheels: ready, was bring-up' '\[DEBUG\] set speed node:1 rpm:60' \
    '\[DEBUG\] set speed node:2 rpm:30' '\[DEBUG\] set speed node:1 rpm:0'; do
    expect out "$line"
  done
  (($(grep -cx '   60.0 rpm    30.0 rpm' "$scratch/out") > 10)) || fail "no speeds"
  expect out '^the control loop ran; the wheels stand still$'
}

DrivesRealWheels() {
  make_bus
  plug_drives --make tt --node 1 --node 2
  start tt
  expect_status 0
  local node
  for node in 1 2; do
    sed "/ 60$node#2B4060000F/q" "$scratch/bus" >"$scratch/before"
    expect before " 58$node#60FF600000000000"
    wait_for_zeros "20$node"
  done
  expect bus ' 201#3C000000'
  expect bus ' 202#1E000000'
  expect out '^the control loop ran; the wheels stand still$'
}

StopsOnInterrupt() {
  make_bus
  plug_drives --make tt --node 1 --node 2
  start tt
  wait_for ' 201#[12]' bus
  kill -INT "$host"
  expect_status 1
  wait_for_zeros '20[12]'
}

"$test_case"
echo "$test_case: passed"
