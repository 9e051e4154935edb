#!/usr/bin/env bash
# What bash offers for a half-written command line of motorctl.
# Usage: completion_test.bash COMPLETION_FILE MOTORCTL
set -euo pipefail

# shellcheck disable=SC1090
source "$1"
motorctl=$(realpath "$2")
PATH=$(dirname "$motorctl"):$PATH  # the completion asks the program that is completed
failures=0

# What is offered after these words, the last of which is being written; one line, sorted.
offered() {
  COMP_WORDS=(motorctl "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _motorctl
  printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | paste -sd ' '
}

expect() {
  local expected=$1 words=("${@:2}") actual
  actual=$(offered "${words[@]}")
  if [[ $actual != "$expected" ]]; then
    printf 'FAILED: motorctl %s\n  offered:  %s\n  expected: %s\n' "${words[*]}" "$actual" "$expected"
    failures=$((failures + 1))
  fi
}

# The options that the program itself lists for these words.
listed() {
  "$motorctl" "$@" --help | grep -oE '^ +(-[a-z], *)?--[a-z0-9-]+' | grep -oE -e '--[a-z0-9-]+'
}

commands='bring-up config decode doctor explain guard info jog monitor record report scan sdo stop vehicle'
expect "$commands" ''
expect 'decode doctor' d
expect 'jog' jo
expect "$commands" --make zl ''
expect "$commands" --json ''
expect "$("$motorctl" --list-makes | LC_ALL=C sort | paste -sd ' ')" --make ''
expect 'kinco' jog 1 --rpm -30 --make k
expect '' jog 1 --rpm ''
expect 'read write' sdo ''
expect 'read write' --interface can0 sdo ''
expect '' sdo read ''
expect 'check' vehicle ''
expect '--yes' sdo write 1 0x60FF 0 i32 5 --y
expect '--force' sdo write 1 0x60FF 0 i32 5 --f
expect '' sdo read 1 0x60FF 0 --f
expect '' sdo read 1 0x60FF 0 --y
expect 'i16 i32 i8' sdo write 1 0x6040 0 i
expect 'str' sdo read 1 0x1008 0 s
expect '--timeout' sdo read 1 0x1008 0 --t
expect 'write' sdo --timeout 100 w
expect 'diff restore save' config ''
expect '' config save ''
expect '--save' config restore a.yaml 1 --s
expect '' explain ''
expect '--verbose --version' --ver
expect '--version' --vers
expect '--rpm --rpm2' jog --rp
expect '--fresh-ms' guard 1 --f
expect 'mapfile' guard 1 -- mapfil

cd "$(dirname "$0")/data"
expect 'zl.log zl.txt' decode zl
expect 'zl.log zl.txt' jog 1 --csv zl
expect 'zl.log zl.txt' report zl
expect 'zl.log zl.txt' report bus.log --html zl
expect '' report bus.log --bit-rate ''
expect 'zl.log zl.txt' jog --vehicle zl
expect 'zl.log zl.txt' vehicle check zl
expect 'zl.log zl.txt' sdo read 1 0x6041 0 --eds zl

# Nothing missing and nothing invented: the program's own help is the measure.
global=$(listed)
for command in $commands; do
  expected=$({ listed "$command"; grep -v -e --version <<<"$global"; } | LC_ALL=C sort -u | paste -sd ' ')
  expect "$expected" "$command" --
done
expect "$(LC_ALL=C sort -u <<<"$global" | paste -sd ' ')" --
# The help of the program lists the commands, each with two blanks before it.
for command in $commands; do
  "$motorctl" --help | grep -qE "^  $command " || { echo "FAILED: no command $command"; failures=$((failures + 1)); }
done

exit $((failures > 0))
