#!/usr/bin/env bash
# report as a user meets it: outputs, files, exit statuses.
# Usage: report_test.bash MOTORCTL DATA_DIRECTORY
set -euo pipefail
# shellcheck source=tests/motorctl/expecting.bash
source "$(dirname "$0")/expecting.bash"
motorctl=$(realpath "$1")
data=$(realpath "$2")
directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
cd "$directory"

holds() { grep -qF -- "$1" "${2-out}" || fail "expected in ${2-out}: $1"; }

cp "$data/zl.log" .
expect 0 '' report zl.log --make zl
cmp out "$data/reports/zl.txt" || fail 'the text'
expect 0 '' --json report zl.log --make zl --bit-rate 500000
holds '"bit_rate":500000'
holds '"make_from":"--make"'
expect 0 '' report zl.log --make zl --html page.html --csv table.csv
holds '<!DOCTYPE html>' page.html
holds 'second,time,wheel,node,motor,commanded_rpm' table.csv
expect 0 '' report zl.log --make zl --html second.html
if [[ $(grep -o 'nonce-[0-9A-F]*' page.html) == $(grep -o 'nonce-[0-9A-F]*' second.html) ]]; then
  fail 'the same nonce twice'
fi
expect 0 'motorctl: table.csv: no speeds: --make or --vehicle tells how PDOs are laid out' \
  report zl.log --csv table.csv
holds 'make unknown: PDOs are not taken apart; name it with --make or --vehicle'
expect 1 'motorctl: cannot write absent/page.html: No such file or directory' \
  report zl.log --html absent/page.html
expect 1 'motorctl: cannot write /dev/full: No space left on device' report zl.log --csv /dev/full
expect 1 'motorctl: absent: No such file or directory; name a folder of motorctl record, or a log' \
  report absent
expect 1 'motorctl: zl.log: no frame of can7, which --interface names; there are: can1 (115 frames)' \
  report zl.log --interface can7
expect 2 'motorctl: PATH is required; see --help' report
expect 2 'motorctl: --bit-rate: Value 5 not in range 1000 to 1000000; see --help' \
  report zl.log --bit-rate 5

# The vehicle of the folder, that of the command line, and what is said besides.
mkdir incident
cp "$data/kinco.log" incident/bus.log
printf 'motorctl 0.1.0\n    bitrate 250000 sample-point 0.875\n\nvehicle:\n%s\n' \
  'make: kinco
counts_per_revolution: 5000
wheels:
  - {name: front, node: 1}' >incident/system.txt
printf '{"time":1795184320.0,"event":"boot_up","trigger":true,"text":"it","node":1,"frame":null}\n' \
  >incident/events.jsonl
expect 0 '' report incident/
holds 'make kinco (system.txt), 5000 counts per revolution'
holds 'front, node 1: 8 commands, at most 120.0 rpm'
holds 'of 250 kbit/s (system.txt)'
holds 'times in s from the trigger, 2026-11-20 14:18:40.000 UTC'
expect 0 '' report incident --counts-per-revolution 10000
holds 'front, node 1: 8 commands, at most 60.0 rpm'
expect 0 '' report incident --make tt
holds 'make tt (--make)'
printf 'make: zl\nwheels:\n  - {name: back, node: 1}\n' >vehicle.yaml
expect 0 '' report incident --vehicle vehicle.yaml
holds 'make zl (--vehicle)'
holds 'back, node 1 motor 1:'
if "$motorctl" report zl.log >/dev/full 2>err; then fail 'a full disk'; fi

exit $((failures > 0))
