#!/bin/bash
# What the README shows is what there is: its program is the one that is compiled and run, and its
# commands for the bus run here, on a vxcan pair with a simulated drive.
# Usage: readme_test.bash Program README FIRST_TURN_SOURCE
#        readme_test.bash CommandsForTheBus README MOTORCTL MOTOR_DRIVE_SIM
set -u

if [[ $1 == CommandsForTheBus ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
if [[ $1 == --own-network ]]; then
  shift
fi
readonly test_case=$1 readme=$2 shown=$3 simulator=${4-}

Program() {
  local program
  program=$(awk '/^```cpp$/ && !seen { inside = seen = 1; next } /^```$/ { inside = 0 } inside' "$readme")
  if ! diff <(echo "$program") "$shown"; then
    echo "FAILED: the first C++ block of $readme differs from $shown"
    exit 1
  fi
}

CommandsForTheBus() {
  # shellcheck source=tests/examples/bench.bash
  source "${BASH_SOURCE[0]%/*}/bench.bash"
  PATH=${shown%/*}:$PATH
  local -a commands
  mapfile -t commands < <(awk '/^## / { wanted = $0 == "## On the bus" }
    wanted && /^```sh$/ { inside = 1; next }
    /^```$/ { inside = 0 }
    inside { sub(/ +#.*/, ""); print }' "$readme")
  make_bus
  plug_drives --make zl
  local command count=0
  for command in "${commands[@]}"; do
    case $command in
      "sudo ip link set can0 up type can bitrate "*) continue ;;  # a virtual interface has none
      "motorctl doctor"*) meant='can0 is up' ;;
      "motorctl scan"*) meant='1 node answers' ;;
      "motorctl "*" jog "*) meant='both wheels were measured to stand still' ;;
      *) fail "this test does not know the command $command" ;;
    esac
    rm -f "$scratch/keys"
    example=${command%% *}
    # shellcheck disable=SC2086  # its arguments
    start_on_terminal ${command#* }
    if [[ $command == *" jog "* ]]; then
      wait_for 'y/N' out
      press 'y\n'
    fi
    expect_status 0
    expect out "$meant"
    ((++count))
  done
  ((count == 3)) || fail "$count commands: ${commands[*]}"
}

"$test_case"
