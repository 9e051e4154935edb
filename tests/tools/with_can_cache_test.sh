#!/bin/bash
# Checks that launchers share a cache of kernels: each finds there what is finished, made once.
set -u

# shellcheck source=tests/tools/check.bash
source "${BASH_SOURCE[0]%/*}/check.bash"
root=$(realpath "${BASH_SOURCE[0]%/*}/../..")
scratch=$(mktemp -d /tmp/with_can_cache_test.XXXXXXXX)
trap 'rm -rf "$scratch"' EXIT

# NAME: makes cache, an empty one.
make_cache() {
  cache=$scratch/$1/motor_driver
  mkdir -p "$cache"
}

# COMMAND...
with_cache() { XDG_CACHE_HOME=${cache%/*} "$@"; }

# The system of that machine, which takes long to make, is there already.
TwoAtOnceMakeOneKernel() {
  local system pids=() number
  system=$("$root/tools/arm64-sysroot") || exit
  make_cache two
  ln -s "$system" "$cache"
  for number in 1 2; do
    with_cache "$root/tools/with-can" --arm64 uname -m </dev/null >"$scratch/output.$number" 2>&1 &
    pids+=("$!")
  done
  wait "${pids[@]}"
  check "first of two" aarch64 "$(cat "$scratch/output.1")"
  check "second of two" aarch64 "$(cat "$scratch/output.2")"
  check "one kernel, nothing unfinished" "${system##*/} linux-image-arm64 lock" \
    "$(cd "$cache" && echo * | sed 's/\(linux-image-arm64\)-[0-9]*/\1/')"
  check "contents" "initramfs vmlinux" "$(cd "$cache"/linux-image-* && echo *)"
}

# As one that still runs, or was killed, leaves it.
AnUnfinishedKernelIsNotTaken() {
  local image unfinished
  image=$("$root/tools/guest/image" icount) || exit
  make_cache unfinished
  ln -s "$image" "$cache"
  for unfinished in unpack.12345678/tree fetching.12345678/unpacked; do
    mkdir -p "$cache/$unfinished/boot"
    touch "$cache/$unfinished/boot/vmlinuz-99.9.9-amd64"
  done
  with_cache "$root/bench/run" true </dev/null >"$scratch/output" 2>&1
  check "beside an unfinished kernel" "0" "$?$(cat "$scratch/output")"
}

AnUnfinishedKernelIsNotTaken
TwoAtOnceMakeOneKernel

finish
