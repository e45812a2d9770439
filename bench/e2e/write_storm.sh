#!/usr/bin/env bash
# Write storm on two protected files of one container, the installed agent (default log level)
# against raw inotify on the same files in the same run (root).
#   bash bench/e2e/write_storm.sh [SECONDS]          (default 10)
# A static writer inside a busybox container rewrites the two files alternately as fast as it
# can, so that no two consecutive events on one file are alike and inotify cannot merge them;
# `inotifywait -m` watches the same files through the container's /proc/<pid>/root with the
# agent's event mask. Prints alarms/s, alarms per raw inotify event, the agent's loss counters,
# its CPU time per alarm and its memory. PERF_DATA=FILE also records the agent with
# `perf record -g` during the storm (PERF_OPTS replaces -g, e.g. "--call-graph dwarf -F 999";
# the data file is the only thing left behind). Installs $BUILD_DIR (build/)
# and uses the one engine, like scripts/e2e.sh: run it under the same lock. Not part of the
# test command.
set -euo pipefail
cd "$(dirname "$0")/../.."
source scripts/lib/agent-run.sh
SECONDS_STORM=${1:-10}
BUILD_DIR=${BUILD_DIR:-build}
WRITER=$BUILD_DIR/bin/storm_writer
[ -x "$WRITER" ] || { echo "no $WRITER: build with -DTARNWICK_BENCH=ON first" >&2; exit 2; }
cmake --install "$BUILD_DIR" >/dev/null
bash scripts/dockerd.sh start >/dev/null
bash scripts/dockerd.sh image >/dev/null

WORK=$(mktemp -d /tmp/tarnwick-writestorm.XXXXXX)
IMAGE=tarnwick/busybox-bench:writestorm
C=twbench-storm-$$
FILE_A=/etc/storm-a
FILE_B=/etc/storm-b
WATCH_PID=
PERF_PID=

cleanup() {
  [ -n "$PERF_PID" ] && kill -INT "$PERF_PID" 2>/dev/null && wait "$PERF_PID" 2>/dev/null
  [ -n "$WATCH_PID" ] && kill "$WATCH_PID" 2>/dev/null
  docker rm -f "$C" "$C-base" >/dev/null 2>&1 || true
  agent_stop || true
  docker rmi -f "$IMAGE" >/dev/null 2>&1 || true
  rm -rf "$WORK"
}
trap cleanup EXIT

# The image: busybox, the two files, the writer.
docker create --name "$C-base" "$BUSYBOX_IMAGE" true >/dev/null
touch "$WORK/empty"
docker cp "$WORK/empty" "$C-base:$FILE_A"
docker cp "$WORK/empty" "$C-base:$FILE_B"
docker cp "$WRITER" "$C-base:/storm_writer"
docker commit "$C-base" "$IMAGE" >/dev/null
docker rm -f "$C-base" >/dev/null

write_policy "$WORK/policy.d" tarnwick/busybox-bench false "$FILE_A" "$FILE_B"
AGENT_LOG_LEVEL=information agent_start "$WORK"
docker run -d --network none --name "$C" "$IMAGE" sleep 3600 >/dev/null
cpid=$(docker inspect -f '{{.State.Pid}}' "$C")

alarms() { grep -c '"dockerfile_001"' "$WORK/alarms.jsonl" || true; }
# Armed once a write to the first file is reported.
armed() { docker exec "$C" sh -c "echo probe >> $FILE_A" && [ "$(alarms)" -gt 0 ]; }
wait_for 30 armed || { echo "the agent never reported a write to $FILE_A" >&2; exit 1; }

# The agent's mask on a file: modify, attributes, deleted, moved (create/delete/move name a
# child of a directory and never come from a file watch).
inotifywait -m -q -e modify,attrib,delete_self,move_self --format '%e %w' \
  "/proc/$cpid/root$FILE_A" "/proc/$cpid/root$FILE_B" > "$WORK/raw" 2> "$WORK/raw.err" &
WATCH_PID=$!
# inotifywait -q says nothing once its watches are set: probe until it reports a write.
raw_armed() { docker exec "$C" sh -c "echo probe >> $FILE_B" && [ -s "$WORK/raw" ]; }
wait_for 10 raw_armed || { echo "inotifywait never reported a write" >&2; exit 1; }
# Let the agent catch up with the probes, then start from a quiet state.
settled() {
  local a; a=$(alarms); sleep 1; [ "$(alarms)" -eq "$a" ]
}
wait_for 30 settled || true
raw_before=$(wc -l < "$WORK/raw")
alarms_before=$(alarms)

cpu_ticks() { awk '{print $14 + $15}' /proc/"$AGENT_PID"/stat; }
hz=$(getconf CLK_TCK)
cpu_before=$(cpu_ticks)
if [ -n "${PERF_DATA:-}" ]; then
  read -r -a perf_opts <<< "${PERF_OPTS:--g}"
  perf record "${perf_opts[@]}" -q -o "$PERF_DATA" -p "$AGENT_PID" 2> "$WORK/perf.err" &
  PERF_PID=$!
  sleep 1
fi
start=$EPOCHREALTIME
writes=$(docker exec "$C" /storm_writer "$SECONDS_STORM" "$FILE_A" "$FILE_B")
writer_end=$EPOCHREALTIME

# Drain: until the alarm count has not moved for 2 s (at most 120 s). The time of the last
# alarm is when the count last moved.
last_count=-1
last_move=$EPOCHREALTIME
deadline=$((SECONDS + 120))
while [ "$SECONDS" -lt "$deadline" ]; do
  n=$(alarms)
  if [ "$n" -ne "$last_count" ]; then
    last_count=$n
    last_move=$EPOCHREALTIME
  elif awk -v a="$EPOCHREALTIME" -v b="$last_move" 'BEGIN { exit !(a - b >= 2) }'; then
    break
  fi
  sleep 0.1
done
cpu_after=$(cpu_ticks)
if [ -n "$PERF_PID" ]; then
  kill -INT "$PERF_PID"
  wait "$PERF_PID" 2>/dev/null || true
  PERF_PID=
fi
rss=$(awk '/VmRSS/ {print $2}' /proc/"$AGENT_PID"/status)
hwm=$(awk '/VmHWM/ {print $2}' /proc/"$AGENT_PID"/status)
kill "$WATCH_PID" 2>/dev/null || true
wait "$WATCH_PID" 2>/dev/null || true
WATCH_PID=
raw=$(($(grep -vc OVERFLOW "$WORK/raw" || true) - raw_before))
raw_overflow=$(grep -c OVERFLOW "$WORK/raw" || true)
storm_alarms=$(($(alarms) - alarms_before))

# The status line at shutdown carries every counter of the run.
agent_stop
counters=$(grep 'Status: ' "$WORK/agent.log" | tail -n 1 | sed 's/.*Status: //')

python3 - "$SECONDS_STORM" "$writes" "$start" "$writer_end" "$last_move" "$raw" "$raw_overflow" \
  "$storm_alarms" "$cpu_before" "$cpu_after" "$hz" "$rss" "$hwm" "$counters" <<'PY'
import re, sys
(secs, writes, start, wend, last, raw, raw_ovf, alarms, cpu0, cpu1, hz, rss, hwm,
 counters) = sys.argv[1:]
writes, raw, raw_ovf, alarms = int(writes), int(raw), int(raw_ovf), int(alarms)
start, wend, last = float(start), float(wend), float(last)
cpu_us = (int(cpu1) - int(cpu0)) * 1e6 / int(hz)
span = max(last, wend) - start
counts = dict((k, int(v)) for k, v in re.findall(r"([\w.]+)=(\d+)", counters))
lost = {k: v for k, v in counts.items() if re.search(r"overflow|dropped|lost|truncated", k) and v}
rows = [
    ("storm", f"{secs} s, 2 files"),
    ("writes (1 modify event each)", f"{writes} ({writes / (wend - start):.0f}/s)"),
    ("raw inotify events (inotifywait)", f"{raw}" + (f", {raw_ovf} queue overflows" if raw_ovf else "")),
    ("alarms", f"{alarms}"),
    ("alarms/s (storm start to last alarm)", f"{alarms / span:.0f}"),
    ("last alarm after the writer ended", f"{max(0.0, last - wend):.1f} s"),
    ("alarms / raw inotify events", f"{alarms / raw:.3f}" if raw else "n/a"),
    ("events lost by counter", ", ".join(f"{k}={v}" for k, v in lost.items()) or "none"),
    ("agent CPU", f"{cpu_us / 1e6:.2f} s"),
    ("agent CPU per alarm", f"{cpu_us / alarms:.1f} us" if alarms else "n/a"),
    ("agent RSS after the storm / peak", f"{int(rss) / 1024:.1f} MiB / {int(hwm) / 1024:.1f} MiB"),
]
width = max(len(r[0]) for r in rows)
for name, value in rows:
    print(f"{name:<{width}}  {value}")
other = {k: v for k, v in counts.items() if v and k not in lost}
if other:
    print("other counters: " + ", ".join(f"{k}={v}" for k, v in sorted(other.items())))
PY
