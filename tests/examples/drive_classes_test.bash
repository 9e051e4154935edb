#!/bin/bash
# One case of the example of the drive classes alone against a simulated drive, on a vxcan pair in a
# network of its own. Usage: drive_classes_test.bash CASE DRIVE_CLASSES MOTOR_DRIVE_SIM
# shellcheck disable=SC2119  # the example has no arguments
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
shift
readonly test_case=$1 example=$2 simulator=$3
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"

plug_drive() {  # arguments of the simulator
  plug_drives --make zl --node 1 "$@"
}

TurnsBothWheels() {
  make_bus
  plug_drive
  start
  expect_status 0
  expect out '^ *\(5[89]\|6[01]\)\.. rpm  *\(29\|3[01]\)\.. rpm$'
  expect err 'both wheels stand still'
  expect bus ' 201#3C0000001E000000'
  wait_for_zeros 201
  sed '/ 601#2B4060000F/q' "$scratch/bus" >"$scratch/before"
  expect before ' 581#60FF600100000000'
  expect before ' 581#60FF600200000000'
}

DoesNotEnableADriveThatRefusesZero() {
  make_bus
  plug_drive --fault abort-object=0x60FF:2
  start
  expect_status 1
  expect err 'could not be brought up'
  expect_none bus ' 601#2B4060'
}

StopsOnSignal() {
  make_bus
  plug_drive
  start
  wait_for ' 201#3C' bus
  kill -"$1" "$host"
  expect_status 0
  expect err 'both wheels stand still'
  wait_for_zeros 201
}
StopsOnInterrupt() { StopsOnSignal INT; }
StopsOnQuit() { StopsOnSignal QUIT; }
StopsOnTerminalStop() { StopsOnSignal TSTP; }

ReportsADriveThatFallsSilent() {
  make_bus
  plug_drive
  start
  wait_for ' 201#3C' bus
  kill -KILL "$simulator_pid"
  expect_status 1
  expect err 'THE STOP IS NOT CONFIRMED'
  wait_for_zeros 201
  expect bus ' 601#23FF600100000000'
}

"$test_case"
echo "$test_case: passed"
