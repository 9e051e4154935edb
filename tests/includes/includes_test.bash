#!/bin/bash
# Nothing includes what stands above it: no directory of src/ a higher one, the simulator and the reader
# of logs nothing of src/, and nothing comes back to itself by way of others. A header counts with the
# source of its name beside it.
# Usage: includes_test.bash PROJECT_DIRECTORY
set -euo pipefail
cd "$1"

layers=(base log driver wheels) # of src/, the lowest first

# Of a file of src/, or of a public header, which belongs to the source of its name.
layer() {
  local place=$1 number
  if [[ $place == include/* ]]; then
    place=$(find src -name "$(basename "$place" .h).cpp")
  fi
  for number in "${!layers[@]}"; do
    [[ $place != src/"${layers[number]}"/* ]] || echo "$number"
  done
}

# "includer included" of every file of the project that one of them includes.
edges() {
  local file name place
  while IFS=: read -r file name; do
    for place in "$(dirname "$file")/" src/ include/ ''; do
      [[ ! -f $place$name ]] || { echo "$file $place$name"; break; }
    done
  done < <(grep --recursive --include='*.cpp' --include='*.h' '^#include' src include sim candump |
    sed --regexp-extended 's/#include [<"](.*)[>"].*/\1/')
}

includes=$(edges)
if [[ $(wc -l <<< "$includes") -lt 200 ]]; then
  echo "FAILED: found only these includes:"
  echo "$includes"
  exit 1
fi
upwards=0
while read -r file included; do
  here=$(layer "$file")
  there=$(layer "$included")
  if [[ -n $here && -n $there && $there -gt $here ]]; then
    echo "FAILED: $file includes $included"
    upwards=1
  fi
done <<< "$includes"
if grep --extended-regexp '^(sim|candump)/' <<< "$includes" |
  grep --extended-regexp ' (src|include)/|^candump/.* sim/'; then
  echo "FAILED: these are to share nothing with the library, or with the simulator"
  upwards=1
fi
if ! order=$(sed --regexp-extended 's/\.(cpp|h)\>//g' <<< "$includes" | tsort 2>&1); then
  echo "FAILED: these include one another:"
  grep '^tsort' <<< "$order"
  exit 1
fi
exit "$upwards"
