# What tests of motorctl's command line share; the program is in $motorctl.         -*- shell-script -*-
# shellcheck shell=bash disable=SC2154
failures=0

fail() {
  echo "FAILED: $*"
  cat out err
  failures=$((failures + 1))
}

# expect STATUS TEXT_ON_STANDARD_ERROR ARGUMENTS...
expect() {
  local expected=$1 status=0
  "$motorctl" "${@:3}" >out 2>err </dev/null || status=$?
  [[ $status == "$expected" ]] || fail "${*:3}: exit status $status, expected $expected"
  [[ $(cat err) == "$2" ]] || fail "${*:3}: standard error, expected $2"
}
