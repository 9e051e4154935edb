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

expect_zero_speed_sent() {
  local last
  last=$(grep -o ' 20[12]#.*' "$scratch/bus" | tail -n 10 | cut -d'#' -f2 | sort -u)
  [[ $last == 00000000 ]] || fail "last speed commands: $last"
}

# --- Cases ----------------------------------------------------------------------------------------

ShowsAnEmergencyStopAndTheRecovery() {
  make_bus
  plug_drives --make kinco --node 1 --node 2
  start --config "$config" --seconds 12
  wait_for 'node 2  Ready  *\(59\|60\|61\) rpm  heartbeat=0x0005 status_6041=0x0037' out
  kill -USR1 "$simulator_pid"
  wait_for 'node 1  EmergencyStop .*status_6041=0x0050 .*input_2010_0A=0x0001' out
  wait_for 'node 2  EmergencyStop ' out
  sleep 1.5
  expect_none bus ' 60[12]#2B40600000'
  kill -USR2 "$simulator_pid"
  wait_for 'EmergencyStop .*input_2010_0A=0x0000' out
  expect_status 0
  local id last
  for id in 601 602; do
    [[ $(grep -o " $id#2B4060.*" "$scratch/bus" | tail -n 3 | cut -c6- | tr '\n' ' ') == \
      '2B40600000000000 2B40600006000000 2B4060000F000000 ' ]] || fail "controlwords to $id"
  done
  for id in 1 2; do
    last=$(grep "node $id" "$scratch/out" | tail -n 1)
    [[ $last =~ "node $id  Ready"\ +(59|60|61)\ rpm ]] || fail "last row of node $id: $last"
  done
  expect err 'every wheel stands still'
  expect_zero_speed_sent
}

StopsOnInterrupt() {
  make_bus
  plug_drives --make kinco --node 1 --node 2
  start --seconds 60
  wait_for ' 60 rpm' out
  kill -INT "$host"
  expect_status 0
  expect err 'interrupted'
  expect err 'every wheel stands still'
  expect_zero_speed_sent
}

NamesTheErrorOfADrive() {
  make_bus
  plug_drives --make kinco --node 1 --node 2 --fault error-after-ms=5000/0x2310
  start --config "$config" --seconds 60
  expect_status 1
  expect out 'node [12]  Fault .* error_603F=0x2310 .*error: Continuous over current (event 8976)'
  expect err 'has a fault'
  expect_zero_speed_sent
}

ReportsANodeThatIsMissing() {
  make_bus
  plug_drives --make kinco --node 1
  start
  expect_status 1
  expect err 'node 2 does not take zero target velocity'
}

ReportsAConfigurationThatCannotBeLoaded() {
  make_bus
  start --config /nowhere
  expect_status 1
  expect err 'cannot load /nowhere'
  echo 'driver_status: [{code: zz, msg: x}]' >"$scratch/config"
  start --config "$scratch/config"
  expect_status 1
  expect err 'stoul'
  expect_none bus '#'
}

ReportsWrongUsage() {
  "$example" --help >"$scratch/out" || fail "--help failed"
  expect out '--config'
  local arguments
  for arguments in --no-such-option '--node 5' '--interface a_name_too_long_' '--rpm fast'; do
    # shellcheck disable=SC2086  # option and value
    start $arguments
    expect_status 2
    [[ -s $scratch/err && ! -s $scratch/out ]] || fail "a usage error belongs on standard error"
  done
}

"$test_case"
echo "$test_case: passed"
