#!/usr/bin/env bash
# explain and decode as a user meets them: outputs, exit statuses, pipes.
# Usage: explain_decode_test.bash MOTORCTL DATA_DIRECTORY DATA_SHEET
set -euo pipefail
# shellcheck source=tests/motorctl/expecting.bash
source "$(dirname "$0")/expecting.bash"
motorctl=$(realpath "$1")
data=$(realpath "$2")
sheet=$(realpath "$3")
directory=$(mktemp -d -p /dev/shm)  # named pipes can be made there in every guest of with-can
trap 'rm -rf "$directory"' EXIT
cd "$directory"

is_printed() { [[ $(cat out) == "$1" ]] || fail "standard output, expected $1"; }

expect 0 '' explain 0x06090030 581#8040600030000906
is_printed '0x06090030: abort code 0x06090030: Invalid value
581#8040600030000906: SDO node 1: abort 0x6040:00 Controlword: 0x06090030 Invalid value'
expect 0 '' explain --json 0xFF01
is_printed '{"code":"0xFF01","readings":[{"kind":"error_code","value":65281,"hex":"0xFF01","meaning":"Manufacturer-specific error","text":"error code 0xFF01: Manufacturer-specific error"}]}'
expect 0 '' --make kinco explain 481#000050000100
is_printed '481#000050000100: TPDO4 of node 1: error code = 0x0000 No error | statusword = 0x0050 Switch on disabled (emergency stop); voltage enabled | digital inputs = 0x0001'
expect 1 'motorctl: nothing is known about "0xABCD"' explain 0xABCD 0x06090030
is_printed '0x06090030: abort code 0x06090030: Invalid value'
expect 1 'motorctl: nothing is known about "0xABCD"' explain 0xABCD --json
is_printed '{"code":"0xABCD","readings":[]}'
# Nothing is explained when a part of the question makes no sense.
expect 2 "$("$motorctl" explain hello 2>&1 || true)" explain 0x3210 hello
is_printed ''
grep -q '"hello" is not a code' err || fail 'usage text'
expect 2 'motorctl: CODE is required; see --help' explain

for make in zl tt hls amps kinco; do
  expect 0 '' decode "$data/$make.log" --make "$make"
  cmp out "$data/$make.txt" || fail "decode of $make"
done
"$motorctl" decode --make zl <"$data/zl.log" >out 2>err || fail 'decode of standard input'
cmp out "$data/zl.txt" || fail 'decode of standard input'
"$motorctl" decode - --make zl <"$data/zl.log" | cmp - "$data/zl.txt" || fail 'decode -'
# Names and PDOs of a data sheet; a wrong one is refused before anything is read.
printf '(1.0) can0 605#4010200000000000\n(1.0) can0 185#3700000001000000\n' >log
expect 0 '' decode --eds "$sheet" log
is_printed '(1.0) can0 605#4010200000000000                 SDO node 5: read 0x2010:00
(1.0) can0 185#3700000001000000                 TPDO1 of node 5: Statusword = 0x0037 Operation enabled; voltage enabled | Error code = 0x0000 No error | Position actual internal value = 1'
expect 0 '' explain 605#2BF02F09FEFF0000 --eds "$sheet"
is_printed '605#2BF02F09FEFF0000: SDO node 5: write 0x2FF0:09 Commands: Velocity command = -2'
sed 's/^SubNumber=5/SubNumber=6/' "$sheet" >wrong.eds
expect 1 "motorctl: wrong.eds:$(grep -n -m 1 '^SubNumber=6' wrong.eds | cut -d : -f 1): [1018] SubNumber: 6, but there are 5 sections of it" --eds wrong.eds decode log
is_printed ''
expect 1 'motorctl: absent.eds: No such file or directory' decode --eds absent.eds log
expect 125 'motorctl: absent.eds: No such file or directory' --eds absent.eds guard 1 -- true
expect 1 'motorctl: absent: No such file or directory' decode absent
expect 1 'motorctl: .: Is a directory' decode .
printf 'x\n\n(1.0) can0 080#\ny\n' >log
expect 1 'motorctl: 2 lines without a frame' decode log
expect 0 '' decode /dev/null
is_printed ''
if "$motorctl" decode "$data/zl.log" >/dev/full 2>err; then fail 'a full disk'; fi

# A reader that goes away ends it, without a word.
for ((i = 0; i < 20000; ++i)); do echo '(1.0) can0 701#05'; done >log
status=0
timeout 30 "$motorctl" decode log 2>err | head -n 1 >out || status=$?
[[ $status == 1 && ! -s err ]] || fail "reader gone: exit status $status"
grep -q 'heartbeat of node 1' out || fail 'reader gone: the line that was read'

# Live: a line is out before the next one comes. The writer holds the pipe open meanwhile.
mkfifo in live
"$motorctl" decode <in >live &
exec 3>in 4<live
for state in 05 7F; do
  printf '(1.0) can0 701#%s\n' "$state" >&3
  IFS= read -r -t 30 line <&4 || fail "nothing came out for $state"
  [[ $line == "(1.0) can0 701#$state  "* ]] || fail "live: $line"
done
exec 3>&-
wait $! || fail 'end of standard input'

exit $((failures > 0))
