#!/bin/sh
# Resident memory of an orchestrator under a long flood with a slow handler:
# runs orch_demo (its own broker, flooding from the start) and samples VmRSS
# once a second. The queues stay between their water marks, so after the
# first seconds nothing should grow; the run fails when RSS after the warm-up
# moves by more than the allowed spread.
#   tools/rss_flood.sh [build-dir] [seconds] [warm-up seconds] [spread kB]
# Defaults: build, 120, 10, 2048. Prints "t_s rss_kB" lines, then the demo's
# check line and the verdict; the demo's whole output is kept in rss_flood.out.
set -eu
build=${1:-build}
secs=${2:-120}
warm=${3:-10}
spread=${4:-2048}
demo=$build/examples/orch_demo
[ -x "$demo" ] || { echo "$0: $demo not built (cmake --build $build --target orch_demo)" >&2; exit 1; }

ms=$((secs * 1000))
"$demo" --duration "$ms" --flood "$ms" --handler-ns 20000 --log /dev/null >rss_flood.out &
pid=$!
trap 'kill "$pid" 2>/dev/null || true' EXIT INT TERM

t=0 min= max= first=
while [ "$t" -lt "$secs" ] && kill -0 "$pid" 2>/dev/null; do
  sleep 1
  t=$((t + 1))
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || break
  [ -n "$rss" ] || break
  echo "$t $rss"
  if [ "$t" -gt "$warm" ]; then
    [ -n "$first" ] || first=$rss
    if [ -z "$min" ] || [ "$rss" -lt "$min" ]; then min=$rss; fi
    if [ -z "$max" ] || [ "$rss" -gt "$max" ]; then max=$rss; fi
  fi
done
wait "$pid" || { echo "$0: orch_demo failed" >&2; exit 1; }
trap - EXIT INT TERM
grep '^check:' rss_flood.out || true
[ -n "$min" ] || { echo "$0: no samples after the warm-up" >&2; exit 1; }
echo "after ${warm} s: first ${first} kB, min ${min} kB, max ${max} kB, spread $((max - min)) kB (allowed ${spread})"
[ $((max - min)) -le "$spread" ]
