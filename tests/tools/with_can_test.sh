#!/bin/bash
# Checks what tools/with-can promises: the command runs as it would without it, but with can0, can1.
#
# usage: with_can_test.sh [auto|native|uml|smp|icount|arm64]
# A case prints one line; the exit status is 0 only if all have passed. A boot is slow, so that one
# run of with-can serves several cases where it can.
set -u

# shellcheck source=tests/tools/check.bash
source "${BASH_SOURCE[0]%/*}/check.bash"
kernel=${1:-auto}
with_can=$(realpath "${BASH_SOURCE[0]%/*}/../../tools/with-can")
scratch=$(mktemp -d /tmp/with_can_test.XXXXXXXX)
trap 'rm -rf "$scratch"' EXIT

run() { "$with_can" --kernel "$kernel" "$@"; }

# FILE TEXT: waits until the text is in the file.
await_text() {
  local tries
  for ((tries = 0; tries < 1200; tries++)); do
    if grep -q -e "$2" "$1" 2>/dev/null; then return 0; fi
    sleep 0.1
  done
  return 1
}

UsageErrorsExitWith2() {
  local text
  text=$("$with_can" 2>&1)
  check "no command: status" 2 $?
  check_contains "no command: usage line" "usage: with-can" "$text"
  "$with_can" --no-such-option true 2>/dev/null
  check "unknown option: status" 2 $?
  "$with_can" --kernel minix true 2>/dev/null
  check "unknown kernel: status" 2 $?
  "$with_can" --timeout soon true 2>/dev/null
  check "time limit that is not a number: status" 2 $?
  "$with_can" --timeout 2>/dev/null
  check "time limit missing: status" 2 $?
  text=$("$with_can" --help)
  check "help: status" 0 $?
  check_contains "help: usage line" "usage: with-can" "$text"
}

SaysWhatToInstallWhereNoKernelIsFound() {
  local tools=$scratch/tools tool text
  mkdir "$tools"
  for tool in bash cat rm; do ln -s "$(command -v "$tool")" "$tools"; done
  printf '#!/bin/bash\nexit 1\n' >"$tools/unshare"
  chmod 755 "$tools/unshare"
  text=$(PATH=$tools "$with_can" true 2>&1)
  check "no kernel: status" 125 $?
  check_contains "no kernel: names the package" "apt-get install user-mode-linux" "$text"
  check_contains "no kernel: names the modules" "modprobe --all can-raw vxcan" "$text"
  text=$(PATH=$tools "$with_can" --smp true 2>&1)
  check "no QEMU: status" 125 $?
  check_contains "no QEMU: names the package" "qemu-system-x86" "$text"
  text=$(PATH=$tools "$with_can" --arm64 true 2>&1)
  check "no QEMU for Arm: status" 125 $?
  check_contains "no QEMU for Arm: names the package" "qemu-system-arm" "$text"
}

PassesArgumentsDirectoryAndEnvironment() {
  local -a odd=('' ' ' 'two  words' $'new\nline\n'
    '*' '?' '"' "'" $'\\' "\$HOME" "\`id\`" $'\xff\xfe'
    '-x' '--')
  local directory=$scratch/$'odd \'directory\n*' script text
  mkdir "$directory"
  # shellcheck disable=SC2016  # for the shell in the guest
  script='printf "%s|" "$@" "$VALUE" "$EMPTY" "$PATH" "$(umask)"; pwd'
  text=$(
    cd "$directory" || exit
    umask 027
    VALUE=$'a="b\'\n\\' EMPTY='' PATH=$PATH:/no/such \
      run -- bash -c "$script" name "${odd[@]}" </dev/null
  )
  check "arguments, environment, umask, directory" \
    "$(printf '%s|' "${odd[@]}" $'a="b\'\n\\' '' "$PATH:/no/such" 0027; echo "$directory")" "$text"
}

PassesStreamsByteForByte() {
  head -c 1000000 /dev/urandom >"$scratch/first"
  head -c 1000000 /dev/urandom >"$scratch/second"
  run bash -c "cat; cat '$scratch/second' >&2; exit 42" \
    <"$scratch/first" >"$scratch/output" 2>"$scratch/error"
  check "streams: exit status" 42 $?
  check "standard input and output" "$(sha256sum <"$scratch/first")" \
    "$(sha256sum <"$scratch/output")"
  check "standard error" "$(sha256sum <"$scratch/second")" "$(sha256sum <"$scratch/error")"
}

PassesMuchOutput() {
  local sum
  sum=$(run bash -c 'seq 3000000' </dev/null | sha256sum)
  check "22 MB of output" "$(seq 3000000 | sha256sum)" "$sum"
}

# The answer is only given after the question has been seen.
PassesEachLineAtOnce() {
  local pid line to_command from_command
  mkfifo "$scratch/to_command" "$scratch/from_command"
  # shellcheck disable=SC2016
  run bash -c 'echo question; read -r line; echo "heard $line"; cat; exit 3' \
    <"$scratch/to_command" >"$scratch/from_command" &
  pid=$!
  exec {to_command}>"$scratch/to_command" {from_command}<"$scratch/from_command"
  read -r -t 120 line <&"$from_command"
  check "a line arrives while the command runs" question "$line"
  echo answer >&"$to_command"
  read -r -t 120 line <&"$from_command"
  check "a line reaches the command while it runs" "heard answer" "$line"
  exec {to_command}>&-
  wait "$pid"
  check "the end of standard input reaches the command" 3 $?
}

ReportsHowTheCommandEnded() {
  # shellcheck disable=SC2016
  run bash -c 'kill -SEGV $$' </dev/null 2>/dev/null
  check "death by a signal" 139 $?
  run /no/such/command </dev/null 2>/dev/null
  check "no such command" 127 $?
}

# Everything that can be asked inside one run.
GivesAUsableSystem() {
  local text system cpus processor directory
  cat >"$scratch/inside" <<'EOF'
echo "kernel $WITH_CAN"
echo "cpus $(nproc)"
echo "processor $(uname -m)"
candump -L -n 1 can1 >can.log &
for try in {1..100}; do
  cansend can0 601#2B4060000F000000
  if [[ -s can.log ]]; then break; fi
  sleep 0.1
done
wait $!
echo "frame $(cut -d' ' -f3 can.log)"
ip -brief link show lo | grep -q UP && echo "lo up"
tc qdisc add dev can0 root netem delay 1ms && echo "netem"
tc qdisc replace dev can1 root tbf rate 1mbit burst 1kb latency 1ms && echo "tbf"
unshare --net --mount ip link add can0 type vxcan peer name can1 && echo "own namespace"
script --quiet --command 'test -t 0 && echo pseudo-terminal' /dev/null | tr -d '\r'
echo text >/dev/shm/file && head -c 1 /dev/urandom >/dev/null && echo "devices"
[[ $(readlink /dev/stdout) == /proc/self/fd/1 ]] && echo "standard links"
late_s=120
if [[ $WITH_CAN == icount ]]; then late_s=100000; fi  # its clock does not wait in idle time
echo "second $(($(date +%s) - $(stat -c %Y "$1") <= late_s))"
"$2" bash -c 'echo "nested $WITH_CAN"; ip -brief link show can1 | grep -q UP && echo "nested pair"'
"$2" --kernel "$WITH_CAN" bash -c '
  echo "again $WITH_CAN"
  ip -brief link show can1 | grep -q UP && echo "pair again"
  "$0" --kernel "$WITH_CAN" true && echo "and again"' "$2"
echo written >file
grep --text --only-matching '/tmp/with-can[.][[:alnum:]]*' /proc/1/cmdline | head -n 1 >run
EOF
  mkdir "$scratch/system"
  touch "$scratch/now"
  text=$(cd "$scratch/system" && run bash ../inside "$scratch/now" "$with_can" </dev/null 2>&1)
  system=${text#*kernel }
  system=${system%%$'\n'*}
  case $system in
    uml | icount) cpus=1 ;;
    smp | arm64) cpus=2 ;;
    *) cpus=$(nproc) ;;
  esac
  processor=$(uname -m)
  if [[ $system == arm64 ]]; then processor=aarch64; fi
  check "everything in the guest" "kernel $system
cpus $cpus
processor $processor
frame 601#2B4060000F000000
lo up
netem
tbf
own namespace
pseudo-terminal
devices
standard links
second 1
nested native
nested pair
again $system
pair again
and again" "$text"
  check "files of the command are on the host" written "$(cat "$scratch/system/file")"
  if [[ $system == native ]]; then return; fi
  directory=$(cat "$scratch/system/run")
  check_contains "directory of the run" /tmp/with-can. "$directory"
  check "directory of the run is gone" "" "$(ls -d "$directory" 2>/dev/null)"
  check "processes of the run are gone" "" "$(processes_with "$directory")"
}

# TEXT: the ids of processes with that text in their command line.
processes_with() {
  local path
  for path in /proc/[0-9]*; do
    if [[ ${path#/proc/} != "$BASHPID" ]] &&
      grep -q --text -F -e "$1" "$path/cmdline" 2>/dev/null; then
      echo "${path#/proc/}"
    fi
  done
}

EndsTheCommandAtTheTimeLimit() {
  local text
  text=$(run --timeout 1 sleep infinity 2>&1 </dev/null)
  check "time limit: status" 124 $?
  check_contains "time limit: message" "sending signal TERM" "$text"
}

# SIGNAL STATUS: a command that ends by itself.
PassesASignalToTheCommand() {
  local pid output=$scratch/signal.$1  # an earlier "ready" must not be taken for this one
  # A shell starts what runs in the background with SIGINT ignored.
  env --default-signal "$with_can" --kernel "$kernel" \
    bash -c 'trap "echo caught INT; exit 5" INT; trap "echo caught TERM; exit 6" TERM
      echo ready; while :; do sleep 0.1; done' </dev/null >"$output" 2>&1 &
  pid=$!
  await_text "$output" ready
  kill -s "$1" "$pid"
  wait "$pid"
  check "SIG$1: status of the command" "$2" $?
  check_contains "SIG$1: reaches the command" "caught $1" "$(cat "$output")"
}

KillsACommandThatIgnoresTheSignal() {
  local pid
  env --default-signal "$with_can" --kernel "$kernel" \
    bash -c 'trap "" TERM; echo ready; while :; do sleep 0.1; done' \
    </dev/null >"$scratch/stubborn" 2>&1 &
  pid=$!
  await_text "$scratch/stubborn" ready
  kill -s TERM "$pid"
  wait "$pid"
  check "a command that ignores SIGTERM is killed" 137 $?
}

LeavesNothingBehindWhenItIsKilled() {
  local pid system directory tries
  # shellcheck disable=SC2016
  "$with_can" --kernel "$kernel" bash -c 'echo "$WITH_CAN"
    grep --text --only-matching "/tmp/with-can[.][[:alnum:]]*" /proc/1/cmdline; echo ready
    sleep infinity' </dev/null >"$scratch/killed" 2>&1 &
  pid=$!
  await_text "$scratch/killed" ready
  { read -r system && read -r directory; } <"$scratch/killed"
  kill -s KILL "$pid"
  wait "$pid" 2>/dev/null
  if [[ $system == native ]]; then return; fi  # the launcher had become the command
  for ((tries = 0; tries < 100; tries++)); do
    if [[ ! -e $directory && -z $(processes_with "$directory") ]]; then break; fi
    sleep 0.1
  done
  check "killed launcher: processes are gone" "" "$(processes_with "$directory")"
  check "killed launcher: directory is gone" "" "$(ls -d "$directory" 2>/dev/null)"
}

EndsTheCommandWhenNobodyReadsItsOutput() {
  local text
  text=$(run yes </dev/null | head -n 1)
  check "a reader that goes away ends the command" y "$text"
}

RunsTwiceAtTheSameTime() {
  local pids=() number
  for number in 1 2; do
    run bash -c "ip link show can1 >/dev/null && echo only $number" \
      </dev/null >"$scratch/concurrent.$number" 2>&1 &
    pids+=("$!")
  done
  wait "${pids[@]}"
  check "first of two" "only 1" "$(cat "$scratch/concurrent.1")"
  check "second of two" "only 2" "$(cat "$scratch/concurrent.2")"
}

WorksInATerminal() {
  local screen=$scratch/screen pid status
  cat >"$scratch/in_terminal" <<'EOF'
trap 'echo "interrupted"; exit 9' INT
trap 'echo "size $(stty size)"' WINCH
[[ -t 0 && -t 1 && -t 2 ]] && echo "three terminals"
echo "size $(stty size)"
read -r line
echo "read $line"
echo "ready"
while :; do sleep 0.1; done
EOF
  cat >"$scratch/session" <<EOF
stty rows 33 columns 99
tty >'$scratch/tty'
before=\$(stty -g)
'$with_can' --kernel '$kernel' bash '$scratch/in_terminal'
echo "status \$?"
[[ \$(stty -g) == "\$before" ]] && echo "settings restored"
EOF
  mkfifo "$scratch/keys"
  script --quiet --flush --command "bash '$scratch/session'" "$screen" \
    <"$scratch/keys" >/dev/null 2>&1 &
  pid=$!
  exec {keys}>"$scratch/keys"
  await_text "$screen" "size 33 99"
  printf 'words\n' >&"$keys"
  await_text "$screen" ready
  stty -F "$(cat "$scratch/tty")" rows 40 columns 120
  await_text "$screen" "size 40 120"
  printf '\003' >&"$keys"
  await_text "$screen" "settings restored"
  exec {keys}>&-
  wait "$pid"
  status=$(grep -a -v '^Script' "$screen" | tr -d '\r' | sed -e 's/\^C//' -e '/^words$/d')
  check "terminal" "three terminals
size 33 99
read words
ready
size 40 120
interrupted
status 9
settings restored" "$status"
}

UsageErrorsExitWith2
SaysWhatToInstallWhereNoKernelIsFound
PassesArgumentsDirectoryAndEnvironment
PassesStreamsByteForByte
PassesMuchOutput
PassesEachLineAtOnce
ReportsHowTheCommandEnded
GivesAUsableSystem
EndsTheCommandAtTheTimeLimit
PassesASignalToTheCommand INT 5
PassesASignalToTheCommand TERM 6
KillsACommandThatIgnoresTheSignal
EndsTheCommandWhenNobodyReadsItsOutput
RunsTwiceAtTheSameTime
WorksInATerminal
LeavesNothingBehindWhenItIsKilled

finish
