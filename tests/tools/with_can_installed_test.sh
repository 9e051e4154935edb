#!/bin/bash
# Checks that an installed with-can finds what it needs, whatever kernel is asked for.
# usage: with_can_installed_test.sh BUILD_DIRECTORY
set -u
shopt -s extglob

# shellcheck source=tests/tools/check.bash
source "${BASH_SOURCE[0]%/*}/check.bash"
scratch=$(mktemp -d /tmp/with_can_installed_test.XXXXXXXX)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$1" --prefix "$scratch/first" --component tools >"$scratch/install.log" ||
  { cat "$scratch/install.log"; exit 1; }
# A prefix may be staged in one place and used in another.
mv "$scratch/first" "$scratch/prefix"
for kernel in auto smp icount arm64; do
  # shellcheck disable=SC2016  # for the shell in the guest
  text=$(cd "$scratch" && prefix/bin/with-can --kernel "$kernel" sh -c '
    echo "$WITH_CAN"; ip -brief link show can1 >/dev/null && echo "pair"' </dev/null)
  check "$kernel" "$kernel"$'\n'pair "${text/#@(native|uml)/auto}"
done

finish
