# How the tests of the launcher tell what they found; sourced by them.

failures=0

# NAME EXPECTED ACTUAL
check() {
  if [[ $3 == "$2" ]]; then
    printf 'passed  %s\n' "$1"
    return
  fi
  printf 'FAILED  %s\n  expected: %q\n  actual:   %q\n' "$1" "$2" "$3"
  failures=$((failures + 1))
}

# NAME TEXT ACTUAL
check_contains() {
  if [[ $3 == *"$2"* ]]; then check "$1" "$3" "$3"; else check "$1" "... $2 ..." "$3"; fi
}

finish() {
  echo "$failures failed"
  ((failures == 0))
}
