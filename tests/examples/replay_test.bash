#!/bin/bash
# One case of replays: a host of the examples is recorded with simulated drives, and the recording is
# replayed to it, or to another one. Usage:
# replay_test.bash CASE EXAMPLE_DIRECTORY MOTOR_DRIVE_SIM MOTORCTL KINCO_YAML
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
shift
readonly test_case=$1 examples=$2 simulator=$3 motorctl=$4 config=$5
readonly replays=${REPLAYS:-2}
# shellcheck source=tests/examples/bench.bash
source "${BASH_SOURCE[0]%/*}/bench.bash"
export SPDLOG_STDOUT=false

start_recording() {
  make_bus
  "$motorctl" record --seconds 120 --after 0.2 --directory "$scratch/records" 2>"$scratch/recorder" &
  recorder=$!
  wait_for 'recording can0' recorder
}

# Sets log; the drives are unplugged.
end_recording() {
  log=$("$motorctl" record --now)/bus.log
  [[ -s $log ]] || fail "nothing is recorded"
  kill "$recorder" "$simulator_pid"
  wait "$recorder" "$simulator_pid"
}

record() {  # make, example and its arguments
  local make=$1 example=$examples/$2
  start_recording
  plug_drives --make "$make"
  start "${@:3}"
  wait "$host"
  end_recording
}

plug_recording() {  # arguments of the simulator
  : >"$scratch/bus"
  "${soon[@]}" "$simulator" --interface can1 --replay "$log" "$@" 2>"$scratch/sim" &
  simulator_pid=$!
  wait_for ready sim
}

expect_simulator() {  # status
  wait "$simulator_pid"
  local status=$?
  ((status == $1)) || fail "exit status $status of the simulator instead of $1"
}

# What the host asked for, of each identifier in its order; what it asks for again and again, once.
sequence() {  # log, letter of the host's direction
  awk -v letter="$2" '$4 == letter && $3 ~ /^(000|6..)#/ {
    id = substr($3, 1, 3)
    for (i = 0; i < 8; ++i) if (kept[id, count[id] - i] == $3) next
    kept[id, ++count[id]] = $3
    print $3
  }' "$1" | sort --stable --key=1.1,1.3
}

replay_again_and_again() {  # example and its arguments
  local number example=$examples/$1
  sequence "$log" T >"$scratch/recorded"
  (($(wc -l <"$scratch/recorded") > 20)) || fail "hardly anything is recorded"
  for ((number = 1; number <= replays; ++number)); do
    plug_recording
    candump -L -x can1 >"$scratch/both" &
    local dump=$!
    sleep 0.2
    start "${@:2}"
    expect_simulator 0
    expect sim 'the host did what the recorded one did'
    wait "$host"
    kill "$dump"
    sequence "$scratch/both" R >"$scratch/replayed"
    diff "$scratch/recorded" "$scratch/replayed" >"$scratch/err" || fail "replay $number differs"
  done
}

# --- Cases ----------------------------------------------------------------------------------------

TheSameHostDoesTheSame() {
  record zl drive_cycle --seconds 4
  replay_again_and_again drive_cycle --seconds 4
}

TheSameHostDoesTheSameInAnEmergencyStop() {
  local -a program=(kinco_supervision --config "$config" --node 1 --node 2 --seconds 6
    --acknowledge-after 1)
  local example=$examples/${program[0]}
  start_recording
  plug_drives --make kinco --node 1 --node 2
  start "${program[@]:1}"
  wait_for '  running  ' out
  sleep 1
  kill -USR1 "$simulator_pid"
  wait_for '  fault  ' out
  kill -USR2 "$simulator_pid"
  wait "$host"
  end_recording
  replay_again_and_again "${program[@]}"
}

# Exit status 1, and one line that names the line of the log.
expect_divergence() {  # expected, came; as patterns
  expect_simulator 1
  expect sim "^motor-drive-sim: $log:[0-9]*: expected $1, came $2\$"
  (($(wc -l <"$scratch/sim") == 2)) || fail "$(wc -l <"$scratch/sim") lines"
}

TellsAnotherTarget() {
  local example=$examples/drive_cycle
  record zl drive_cycle --seconds 4 --rpm 60
  plug_recording
  start --seconds 4 --rpm 50
  expect_divergence '201#3C0000003C000000' '201#3200000032000000, and stayed'
}

TellsAnotherMake() {
  local example=$examples/drive_cycle
  record zl drive_cycle --seconds 4
  plug_recording
  start --make kinco --seconds 4
  expect_divergence '000#8101' '[06]0[01]#.*'
}

TellsAHostThatEnds() {
  local example=$examples/first_turn
  record zl first_turn
  plug_recording --patience 2
  start
  wait_for '201#3C0000001E000000' bus
  kill -KILL "$host"
  expect_divergence '201#.*' 'nothing any more'
}

TellsAHostThatIsMissing() {
  record zl first_turn
  plug_recording --patience 1
  expect_divergence '000#8101' 'nothing for 1.0 s'
}

TellsARecordingThatIsNone() {
  make_bus
  head -c 1000 /dev/urandom >"$scratch/log"
  "$simulator" --interface can1 --replay "$scratch/log" 2>"$scratch/err"
  (($? == 1)) || fail "not refused"
  expect err "^motor-drive-sim: $scratch/log:1: no frame as candump -L -x writes it, but what is no"
  (($(wc -l <"$scratch/err") == 1)) || fail "more than a line"
}

"$test_case"
