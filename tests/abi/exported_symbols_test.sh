#!/usr/bin/env bash
# Compares the symbols that a library exports with its list in the package: hosts that were built
# before need every one of them.
# Usage: exported_symbols_test.sh LIBRARY, named without its version
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "$0")/../.." && pwd)
list=packaging/debian/symbols.in
version=$(sed -n 's/^project(motor_driver VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")

library=$(basename "$1")
listed=$(awk -v soname="$library.@soversion@" '/^[^ *]/ { here = $1 == soname } here && sub(/^ /, "") && sub(/@.*/, "")' \
  "$root/$list" | sort)
[[ -n $listed ]] || { echo "FAILED: $list lists nothing of $library"; exit 1; }
# Instantiations of standard templates slip through where nothing is inlined.
exported=$(nm --dynamic --defined-only --format=posix "$1" | cut -d ' ' -f 1 |
  grep -vE '^_ZNK?(St|9__gnu_cxx)|^_ZSt' | sort)

mapfile -t removed < <(comm -23 <(echo "$listed") <(echo "$exported"))
mapfile -t added < <(comm -13 <(echo "$listed") <(echo "$exported"))

if ((${#removed[@]} > 0)); then
  echo "FAILED: no longer exported; a host that uses one of these would not start:"
  printf '  %s\n' "${removed[@]}" | c++filt
  echo "Bring them back, or change the SONAME (CONTRIBUTING.md, \"ABI\") and take out of $list:"
  printf ' %s\n' "${removed[@]}"
fi
if ((${#added[@]} > 0)); then
  echo "FAILED: exported, but not listed:"
  printf '  %s\n' "${added[@]}" | c++filt
  echo "If hosts may use them from this version on, add to $list:"
  printf " %s@Base $version\n" "${added[@]}"
fi
((${#removed[@]} + ${#added[@]} == 0))
echo "$(wc -l <<< "$exported") symbols of $library, as listed"
