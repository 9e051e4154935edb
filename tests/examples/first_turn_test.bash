#!/bin/bash
# The README's program turns the wheels of a simulated drive and stops them.
# Usage: first_turn_test.bash FIRST_TURN MOTOR_DRIVE_SIM
set -u

if [[ ${1-} != --own-network ]]; then
  exec unshare --net "$BASH" "$0" --own-network "$@"
fi
ip link add dev can0 type vxcan peer name can1
ip link set can0 up
ip link set can1 up
"$3" --interface can1 --make zl --node 1 &
trap 'kill "$!"' EXIT
sleep 1
output=$(SPDLOG_STDOUT=false "$2") || { echo "FAILED: exit status $?"; exit 1; }
# One count in 10 ms is 1.5 rpm.
turning=$(grep -cE '^ +(58|59|60|61)\.. rpm +(29|30|31)\.. rpm$' <<<"$output")
((turning > 150)) || { echo "FAILED: turning in $turning reports only"; exit 1; }
[[ $(tail -n 1 <<<"$output") =~ ^\ +0.0\ rpm\ +0.0\ rpm$ ]] || { echo "FAILED: not stopped"; exit 1; }
