#!/usr/bin/env bash
# The agent at work in under five minutes on a fresh Debian 12 machine (run as root):
# installs packages, builds and installs the agent, starts dockerd if none runs, imports a
# busybox image, protects /etc/passwd and forbids new executables in busybox containers,
# then tampers with a container and shows the two alarms it raises. Cleans up after itself.
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "demo: run as root (it drives dockerd and kernel audit)" >&2; exit 1; }

step() { printf '\n== %s\n' "$*"; }

step "Installing packages"
bash scripts/setup.sh

step "Building and installing the agent to /usr/local/tarnwick"
BUILD_DIR=build-release BUILD_TYPE=Release bash scripts/build.sh -DTARNWICK_TESTS=OFF -DTARNWICK_BENCH=OFF
cmake --install build-release >/dev/null

step "Starting the Docker engine and importing the busybox image"
# An engine that already runs belongs to someone else: the demo leaves it running afterwards.
engine_was_running=0
bash scripts/dockerd.sh status && engine_was_running=1
bash scripts/dockerd.sh start
bash scripts/dockerd.sh image

source scripts/lib/agent-run.sh
WORK=$(mktemp -d /tmp/tarnwick-demo.XXXXXX)
CONTAINER=tarnwick-demo-$$
cleanup() {
  docker rm -f "$CONTAINER" >/dev/null 2>&1 || true
  agent_stop
  [ "$engine_was_running" -eq 1 ] || bash scripts/dockerd.sh stop >/dev/null 2>&1 || true
  if [ "${missing:-0}" -eq 0 ]; then rm -rf "$WORK"; else echo "kept $WORK for inspection" >&2; fi
}
trap cleanup EXIT

step "Starting the agent with a policy for $BUSYBOX_IMAGE"
mkdir -p "$WORK/policy.d"
write_policy "$WORK/policy.d" "tarnwick/busybox" true /etc/passwd
jq . "$WORK/policy.d/10001.json"
agent_start "$WORK"
echo "agent running (pid $AGENT_PID), alarms go to $WORK/alarms.jsonl"

step "Starting a protected container"
CID=$(docker run -d --name "$CONTAINER" "$BUSYBOX_IMAGE" sleep 600)
echo "container $CONTAINER ($CID)"
wait_for 20 audit_rule_present "$CID" || { echo "no audit rule for the container" >&2; exit 1; }
wait_for 20 grep -q "Docker file add notify: .*/etc/passwd" "$WORK/agent.log" || true
auditctl -l | grep "cid:$CID" || true

step "Tampering: appending a user to /etc/passwd and dropping an executable into /usr/bin"
docker exec "$CONTAINER" sh -c 'echo "intruder:x:0:0::/root:/bin/sh" >> /etc/passwd'
docker exec "$CONTAINER" sh -c 'cp /bin/busybox /usr/bin/dropped-tool'

step "Alarms"
wait_for 30 has_alarm "$WORK/alarms.jsonl" '.event_classid == "dockerfile_001"' || echo "(no dockerfile_001 alarm yet)"
wait_for 30 has_alarm "$WORK/alarms.jsonl" '.event_classid == "dockerfile_002"' || echo "(no dockerfile_002 alarm yet)"
alarm_summary "$WORK/alarms.jsonl"
echo
echo "Raw JSON:"
cat "$WORK/alarms.jsonl"

missing=0
has_alarm "$WORK/alarms.jsonl" '.event_classid == "dockerfile_001"' || missing=1
has_alarm "$WORK/alarms.jsonl" '.event_classid == "dockerfile_002"' || missing=1

step "Cleaning up"
docker rm -f "$CONTAINER" >/dev/null
agent_stop
echo "agent exited with $AGENT_RC; cid: audit rules left: $(audit_cid_rules)"
if [ "$missing" -ne 0 ]; then
  echo "demo: an expected alarm is missing; see $WORK/agent.log" >&2
  exit 1
fi
echo "demo finished"
