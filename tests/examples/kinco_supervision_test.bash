#!/bin/bash
# One case of the supervision example against two simulated drives, on a vxcan pair in a network of
# its own. Usage: kinco_supervision_test.bash CASE KINCO_SUPERVISION MOTOR_DRIVE_SIM CONFIG
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
shift
readonly test_case=$1 example=$2 simulator=$3 config=$4
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"

readonly both='20[12]'
readonly turning='  running  *\(59\|60\|61\) rpm  *\(59\|60\|61\) rpm'

start_turning() {  # arguments of the example
  make_bus
  plug_drives --make kinco --node 1 --node 2
  mkfifo "$scratch/keys"
  exec 7<>"$scratch/keys"
  "${soon[@]}" "$example" --config "$config" "$@" >"$scratch/out" 2>"$scratch/err" <"$scratch/keys" &
  host=$!
  wait_for "$turning" out
}

press_the_stop() {
  kill -USR1 "$simulator_pid"
  wait_for '  fault  .*is in emergency stop' out
  wait_for_zeros "$both"
}

# The library leads the drives out of the stop: the controlwords 0, 6 and 0xF.
release_the_stop() {
  kill -USR2 "$simulator_pid"
  local id
  for id in 601 602; do
    wait_for " $id#2B40600000" bus
    wait_for " $id#2B4060000F.*" bus
  done
}

# --- Cases ----------------------------------------------------------------------------------------

ShowsAnEmergencyStopAndTheRecovery() {
  start_turning --seconds 25
  press_the_stop
  sleep 1.5
  expect_none bus ' 60[12]#2B40600000'
  release_the_stop
  expect_zeros_for "$both" 2
  press '\n'
  wait_for '  ready  ' out
  expect_status 0
  local id
  for id in 601 602; do
    [[ $(grep -o " $id#2B4060.*" "$scratch/bus" | tail -n 3 | cut -c6- | tr '\n' ' ') == \
      '2B40600000000000 2B40600006000000 2B4060000F000000 ' ]] || fail "controlwords to $id"
  done
  sed '1,/  fault  /d' "$scratch/out" >"$scratch/after"
  expect after "$turning"
  expect err 'every wheel stands still'
  wait_for_zeros "$both"
}

# Not before the release, not for an Enter from before, and never by itself.
WaitsForTheOperator() {
  start_turning --seconds 60
  press '\n'
  press_the_stop
  expect_zeros_for "$both" 1
  press '\n'
  wait_for '  bring-up  .*emergency stop' out
  expect_zeros_for "$both" 5
  release_the_stop
  expect_zeros_for "$both" 6
  press '\n'
  sed '1,/  fault  /d' "$scratch/out" >"$scratch/after"
  expect_none after '  running  '
  wait_for '  ready  .*' out
  wait_for_speeds_again
  kill -INT "$host"
  expect_status 1
  wait_for_zeros "$both"
}

wait_for_speeds_again() {
  local try
  for ((try = 0; try < 100; ++try)); do
    speeds_sent "$both" | tail -n 2 | grep -q '[^0]' && return
    sleep 0.1
  done
  fail "does not turn again"
}

AcknowledgesByItselfWhenTold() {
  start_turning --seconds 60 --acknowledge-after 2
  press_the_stop
  release_the_stop
  wait_for_speeds_again
  kill -INT "$host"
  expect_status 1
  wait_for_zeros "$both"
}

# Whatever becomes of what a person sees, the loop that commands goes on: it turns the wheels, hears
# of the stop, and does not turn them again.
StaysAtZeroBehindHeldOutput() {
  make_bus
  plug_drives --make kinco --node 1 --node 2
  start_behind_full_pipe --seconds 120
  wait_for ' 201#[^0]' bus
  sleep 3
  speeds_sent "$both" | tail -n 20 | grep -q '^00000000' && fail "held up"
  kill -USR1 "$simulator_pid"
  wait_for_zeros "$both"
  release_the_stop
  expect_zeros_for "$both" 5
  kill -INT "$host"
  sleep 1
  cat <&8 >/dev/null &
  expect_status 1
  wait_for_zeros "$both"
}

StopsOnSignal() {
  start_turning --seconds 60
  kill -"$1" "$host"
  expect_status 1
  expect err 'interrupted'
  expect err 'every wheel stands still'
  wait_for_zeros "$both"
}
StopsOnInterrupt() { StopsOnSignal INT; }
StopsOnQuit() { StopsOnSignal QUIT; }
StopsOnTerminalStop() { StopsOnSignal TSTP; }

NamesTheErrorOfADrive() {
  make_bus
  plug_drives --make kinco --node 1 --node 2 --fault error-after-ms=5000/0x2310
  start --config "$config" --seconds 60
  expect_status 1
  expect out '  fault  .*node [12] \(is not ready: Continuous over current\|reports error 0x2310\)'
  expect err 'node [12] \(is not ready: Continuous over current\|reports error 0x2310\)'
  wait_for_zeros "$both"
}

ReportsANodeThatIsMissing() {
  make_bus
  plug_drives --make kinco --node 1
  start
  expect_status 1
  expect err 'node 2 does not answer on can0'
  expect_none bus ' 601#2B4060000F'
}

ReportsAConfigurationThatCannotBeLoaded() {
  make_bus
  start --config /nowhere
  expect_status 1
  expect err '/nowhere cannot be loaded'
  echo 'driver_status: [{code: zz, msg: x}]' >"$scratch/config"
  start --config "$scratch/config"
  expect_status 1
  expect err 'cannot be loaded as texts of error codes'
  expect_none bus '#'
}

ReportsWrongUsage() {
  "$example" --help >"$scratch/out" || fail "--help failed"
  expect out '--config'
  local arguments
  for arguments in --no-such-option '--node 128' '--seconds nan' '--interface a_name_too_long_' '--rpm fast'; do
    # shellcheck disable=SC2086  # option and value
    start $arguments
    expect_status 2
    [[ -s $scratch/err && ! -s $scratch/out ]] || fail "a usage error belongs on standard error"
  done
}

"$test_case"
echo "$test_case: passed"
