#!/usr/bin/env bash
# The README's live view: orch_demo with its control endpoint, watched by
# qovctl top, scraped by qovctl metrics while the queues move.
# Usage: qovctl_demo.sh ORCH_DEMO QOVCTL WORK_DIR
set -euo pipefail
demo=$1 ctl=$2 dir=$3
rm -rf "$dir" && mkdir -p "$dir"
sock=$dir/ctl.sock
"$demo" --ctl "$sock" --keys 20000 --duration 3000 --flood 1500 --high 4000 --low 1000 --log "$dir/demo.log" \
  > "$dir/demo.out" &
pid=$!
for _ in $(seq 100); do [ -S "$sock" ] && break; sleep 0.05; done
"$ctl" -s "$sock" top -n 2 -i 500 > "$dir/top.out"
grep -q 'orchDemo_DAM' "$dir/top.out" && grep -q 'orchDemo_DATA_FES' "$dir/top.out" || { cat "$dir/top.out"; exit 1; }
depths=()
for _ in 1 2 3 4 5 6; do
  depths+=("$("$ctl" -s "$sock" metrics | sed -n 's/^qov_queue_appends_total{queue="orchDemo_DAM"} //p')")
  sleep 0.2
done
echo "DAM appends seen by successive scrapes: ${depths[*]}"
[ "${depths[0]}" != "${depths[5]}" ] || { echo "the queue did not move"; exit 1; }
if "$ctl" -s "$sock" queue noSuchQueue 2> "$dir/err.out"; then echo "an unknown queue answered"; exit 1; fi
grep -q '^error: no queue noSuchQueue' "$dir/err.out"
wait "$pid"
grep -q 'check: passed' "$dir/demo.out"
[ ! -e "$sock" ] || { echo "the socket file stayed"; exit 1; }
