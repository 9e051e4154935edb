#!/bin/bash
# One case of the drive cycle against a simulated drive, on a vxcan pair in a network of its own.
# Usage: drive_cycle_test.bash CASE DRIVE_CYCLE MOTOR_DRIVE_SIM
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
shift
readonly test_case=$1 example=$2 simulator=$3
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"

make=zl
node=1
target_velocity=FF6000  # its object, as in a frame

plug_drive() {  # arguments of the simulator
  plug_drives --make "$make" --node "$node" "$@"
}

start_turning() {  # arguments of the drive cycle
  make_bus
  plug_drive
  start --seconds 15 "$@"
  wait_for 'wheel 1:    60 rpm, measured    [56]' out
}

# --- What is expected -----------------------------------------------------------------------------

expect_one_line() {
  (($(wc -l <"$scratch/err") == 1)) || fail "not one line on standard error"
  expect err "$1"
}

# The wheels were commanded to turn, and the last speed commands say zero.
expect_zero_speed_sent() {
  expect bus ' 201#3C000000'
  local last
  last=$(grep -o ' 201#.*' "$scratch/bus" | tail -n "$1" | sort -u)
  [[ $last == ' 201#0000000000000000' ]] || fail "last speed commands: $last"
}

# The wheels are not seen to stand: zero flows on until a person gives up.
give_up() {
  wait_for 'THE STOP IS NOT CONFIRMED, zero is sent on' err
  kill -INT "$host"
  expect_status 1
  expect err 'THE STOP IS NOT CONFIRMED: A WHEEL MAY STILL TURN'
}

expect_usage_error() {
  start "$@"
  expect_status 2
  [[ -s $scratch/err && ! -s $scratch/out ]] || fail "a usage error belongs on standard error"
}

# --- Cases ----------------------------------------------------------------------------------------

# 60 rpm are 409.6 counts in ten reports. Judged by the frames alone, not by what the host says.
TurnsBothWheelsAsCommanded() {
  make_bus
  plug_drive
  start --seconds 8
  expect_status 0
  expect out '^speeds within 2 %: wheel 1 [-+][01]\.[0-9]* % .*, wheel 2 [-+][01]\.[0-9]* % '
  expect err 'every wheel stands still'
  local report wheel i change fastest slowest
  local -a positions1=() positions2=()
  while read -r report; do
    positions1+=($((16#${report:6:2}${report:4:2}${report:2:2}${report:0:2})))
    positions2+=($((16#${report:14:2}${report:12:2}${report:10:2}${report:8:2})))
  done < <(grep -o ' 181#.*' "$scratch/bus" | cut -d'#' -f2)
  for wheel in 1 2; do
    local -n positions=positions$wheel
    fastest=0 slowest=0
    for ((i = 10; i < ${#positions[@]}; ++i)); do
      change=$((positions[i] - positions[i - 10]))
      # Counters wrap around at 32 bits.
      ((change > 1 << 31)) && ((change -= 1 << 32))
      ((change < -(1 << 31))) && ((change += 1 << 32))
      ((change > fastest)) && fastest=$change
      ((change < slowest)) && slowest=$change
    done
    echo "wheel $wheel: $slowest to $fastest counts in ten periods"
    ((fastest >= 405 && fastest <= 414)) || fail "wheel $wheel forward: $fastest counts"
  done
  ((slowest >= -414 && slowest <= -405)) || fail "wheel 2 backward: $slowest counts"
  ((positions1[-1] == positions1[-10] && positions2[-1] == positions2[-10])) ||
    fail "a wheel still turns"
}

# A make with one motor per node: by the frames alone as well. Positions of 32 bits, in the bytes of
# TPDO1 from $1 (in hexadecimal digits); $2 counts in ten reports at 60 rpm; $3: -1 for a motor
# that turns against the wheel.
TurnsOneWheel() {  # first digit, counts, direction, arguments of the simulator
  local first=$1 counts=$2 direction=$3
  shift 3
  make_bus
  plug_drive "$@"
  start --make "$make" --node "$node" --seconds 8
  expect_status 0
  expect out '^speeds within 2 %: wheel 1 [-+][01]\.[0-9]* %'
  expect_none out 'wheel 2'
  expect err 'every wheel stands still'
  expect bus " 60$node#2B4060000F"
  sed "/ 60$node#2B4060000F/q" "$scratch/bus" >"$scratch/before"
  expect before " 58$node#60${target_velocity}00000000"
  local report i change fastest=0 slowest=0
  local -a positions=()
  while read -r report; do
    report=${report:first:8}
    positions+=($((16#${report:6:2}${report:4:2}${report:2:2}${report:0:2})))
  done < <(grep -o " 18$node#.*" "$scratch/bus" | cut -d'#' -f2)
  for ((i = 10; i < ${#positions[@]}; ++i)); do
    change=$((positions[i] - positions[i - 10]))
    ((change > 1 << 31)) && ((change -= 1 << 32))
    ((change < -(1 << 31))) && ((change += 1 << 32))
    ((change *= direction))
    ((change > fastest)) && fastest=$change
    ((change < slowest)) && slowest=$change
  done
  echo "$slowest to $fastest counts in ten periods"
  ((fastest * 100 >= counts * 98 && fastest * 100 <= counts * 102)) || fail "fastest: $fastest"
  ((slowest * 200 <= -counts * 98 && slowest * 200 >= -counts * 102)) || fail "slowest: $slowest"
  ((positions[-1] == positions[-10])) || fail "the wheel still turns"
}

TurnsTheWheelOfTt() {
  make=tt
  TurnsOneWheel 0 3277 1
}

TurnsTheWheelOfSecondTt() {
  make=tt node=2
  TurnsOneWheel 0 3277 1
}

WakesAnInactiveTt() {
  make=tt
  TurnsOneWheel 0 3277 1 --inactive
  expect bus ' 001#1010'
}

ReportsThatNoTtWakesUp() {
  make_bus
  start --make tt
  expect_status 1
  expect_one_line 'node 1 does not answer on can0'
  expect_none bus ' 601#2B4060'
}

TurnsTheWheelOfHls() {
  make=hls
  TurnsOneWheel 0 13107 -1
}

TurnsTheWheelOfAmps() {
  make=amps target_velocity=F02F09
  TurnsOneWheel 8 410 1
}

TurnsTheWheelOfKinco() {
  make=kinco
  TurnsOneWheel 0 1000 1
}

# Its class decodes the feedback of nodes 0 and 1.
TurnsTheWheelOfAnyNode() {
  make=hls node=5
  TurnsOneWheel 0 13107 -1
}

TurnsTheWheelsOfAVehicleFile() {
  make_bus
  plug_drives --make tt --node 1 --node 2
  cat >"$scratch/vehicle.yaml" <<'TEXT'
make: tt
wheels:
  - {name: left, node: 1}
  - {name: right, node: 2, mirrored: true}
TEXT
  start --vehicle "$scratch/vehicle.yaml" --seconds 8
  expect_status 0
  expect out '^speeds within 2 %: left [-+][01]\.[0-9]* % .*, right [-+][01]\.[0-9]* % '
  expect bus ' 201#3C000000'
  expect bus ' 202#C4FFFFFF'
}

ReportsWhatIsWrongInAVehicleFile() {
  printf 'make: tt\nwheels: [{name: left, node: 128}]\n' >"$scratch/vehicle.yaml"
  expect_usage_error --vehicle "$scratch/vehicle.yaml"
  expect err 'vehicle.yaml:2:[0-9]*: wheels\[0\].node: 128'
  expect_usage_error --vehicle "$scratch/vehicle.yaml" --make zl
}

ReportsWrongUsage() {
  "$example" --help >"$scratch/out" || fail "--help failed"
  expect out '--interface'
  expect_usage_error --no-such-option
  expect_usage_error --make unknown
  expect err 'is not zl, tt, '
  expect_usage_error --node 128
  expect err 'node: 128 is not in 1 to 127'
  expect_usage_error --interface a_name_too_long_
  expect_usage_error --seconds 1
  expect_usage_error --seconds nan
  expect_usage_error --heartbeat-timeout nan
  expect_usage_error --rpm fast
}

ReportsAnAbsentInterface() {
  start --interface can7
  expect_status 1
  expect_one_line 'there is no CAN interface can7'
}

ReportsAnInterfaceThatIsDown() {
  make_bus
  ip link set can0 down
  start
  expect_status 1
  expect_one_line 'can0.*: is the interface up'
}

ReportsThatNoDriveAnswers() {
  make_bus
  start
  expect_status 1
  expect_one_line 'node 1 does not answer on can0'
  expect_none bus ' 601#2B4060'
}

# Whatever target velocity the drive had stored, it is zero when the drive is enabled.
ZeroesTargetVelocitiesBeforeItEnables() {
  make_bus
  plug_drive
  start --seconds 8
  expect_status 0
  expect bus ' 601#2B4060000F'
  sed '/ 601#2B4060000F/q' "$scratch/bus" >"$scratch/before"
  expect before ' 581#60FF600100000000'
  expect before ' 581#60FF600200000000'
  expect_none before ' 601#23FF600[12].*[1-9A-F]'
}

DoesNotEnableADriveThatRefusesZero() {
  make_bus
  plug_drive --fault abort-object=0x60FF:2
  start
  expect_status 1
  expect_one_line 'node 1.*zero target velocity.*abort code 0x08000000'
  expect_none bus ' 601#2B4060'
}

EndsWhenTheSetUpIsIncomplete() {
  make_bus
  plug_drive --fault abort-object=0x2014:2
  start
  expect_status 1
  expect err 'node 1: 1 .*of the set-up.*0x2014 sub 2 = .*abort code 0x08000000'
  expect err 'THE STOP IS NOT CONFIRMED'
  expect_none bus ' 201#[^0]'
}

# What was to be measured was not.
StopsOnSignal() {
  start_turning
  kill -"$1" "$host"
  expect_status 1
  expect err 'drive_cycle: interrupted'
  expect err 'every wheel stands still'
  expect out 'NOT MEASURED: .* of 3 phases'
  expect_zero_speed_sent 10
}
StopsOnInterrupt() { StopsOnSignal INT; }
StopsOnTermination() { StopsOnSignal TERM; }
StopsOnHangUp() { StopsOnSignal HUP; }
StopsOnQuit() { StopsOnSignal QUIT; }
StopsOnTerminalStop() { StopsOnSignal TSTP; }

# A command that nobody renews does not last; the motion goes on when the terminal does.
StopsBehindAHeldTerminal() {
  make_bus
  plug_drive
  start_on_terminal --seconds 9 --table lines
  wait_for 'wheel 1:    60 rpm, measured    [56]' out
  press '\x13'  # Ctrl-S
  wait_for_zeros 201
  expect_zeros_for 201 3
  press '\x11'  # Ctrl-Q
  expect_status 0
  expect out 'speeds within 2 %'
}

StopsAtTheKeysOfATerminal() {
  local key
  make_bus
  plug_drive
  for key in '\x03' '\x1a' '\x1c'; do  # Ctrl-C, Ctrl-Z, Ctrl-\
    start_on_terminal --seconds 60 --table lines
    wait_for 'wheel 1:    60 rpm, measured    [56]' out
    press "$key"
    expect_status 1
    expect out 'every wheel stands still'
    expect_zero_speed_sent 10
    rm "$scratch/keys"
  done
}

# Held between two commands, and then asked to end.
EndsBehindAHeldTerminal() {
  make_bus
  plug_drive
  start_on_terminal --seconds 60 --table lines
  wait_for 'wheel 1:    60 rpm, measured    [56]' out
  press '\x13'
  sleep 1
  press '\x03'
  expect_status 1
  expect out 'every wheel stands still'
  wait_for_zeros 201
}

# It prints before a wheel has turned by much.
StopsBehindAFullPipe() {
  make_bus
  plug_drive
  start_behind_full_pipe --seconds 60
  wait_for ' 201#0[1-9]' bus
  wait_for_zeros 201
  expect_zeros_for 201 3
  kill -TERM "$host"
  wait_for 'interrupted' err
  cat <&8 >/dev/null &
  expect_status 1
}

StopsWhenNobodyReadsItsOutput() {
  make_bus
  plug_drive
  (
    "$example" --seconds 8 2>"$scratch/err"
    echo $? >"$scratch/status"
  ) | head -n 1 >"$scratch/out"
  sleep 0.2
  [[ $(<"$scratch/status") == 0 ]] || fail "exit status $(<"$scratch/status")"
  expect err 'every wheel stands still'
  expect_zero_speed_sent 10
}

ReportsADriveThatFallsSilent() {
  start_turning
  kill -KILL "$simulator_pid"
  give_up
  expect err 'node 1 sends no position reports any more'
  expect_zero_speed_sent 100
}

ReportsAHeartbeatThatStops() {
  start_turning --heartbeat-timeout 2.5
  cansend can0 601#2B17100000000000
  expect_status 1
  expect err 'node 1 sends no heartbeat any more'
  expect err 'every wheel stands still'
  expect_zero_speed_sent 10
}

NamesTheErrorOfADrive() {
  make_bus
  plug_drive --fault error-after-ms=9000/0x2310
  start --seconds 40
  expect_status 1
  expect err 'node 1 reports error 0x2310'
  expect err 'every wheel stands still'
  expect_zero_speed_sent 10
}

ReportsANodeThatRestarts() {
  start_turning
  cansend can0 000#8101
  give_up
  expect err 'node 1 is not operational any more'
}

# A wheel that sends a sixth less counts per revolution than its make does looks too slow.
ReportsSpeedsThatAreOff() {
  make_bus
  plug_drive --counts-per-revolution 3413
  start --seconds 8
  expect_status 1
  expect out 'SPEEDS OFF BY MORE THAN 2 %: wheel 1 -1[5-8]\.'
  expect err 'every wheel stands still'
}

StopsTheWheelsWhenTheInterfaceComesBack() {
  start_turning
  ip link set can0 down
  sleep 0.5
  ip link set can0 up
  expect_status 1
  expect err 'the bus can0 failed (error [35])'
  expect err 'every wheel stands still'
  expect_zero_speed_sent 10
}

# Nobody but this host can stop the wheels: it does not leave before.
WaitsForABusThatIsAway() {
  start_turning
  ip link set can0 down
  sleep 6
  expect err 'THE STOP IS NOT CONFIRMED, zero is sent on'
  kill -0 "$host" || fail "the host is gone"
  ip link set can0 up
  expect_status 1
  expect err 'every wheel stands still'
  expect_zero_speed_sent 10
}

EndsWhenTheInterfaceIsRemoved() {
  start_turning
  ip link delete can0
  local since=$SECONDS
  give_up
  ((SECONDS - since < 15)) || fail "took $((SECONDS - since)) s"
  expect err 'the bus can0 failed'
}

"$test_case"
echo "$test_case: passed"
