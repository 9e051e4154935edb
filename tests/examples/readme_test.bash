#!/bin/bash
# The program in the README is the one that is compiled and run.
# Usage: readme_test.bash README FIRST_TURN_SOURCE
set -eu

shown=$(awk '/^```cpp$/ && !seen { inside = seen = 1; next } /^```$/ { inside = 0 } inside' "$1")
if ! diff <(echo "$shown") "$2"; then
  echo "FAILED: the first C++ block of $1 differs from $2"
  exit 1
fi
