#!/usr/bin/env bash
# Executable storm: COUNT copies of a small ELF written into a container whose image forbids
# executables, against the installed agent (information level), a real dockerd and the kernel
# audit system (root).
#   bash bench/e2e/elf_storm.sh [COUNT]               (default 2000)
# Prints the alarms received, the time from the last copy's close to its alarm, the kernel's
# audit lost counter before and after, and the agent's CPU time. Installs $BUILD_DIR (build/)
# and uses the one engine, like scripts/e2e.sh: run it under the same lock. Not part of the
# test command.
set -euo pipefail
cd "$(dirname "$0")/../.."
source scripts/lib/agent-run.sh
COUNT=${1:-2000}
BUILD_DIR=${BUILD_DIR:-build}
cmake --install "$BUILD_DIR" >/dev/null
bash scripts/dockerd.sh start >/dev/null
bash scripts/debian-image.sh image >/dev/null

WORK=$(mktemp -d /tmp/tarnwick-elfstorm.XXXXXX)
C=twbench-elf-$$
TAIL_PID=
cleanup() {
  [ -n "$TAIL_PID" ] && kill "$TAIL_PID" 2>/dev/null
  docker rm -f "$C" >/dev/null 2>&1 || true
  agent_stop || true
  rm -rf "$WORK"
}
trap cleanup EXIT

write_policy "$WORK/policy.d" tarnwick/debian12 true /etc/passwd
AGENT_LOG_LEVEL=information agent_start "$WORK"
cid=$(docker run -d --network none --name "$C" tarnwick/debian12:latest sleep 3600)
wait_for 20 audit_rule_present "$cid" || { echo "no audit rule for the container" >&2; exit 1; }

# Each alarm line stamped as it lands (bash's own clock: no fork between landing and stamp).
tail -n0 -F "$WORK/alarms.jsonl" 2>/dev/null | while IFS= read -r line; do
  case $line in *'"dockerfile_002"'*) echo "$EPOCHREALTIME ${#line}" ;; esac
done > "$WORK/seen" &
TAIL_PID=$!
sleep 0.5

audit_lost() { auditctl -s | awk '$1 == "lost" {print $2}'; }
cpu_ticks() { awk '{print $14 + $15}' /proc/"$AGENT_PID"/stat; }
lost_before=$(audit_lost)
cpu_before=$(cpu_ticks)
# The container stamps the start and the moment the last cp returned (its close is behind it).
docker exec "$C" bash -c "echo \$EPOCHREALTIME; for i in \$(seq 1 $COUNT); do
  cp /usr/bin/true /tmp/storm\$i; done; echo \$EPOCHREALTIME" > "$WORK/closed"

# Until every copy is reported, or nothing new came for 10 s.
quiet_or_done() {
  local n; n=$(wc -l < "$WORK/seen")
  [ "$n" -ge "$COUNT" ] && return 0
  sleep 10
  [ "$(wc -l < "$WORK/seen")" -eq "$n" ]
}
wait_for 300 quiet_or_done || true
cpu_after=$(cpu_ticks)
lost_after=$(audit_lost)
kill "$TAIL_PID" 2>/dev/null || true
TAIL_PID=
distinct=$(jq -r 'select(.event_classid == "dockerfile_002") | .file_info[0].file_path' \
  "$WORK/alarms.jsonl" | sort -u | grep -c '^/tmp/storm' || true)
agent_stop
counters=$(grep 'Status: ' "$WORK/agent.log" | tail -n 1 | sed 's/.*Status: //')

first_close=$(sed -n 1p "$WORK/closed")
last_close=$(sed -n 2p "$WORK/closed")
last_alarm=$(tail -n 1 "$WORK/seen" | cut -d' ' -f1)
received=$(wc -l < "$WORK/seen")
hz=$(getconf CLK_TCK)
awk -v count="$COUNT" -v got="$received" -v distinct="$distinct" -v t0="$first_close" \
  -v t1="$last_close" -v t2="${last_alarm:-0}" -v l0="$lost_before" -v l1="$lost_after" \
  -v c0="$cpu_before" -v c1="$cpu_after" -v hz="$hz" -v counters="$counters" 'BEGIN {
  cpu = (c1 - c0) / hz
  printf "%-40s %d in %.2f s (%.0f/s)\n", "executables written", count, t1 - t0, count / (t1 - t0)
  printf "%-40s %d (%d distinct paths)\n", "dockerfile_002 alarms received", got, distinct
  if (got > 0) printf "%-40s %.0f ms\n", "last close to last alarm", (t2 - t1) * 1000
  printf "%-40s %d -> %d\n", "kernel audit lost (auditctl -s)", l0, l1
  printf "%-40s %.2f s", "agent CPU", cpu
  if (got > 0) printf " (%.0f us per alarm)", cpu * 1e6 / got
  n = split(counters, c, ", "); shown = ""
  for (i = 1; i <= n; i++) if (c[i] !~ /=0$/) shown = shown (shown == "" ? "" : ", ") c[i]
  printf "\n%-40s %s\n", "agent counters at shutdown (not 0)", shown == "" ? "none" : shown
}'
