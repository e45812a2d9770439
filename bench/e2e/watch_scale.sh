#!/usr/bin/env bash
# Watch coverage and arm latency of the installed agent with many protected containers (root).
#   bash bench/e2e/watch_scale.sh [CONTAINERS] [FILES]     (default 100 containers x 20 files)
# Arm latency of a container: from its State.StartedAt to the agent's log line saying the last
# of its protected files is watched. Prints p50/p99 of that, the coverage from the agent's
# status line, and the agent's resident memory once everything is armed. Installs build/ and
# uses the one engine, like scripts/e2e.sh (run it under the same lock). Leaves nothing behind.
# Not part of the test command.
set -euo pipefail
cd "$(dirname "$0")/../.."
source scripts/lib/agent-run.sh
cmake --install build >/dev/null
bash scripts/dockerd.sh start >/dev/null
bash scripts/dockerd.sh image >/dev/null
N=${1:-100}
FILES=${2:-20}
WORK=$(mktemp -d /tmp/tarnwick-watchscale.XXXXXX)
IMAGE=tarnwick/busybox-bench:watchscale
PREFIX=twbench-$$

cleanup() {
  docker ps -aq --filter "name=$PREFIX" | xargs -r docker rm -f >/dev/null 2>&1 || true
  agent_stop || true
  docker rmi -f "$IMAGE" >/dev/null 2>&1 || true
  rm -rf "$WORK"
}
trap cleanup EXIT

# Files the image has: Docker's three mounted ones, two of its own, the rest in a directory.
paths=(/etc/passwd /etc/group /etc/hosts /etc/resolv.conf /etc/hostname)
for i in $(seq 1 $((FILES - ${#paths[@]}))); do paths+=("/etc/bench/f$i.conf"); done
paths=("${paths[@]:0:$FILES}")
docker run --name "$PREFIX-base" "$BUSYBOX_IMAGE" \
  sh -c "mkdir -p /etc/bench && touch ${paths[*]:5}" >/dev/null 2>&1 || true
docker commit "$PREFIX-base" "$IMAGE" >/dev/null
docker rm -f "$PREFIX-base" >/dev/null

sed 's/^status.interval_s *=.*//' "$TARNWICK_PREFIX/etc/agent.properties" > "$WORK/agent.properties"
echo "status.interval_s = 2" >> "$WORK/agent.properties"
write_policy "$WORK/policy.d" tarnwick/busybox-bench false "${paths[@]}"
AGENT_CONFIG=$WORK/agent.properties agent_start "$WORK"

for i in $(seq 1 "$N"); do
  docker run -d --name "$PREFIX-$i" "$IMAGE" sleep 3600 >/dev/null
done
expected=$((N * FILES))
armed() { [ "$(grep -c 'armed on the file' "$WORK/agent.log")" -ge "$expected" ]; }
wait_for 300 armed || echo "not every file armed within 300 s" >&2
wait_for 10 grep -q "Status filenotify.coverage: $expected/$expected" "$WORK/agent.log" || true
rss=$(awk '/VmRSS/ {print $2, $3}' /proc/"$AGENT_PID"/status)
coverage=$(grep "Status filenotify.coverage" "$WORK/agent.log" | tail -1 | sed 's/.*coverage: //; s/,.*//')

docker ps -q --filter "name=$PREFIX-" | xargs docker inspect \
  -f '{{.State.StartedAt}} {{.GraphDriver.Data.MergedDir}}' > "$WORK/started"
python3 - "$WORK/started" "$WORK/agent.log" "$coverage" "$rss" "$N" "$FILES" <<'PY'
import re, sys
from datetime import datetime, timezone
started_file, log_file, coverage, rss, n, files = sys.argv[1:]
started = {}
for line in open(started_file):
    stamp, root = line.split()
    # RFC 3339 with nanoseconds, UTC: keep microseconds.
    base, frac = stamp.rstrip("Z").split(".")
    t = datetime.strptime(base, "%Y-%m-%dT%H:%M:%S").replace(tzinfo=timezone.utc).timestamp()
    started[root] = t + float("0." + frac)
armed = {}
pattern = re.compile(r"^(\S+ \S+) .*File notify: watch on (\S+) armed on the file")
for line in open(log_file):
    m = pattern.match(line)
    if not m:
        continue
    path = m.group(2)
    for root in started:
        if path.startswith(root + "/"):
            t = datetime.strptime(m.group(1), "%Y-%m-%d %H:%M:%S.%f").replace(
                tzinfo=timezone.utc).timestamp()
            armed.setdefault(root, {}).setdefault(path, t)
            break
lat = sorted((max(p.values()) - started[r]) * 1000 for r, p in armed.items())
def pct(q):
    return lat[min(len(lat) - 1, int(round(q / 100 * (len(lat) - 1))))]
print(f"containers {n} x files {files}: coverage {coverage}")
print(f"arm latency (StartedAt -> last file watched), {len(lat)} containers: "
      f"p50 {pct(50):.0f} ms, p99 {pct(99):.0f} ms, max {lat[-1]:.0f} ms")
print(f"agent RSS with everything armed: {rss}")
PY
