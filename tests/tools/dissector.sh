#!/usr/bin/env bash
# The Wireshark dissector on a recording of a short orch_demo run: message ids,
# entry counts, the transfer's table rows and smoothing types must match what
# the demo received, with no expert error; then damaged frames must be marked
# malformed rather than stop the dissector.
# usage: dissector.sh ORCH_DEMO QOV_LUA WORK_DIR   (exit 77: tshark missing)
set -euo pipefail
demo=$1 lua=$2 work=$3
if ! command -v tshark > /dev/null; then
  echo "tshark is not installed (apt-get install tshark): dissector test skipped"
  exit 77
fi
rm -rf "$work" && mkdir -p "$work" && cd "$work"
ts() { tshark -X "lua_script:$lua" "$@" 2> tshark.err; }

"$demo" --keys 1000 --duration 300 --flood 0 --rate 2000 --record rec.pcap --log demo.log > demo.out
msgs=$(sed -n 's/^messages received *\([0-9]*\) in.*/\1/p' demo.out)
entries=$(sed -n 's/^entries received *\([0-9]*\)$/\1/p' demo.out)

ts -r rec.pcap -T fields -e qov.msgid -e qov.recv.entries -e qov.tlv.entries -e qov.smooth.type \
  -E occurrence=a -E aggregator=, > fields.txt
read -r got_msgs got_entries ids < <(awk -F'\t' '
  $1 != "0x5f000000" { n++; e += $2; seen[$1] = 1 }
  END { s = ""; for (k in seen) s = s k ","; print n, e + 0, s }' fields.txt)
transfer=$(awk -F'\t' '$1 == "0x7f7f7f71" { print $3 " " $4 }' fields.txt)
errors=$(ts -r rec.pcap -Y '_ws.expert.severity == error' | wc -l)
echo "demo: $msgs messages, $entries entries; dissector: $got_msgs messages, $got_entries entries, ids $ids"
echo "transfer: table rows, smoothing types: $transfer; frames with an error: $errors"
fail=0
[ "$got_msgs" = "$msgs" ] || { echo "FAILED: message count"; fail=1; }
[ "$got_entries" = "$entries" ] || { echo "FAILED: entry count"; fail=1; }
for id in 0x51000001 0x51000002 0x52000001 0x52000002 0x7f7f7f71; do
  [[ $ids == *"$id,"* ]] || { echo "FAILED: no message $id"; fail=1; }
done
[ "$transfer" = "64 7,15,8" ] || { echo "FAILED: transfer decoded as '$transfer'"; fail=1; }
[ "$errors" = 0 ] || { echo "FAILED: expert errors on good frames"; fail=1; }

# Damaged frames, written byte by byte: each must be marked malformed, none may
# raise a Lua error.
hex() { printf '%b' "$1"; }
u32le() { printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24)); }
record() { # pseudo-header of DAM, then the frame given as escapes
  local n
  n=$(( $(hex "$1" | wc -c) + 8 ))
  hex "$(u32le 0)$(u32le 0)$(u32le "$n")$(u32le "$n")\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00$1"
}
magic='\x51\x4f\x56\x46'
{
  hex '\xd4\xc3\xb2\xa1\x02\x00\x04\x00'"$(u32le 0)$(u32le 0)$(u32le 262144)$(u32le 147)"
  # transfer whose TLV claims 255 bytes, none left
  record "$magic"'\x7f\x7f\x7f\x71\x00\x00\x00\x18'"$(u32le 0)$(u32le 0)$(u32le 12)$(u32le 0x61)$(u32le 1)$(u32le 255)"
  # receive body shorter than its prefix
  record "$magic"'\x51\x00\x00\x01\x00\x00\x00\x05\x01\x02\x03\x04\x05'
  # smoothing TLV with the wrong fixed length
  record "$magic"'\x7f\x7f\x7f\x71\x00\x00\x00\x28'"$(u32le 0)$(u32le 0)$(u32le 28)$(u32le 0x61)$(u32le 100)$(u32le 16)$(u32le 7)$(u32le 12)$(u32le 0x61)$(u32le 1)"
  # frame header claiming more body than the record holds
  record "$magic"'\x51\x00\x00\x01\x00\x00\x01\x00'
} > bad.pcap
marked=$(ts -r bad.pcap -Y qov.malformed | wc -l)
luaerr=$(ts -r bad.pcap -V | grep -c "Lua Error" || true)
echo "damaged frames marked malformed: $marked of 4; Lua errors: $luaerr"
[ "$marked" = 4 ] && [ "$luaerr" = 0 ] || { echo "FAILED: damaged frames"; ts -r bad.pcap -V | grep -i "malformed\|error" | head -20; fail=1; }
exit $fail
