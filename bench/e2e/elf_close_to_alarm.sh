#!/usr/bin/env bash
# How long from a writer closing an executable inside a protected container to its
# "dockerfile_002" alarm in the alarm file (root; the installed agent, a real dockerd and the
# Debian 12 test image). Prints the count and the p50 / p99 / max latency in milliseconds.
#   bench/e2e/elf_close_to_alarm.sh [COUNT]
set -euo pipefail
cd "$(dirname "$0")/../.."
COUNT=${1:-50}
source scripts/lib/agent-run.sh
bash scripts/dockerd.sh start >/dev/null
bash scripts/debian-image.sh image

WORK=$(mktemp -d /tmp/tarnwick-bench.XXXXXX)
C=bench-latency-$$
TAIL_PID=
cleanup() {
  [ -n "$TAIL_PID" ] && kill "$TAIL_PID" 2>/dev/null || true
  docker rm -f "$C" >/dev/null 2>&1 || true
  agent_stop
  rm -rf "$WORK"
}
trap cleanup EXIT

write_policy "$WORK/policy.d" tarnwick/debian12 true /etc/passwd
AGENT_LOG_LEVEL=information agent_start "$WORK"
cid=$(docker run -d --network none --name "$C" tarnwick/debian12:latest sleep 600)
wait_for 20 audit_rule_present "$cid"

# Each alarm line stamped as it lands (bash's own clock: no fork between landing and stamp).
tail -n0 -F "$WORK/alarms.jsonl" 2>/dev/null | while IFS= read -r line; do
  echo "$EPOCHREALTIME $line"
done > "$WORK/seen" &
TAIL_PID=$!
sleep 0.5

# The container stamps the moment cp returned, i.e. after it closed the file.
docker exec "$C" bash -c "for i in \$(seq 1 $COUNT); do cp /usr/bin/true /tmp/lat\$i; echo \"\$EPOCHREALTIME /tmp/lat\$i\"; sleep 0.05; done" > "$WORK/closed"
wait_for 20 bash -c "[ \$(grep -c dockerfile_002 '$WORK/seen') -ge $COUNT ]" || true

while read -r closed path; do
  seen=$(grep -F "\"file_path\":\"$path\"" "$WORK/seen" | head -n 1 | cut -d' ' -f1)
  [ -n "$seen" ] && echo "$closed $seen" | awk '{printf "%.3f\n", ($2 - $1) * 1000}'
done < "$WORK/closed" | sort -n > "$WORK/latencies"

n=$(wc -l < "$WORK/latencies")
pick() { sed -n "$(( ($1 * n + 99) / 100 ))p" "$WORK/latencies"; }
echo "executables written: $COUNT, reported: $n"
[ "$n" -gt 0 ] && echo "close to alarm (ms): p50 $(pick 50)  p99 $(pick 99)  max $(tail -n 1 "$WORK/latencies")"
