# Sourced by the tests of examples: a network of its own with a vxcan pair, one example against
# simulated drives, and what is expected of both. The caller sets test_case, example and simulator.
# shellcheck shell=bash disable=SC2034,SC2154

scratch=$(mktemp -d -p /dev/shm)  # named pipes can be made there in every guest of with-can
readonly scratch

# Hosts and drives go before what is started to look at them, where that is allowed.
soon=()
if [[ -z $(nice -n -10 true 2>&1) ]]; then soon=(nice -n -10); fi

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
    [[ -s $scratch/$file ]] && tail -n 40 "$scratch/$file" | sed "s/^/  $file: /" >&2
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
  "${soon[@]}" "$simulator" --interface can1 "$@" 2>"$scratch/sim" &
  simulator_pid=$!
  wait_for ready sim
}

start() {  # arguments of the example
  "${soon[@]}" "$example" "$@" >"$scratch/out" 2>"$scratch/err" &
  host=$!
}

# On a terminal of its own, whose keys are pressed with press; what it shows is in out.
start_on_terminal() {  # arguments of the example
  mkfifo "$scratch/keys"
  exec 7<>"$scratch/keys"
  script --quiet --flush --return --command "exec ${soon[*]} $example $*" /dev/null \
    <"$scratch/keys" >"$scratch/out" 2>&1 &
  host=$!
}

press() {  # key, as in printf
  # shellcheck disable=SC2059  # a key is a format
  printf "$1" >&7
}

# Standard output is a pipe that is full and that nobody reads; standard input is that of press.
start_behind_full_pipe() {  # arguments of the example
  mkfifo "$scratch/pipe" "$scratch/keys"
  exec 7<>"$scratch/keys" 8<>"$scratch/pipe"
  dd if=/dev/zero of="$scratch/pipe" oflag=nonblock bs=1024 count=2048 2>/dev/null
  "${soon[@]}" "$example" "$@" >"$scratch/pipe" 2>"$scratch/err" <"$scratch/keys" &
  host=$!
}

# Speed commands to the nodes, oldest first, as data of their frames.
speeds_sent() {  # identifiers, as a pattern
  grep -o -e " $1#.*" "$scratch/bus" | cut -d'#' -f2
}

# The last five are zero; at latest within ten seconds.
wait_for_zeros() {  # identifiers, as a pattern
  local try
  for ((try = 0; try < 100; ++try)); do
    speeds_sent "$1" | tail -n 5 >"$scratch/speeds"
    grep -q '[^0]' "$scratch/speeds" || return 0
    sleep 0.1
  done
  fail "speeds: $(sort -u "$scratch/speeds" | tr '\n' ' ')"
}

# Zeros are sent all the time from now on, in seconds, and nothing else.
expect_zeros_for() {  # identifiers, as a pattern, seconds
  local before
  before=$(speeds_sent "$1" | wc -l)
  sleep "$2"
  speeds_sent "$1" | tail -n "+$((before + 1))" >"$scratch/speeds"
  (($(wc -l <"$scratch/speeds") > 20)) || fail "no speed commands"
  ! grep -q '[^0]' "$scratch/speeds" || fail "speeds: $(sort -u "$scratch/speeds" | tr '\n' ' ')"
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
