#!/bin/bash
# One case of the README's program against a simulated drive, on a vxcan pair in a network of its
# own. Usage: first_turn_test.bash CASE FIRST_TURN MOTOR_DRIVE_SIM
# shellcheck disable=SC2119  # the example has no arguments
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
shift
readonly test_case=$1 example=$2 simulator=$3
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"
export SPDLOG_STDOUT=false

TurnsBothWheels() {
  make_bus
  plug_drives --make zl --node 1
  start
  expect_status 0
  local turning
  turning=$(grep -cE '^ +(58|59|60|61)\.. rpm +(29|30|31)\.. rpm$' "$scratch/out")
  ((turning > 150)) || fail "turning in $turning reports only"
  [[ $(tail -n 1 "$scratch/out") == stopped ]] || fail "not stopped"
  sed '/ 601#2B4060000F/q' "$scratch/bus" >"$scratch/before"
  expect before ' 581#60FF600100000000'
  expect before ' 581#60FF600200000000'
  wait_for_zeros 201
}

StopsOnSignal() {
  make_bus
  plug_drives --make zl --node 1
  start
  wait_for ' 201#[23]' bus
  kill -"$1" "$host"
  expect_status 0
  wait_for_zeros 201
  expect out '^stopped$'
  (($(wc -l <"$scratch/out") < 250)) || fail "not interrupted"
}
StopsOnInterrupt() { StopsOnSignal INT; }
StopsOnTermination() { StopsOnSignal TERM; }
StopsOnHangUp() { StopsOnSignal HUP; }
StopsOnQuit() { StopsOnSignal QUIT; }
StopsOnTerminalStop() { StopsOnSignal TSTP; }

StopsWhenNobodyReadsItsOutput() {
  make_bus
  plug_drives --make zl --node 1
  (
    "$example"
    echo $? >"$scratch/status"
  ) | head -n 1 >"$scratch/out"
  [[ $(<"$scratch/status") == 0 ]] || fail "exit status $(<"$scratch/status")"
  expect bus ' 201#3C0000001E000000'
  wait_for_zeros 201
}

ReportsADriveThatIsMissing() {
  make_bus
  SPDLOG_STDOUT=true start
  expect_status 1
  expect out 'ERROR. wheels: node 1 does not answer'
  expect_none bus ' 601#2B4060'
}

"$test_case"
echo "$test_case: passed"
