# Sourced by the tests of examples: a network of its own with a vxcan pair, one example against
# simulated drives, and what is expected of both. The caller sets test_case, example and simulator.
# shellcheck shell=bash disable=SC2034,SC2154

scratch=$(mktemp -d)
readonly scratch

finish() {
  local -a running
  mapfile -t running < <(jobs -p)
  ((${#running[@]} == 0)) || kill -KILL "${running[@]}"
  wait 2>/dev/null
  rm -rf "$scratch"
}
trap finish EXIT

fail() {
  echo "FAILED: $*" >&2
  local file
  for file in out err sim; do
    [[ -s $scratch/$file ]] && sed "s/^/  $file: /" "$scratch/$file" >&2
  done
  [[ -s $scratch/bus ]] && tail -n 20 "$scratch/bus" | sed 's/^/  bus: /' >&2
  exit 1
}

make_bus() {
  ip link add dev can0 type vxcan peer name can1 || fail "no vxcan pair"
  ip link set can0 up
  ip link set can1 up
  candump -L can1 >"$scratch/bus" 2>/dev/null &
  sleep 0.1
}

plug_drives() {  # arguments of the simulator
  "$simulator" --interface can1 "$@" 2>"$scratch/sim" &
  simulator_pid=$!
  wait_for ready sim
}

start() {  # arguments of the example
  "$example" "$@" >"$scratch/out" 2>"$scratch/err" &
  host=$!
}

wait_for() {  # pattern, file
  local try
  for ((try = 0; try < 300; ++try)); do
    grep -q -e "$1" "$scratch/$2" 2>/dev/null && return
    sleep 0.1
  done
  fail "no \"$1\" in $2"
}

expect_status() {
  wait "$host"
  local status=$?
  sleep 0.2  # the last frames reach the log of the bus
  ((status == $1)) || fail "exit status $status instead of $1"
}

expect() {  # file, pattern
  grep -q -e "$2" "$scratch/$1" || fail "no \"$2\" in $1"
}

expect_none() {
  ! grep -q -e "$2" "$scratch/$1" || fail "unexpected \"$2\" in $1"
}
