#!/usr/bin/env bash
# Many protected containers against the installed agent (debug level, for the per-file log
# lines), a real dockerd and the kernel audit system (root).
#   bash bench/e2e/scale.sh [CONTAINERS] [FILES]      (default 100 containers x 20 files)
# Each container's image protects FILES files (/etc/passwd, /etc/group, Docker's mounted
# /etc/hosts, /etc/resolv.conf, /etc/hostname, the rest in /etc/bench) and forbids
# executables, so it gets FILES inotify watches and one audit rule. Arm latency of a container:
# from its `docker run -d` returning to the later of the agent's log lines saying the last of
# its files is watched (as the container sees it, through its process's root) and saying its
# audit rule is added; negative when the agent was done before the engine answered. Prints
# p50/p99/max of that, the coverage from the agent's status line, its resident memory (and per
# container), then removes every container and reports what the agent still holds. Installs
# $BUILD_DIR (build/) and uses the one engine, like scripts/e2e.sh: run it under the same
# lock. Leaves nothing behind. Not part of the test command.
# HEAP_PROFILE=FILE attaches heaptrack (through gdb) once the agent runs, so that FILE.zst
# holds what the containers cost by call site: heaptrack_print -f FILE.zst --print-peaks 1.
set -euo pipefail
cd "$(dirname "$0")/../.."
source scripts/lib/agent-run.sh
N=${1:-100}
FILES=${2:-20}
BUILD_DIR=${BUILD_DIR:-build}
cmake --install "$BUILD_DIR" >/dev/null
bash scripts/dockerd.sh start >/dev/null
bash scripts/dockerd.sh image >/dev/null
WORK=$(mktemp -d /tmp/tarnwick-scale.XXXXXX)
IMAGE=tarnwick/busybox-bench:scale
PREFIX=twbench-$$

cleanup() {
  docker ps -aq --filter "name=$PREFIX" | xargs -r docker rm -f >/dev/null 2>&1 || true
  agent_stop || true
  docker rmi -f "$IMAGE" >/dev/null 2>&1 || true
  rm -rf "$WORK"
}
trap cleanup EXIT

inotify_watches() {  # inotify watches the agent holds
  local total=0 fd n
  for fd in /proc/"$AGENT_PID"/fd/*; do
    [ "$(readlink "$fd" 2>/dev/null)" = "anon_inode:inotify" ] || continue
    n=$(grep -c '^inotify' /proc/"$AGENT_PID"/fdinfo/"${fd##*/}" 2>/dev/null) || true
    total=$((total + ${n:-0}))
  done
  echo "$total"
}
rss_kb() { awk '/VmRSS/ {print $2}' /proc/"$AGENT_PID"/status; }

# Files the image has: Docker's three mounted ones, two of its own, the rest in a directory.
paths=(/etc/passwd /etc/group /etc/hosts /etc/resolv.conf /etc/hostname)
for i in $(seq 1 $((FILES - ${#paths[@]}))); do paths+=("/etc/bench/f$i.conf"); done
paths=("${paths[@]:0:$FILES}")
docker run --name "$PREFIX-base" "$BUSYBOX_IMAGE" \
  sh -c "mkdir -p /etc/bench && touch ${paths[*]:5}" >/dev/null 2>&1 || true
docker commit "$PREFIX-base" "$IMAGE" >/dev/null
docker rm -f "$PREFIX-base" >/dev/null

sed 's/^status.interval_s *=.*//' "$TARNWICK_PREFIX/etc/agent.properties" > "$WORK/agent.properties"
echo "status.interval_s = 5" >> "$WORK/agent.properties"
write_policy "$WORK/policy.d" tarnwick/busybox-bench true "${paths[@]}"
AGENT_CONFIG=$WORK/agent.properties agent_start "$WORK"
if [ -n "${HEAP_PROFILE:-}" ]; then  # heaptrack attached from here on; read with heaptrack_print
  heaptrack -o "$HEAP_PROFILE" -p "$AGENT_PID" > "$WORK/heaptrack.out" 2>&1 &
  wait_for 30 grep -q 'heaptrack output will be written' "$WORK/heaptrack.out" || true
fi
wait_for 10 grep -q "Policy .* delivered" "$WORK/agent.log" || true
watches_idle=$(inotify_watches)
rss_idle=$(rss_kb)

# One after another, as an orchestrator starting a host's containers would; each id with the
# moment its docker run returned.
run_start=$SECONDS
for i in $(seq 1 "$N"); do
  cid=$(docker run -d --network none --name "$PREFIX-$i" "$IMAGE" sleep 3600)
  echo "$cid $EPOCHREALTIME" >> "$WORK/started"
done
run_s=$((SECONDS - run_start))
expected=$((N * FILES))
# The log is rotated at 10 MB (agent.log.0 the newest archive, at most five): read it whole.
whole_log() {
  local i
  for i in 4 3 2 1 0; do [ -f "$WORK/agent.log.$i" ] && cat "$WORK/agent.log.$i"; done
  cat "$WORK/agent.log"
}
armed() {
  [ "$(whole_log | grep -c 'armed on the file')" -ge "$expected" ] &&
    [ "$(audit_cid_rules)" -ge "$N" ]
}
wait_for 600 armed || echo "not every file and rule armed within 600 s" >&2
wait_for 15 grep -q "Status filenotify.coverage: $expected/$expected" "$WORK/agent.log" || true
rss_armed=$(rss_kb)
watches_armed=$(inotify_watches)
rules_armed=$(audit_cid_rules)
coverage=$(grep "Status filenotify.coverage" "$WORK/agent.log" | tail -1 | sed 's/.*coverage: //; s/,.*//')
docker ps -q --filter "name=$PREFIX-" | xargs docker inspect \
  -f '{{.Id}} {{.GraphDriver.Data.MergedDir}}' > "$WORK/roots"
whole_log > "$WORK/whole.log"
archives=$(find "$WORK" -maxdepth 1 -name 'agent.log.*' | wc -l)

# Removal: everything the containers cost must go.
remove_start=$EPOCHREALTIME
docker ps -aq --filter "name=$PREFIX-" | xargs -r docker rm -f >/dev/null
removed=$EPOCHREALTIME
all_gone() { [ "$(inotify_watches)" -le "$watches_idle" ] && [ "$(audit_cid_rules)" -eq 0 ]; }
wait_for 300 all_gone || true
gone=$EPOCHREALTIME
watches_after=$(inotify_watches)
rules_after=$(audit_cid_rules)
rss_after=$(rss_kb)

python3 - "$WORK" "$N" "$FILES" "$run_s" "$coverage" "$rss_idle" "$rss_armed" "$rss_after" \
  "$watches_idle" "$watches_armed" "$watches_after" "$rules_armed" "$rules_after" \
  "$remove_start" "$removed" "$gone" "$archives" <<'PY'
import re, sys
from datetime import datetime, timezone
(work, n, files, run_s, coverage, rss_idle, rss_armed, rss_after, w_idle, w_armed, w_after,
 r_armed, r_after, rm0, rm1, gone, archives) = sys.argv[1:]
n, files = int(n), int(files)
returned = {}
for line in open(f"{work}/started"):
    cid, stamp = line.split()
    returned[cid] = float(stamp)
roots = dict(line.split() for line in open(f"{work}/roots"))
def stamp(text):
    return datetime.strptime(text, "%Y-%m-%d %H:%M:%S.%f").replace(
        tzinfo=timezone.utc).timestamp()
watched = {}  # container id -> {path: first armed}
ruled = {}    # container id -> rule added
armed_re = re.compile(r"^(\S+ \S+) .*File notify: watch on (\S+) armed on the file")
rule_re = re.compile(r"^(\S+ \S+) .*Audit rule .* -k cid:([0-9a-f]{64}) added")
by_root = {root: cid for cid, root in roots.items()}
for line in open(f"{work}/whole.log", errors="replace"):
    m = armed_re.match(line)
    if m:
        path = m.group(2)
        root = path.split("/merged/", 1)[0] + "/merged" if "/merged/" in path else None
        if root in by_root:
            watched.setdefault(by_root[root], {}).setdefault(path, stamp(m.group(1)))
        continue
    m = rule_re.match(line)
    if m and m.group(2) in returned:
        ruled.setdefault(m.group(2), stamp(m.group(1)))
lat = []
for cid, t in returned.items():
    paths = watched.get(cid, {})
    if len(paths) < files or cid not in ruled:
        continue
    lat.append((max(max(paths.values()), ruled[cid]) - t) * 1000)
lat.sort()
def pct(q):
    return lat[min(len(lat) - 1, int(round(q / 100 * (len(lat) - 1))))]
rows = [
    ("containers x protected files", f"{n} x {files} (docker run -d one after another: {run_s} s)"),
    ("coverage (status line)", coverage),
    ("containers fully armed (watches and rule)", f"{len(lat)}/{n}"
     + (f" (log rotated {archives} times; at 5 the oldest lines are gone)" if archives != "0" else "")),
]
if lat:
    rows.append(("arm latency, docker run returned -> armed",
                 f"p50 {pct(50):.0f} ms, p99 {pct(99):.0f} ms, max {lat[-1]:.0f} ms"))
rss_idle, rss_armed, rss_after = int(rss_idle), int(rss_armed), int(rss_after)
rows += [
    ("agent RSS idle / armed", f"{rss_idle / 1024:.1f} MiB / {rss_armed / 1024:.1f} MiB"),
    ("agent RSS per container", f"{(rss_armed - rss_idle) / n:.1f} kB"),
    ("inotify watches idle / armed", f"{w_idle} / {w_armed}"),
    ("audit rules (cid:) armed", r_armed),
    ("after removal (docker rm -f took)", f"{float(rm1) - float(rm0):.1f} s"),
    ("  watches / audit rules left", f"{w_after} / {r_after} (released {float(gone) - float(rm1):.1f} s after)"),
    ("  agent RSS", f"{rss_after / 1024:.1f} MiB"),
]
width = max(len(r[0]) for r in rows)
for name, value in rows:
    print(f"{name:<{width}}  {value}")
PY
