#!/usr/bin/env bash
# Records a short orch_demo run, plays the recording into a fresh
# orch_demo --connect through qov_replay, and expects the same final-table
# digest line from both runs.
# usage: record_replay.sh ORCH_DEMO QOV_REPLAY WORK_DIR
set -euo pipefail
demo=$1 replay=$2 work=$3
rm -rf "$work" && mkdir -p "$work" && cd "$work"
workload=(--keys 3000 --duration 800 --flood 400 --rate 3000 --high 2000 --low 500)

"$demo" "${workload[@]}" --record rec.pcap --log live.log > live.out
grep -q "check: passed" live.out || { echo "the recorded run failed its own check"; cat live.out; exit 1; }

"$replay" --port 0 --accept 20000 rec.pcap > replay.out 2>&1 &
pid=$!
for _ in $(seq 100); do grep -q "listening on" replay.out && break; sleep 0.1; done
port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' replay.out)
[ -n "$port" ] || { echo "qov_replay did not listen"; cat replay.out; kill "$pid"; exit 1; }
"$demo" --keys 3000 --connect "$port" --log replayed.log > replayed.out || true
wait "$pid" || { echo "qov_replay failed"; cat replay.out; exit 1; }
cat replay.out

live=$(grep "final table digest" live.out)
replayed=$(grep "final table digest" replayed.out || true)
echo "recorded run: $live"
echo "replayed run: $replayed"
[ "$live" = "$replayed" ] || { echo "FAILED: the replay ended with another table"; cat replayed.out; exit 1; }
