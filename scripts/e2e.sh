#!/usr/bin/env bash
# End-to-end tests (root): the installed agent against a real dockerd, real containers and the
# kernel's audit system. Installs the build in build/ first. Prints "N passed, N failed".
set -uo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" -eq 0 ] || { echo "e2e: needs root" >&2; exit 1; }

# E2E_BUILD_DIR: the build tree to install and test (a sanitizer build, say); SANITIZER_LOG_DIR:
# where that build's sanitizers write their reports (any report fails the run).
BUILD_DIR=${E2E_BUILD_DIR:-build}
cmake --install "$BUILD_DIR" >/dev/null || { echo "e2e: install of $BUILD_DIR failed" >&2; exit 1; }
bash scripts/dockerd.sh start || exit 1
bash scripts/dockerd.sh image || exit 1
bash scripts/debian-image.sh image || exit 1
bash scripts/debian-image.sh debs || exit 1
source scripts/lib/agent-run.sh
# Every tests/e2e/cases*.sh defines case_X functions and adds its names to E2E_CASES.
E2E_CASES=""
E2E_CLEANUPS=""
for cases in tests/e2e/cases*.sh; do
  # shellcheck source=/dev/null
  source "$cases"
done
# E2E_ONLY="a b" runs just those cases (for a developer's quick loop).
[ -n "${E2E_ONLY:-}" ] && E2E_CASES=$E2E_ONLY

PASSED=0
FAILED=0
FAILED_NAMES=()
E2E_ROOT=$(mktemp -d /tmp/tarnwick-e2e.XXXXXX)
trap 'docker rmi tarnwick/plain:latest >/dev/null 2>&1 || true' EXIT

# Run inside each case's subshell on its way out: nothing is left behind, whatever happened.
case_cleanup() {
  local c
  if [ -f "$WORK/containers" ]; then
    while read -r c; do docker rm -f "$c" >/dev/null 2>&1 || true; done < "$WORK/containers"
  fi
  agent_stop
  # What a cases file cleans up for its own cases (another engine's containers, say).
  local hook
  for hook in ${E2E_CLEANUPS:-}; do "$hook"; done
  # Alarm watchers a case started on its own files.
  pkill -f "tail -n0 -F $WORK/" 2>/dev/null || true
}

# run_case NAME: runs case_NAME in a subshell with errexit, its own work dir and agent.
run_case() {
  local name=$1 rc
  WORK="$E2E_ROOT/$name"
  mkdir -p "$WORK"
  echo "-- $name"
  ( set -e; trap case_cleanup EXIT; "case_$name" )
  rc=$?
  if [ "$rc" -eq 0 ]; then
    PASSED=$((PASSED + 1))
    echo "   ok"
  else
    FAILED=$((FAILED + 1))
    FAILED_NAMES+=("$name")
    echo "   FAILED; agent log tail:"
    tail -n 40 "$WORK/agent.log" 2>/dev/null | sed 's/^/     /'
    echo "   alarms:"
    head -20 "$WORK/alarms.jsonl" 2>/dev/null | sed 's/^/     /'
  fi
}

for name in $E2E_CASES; do run_case "$name"; done

if [ "$(audit_cid_rules)" -ne 0 ]; then
  echo "e2e: cid: audit rules left behind:"; auditctl -l | grep "cid:"
  FAILED=$((FAILED + 1))
fi
if [ -n "${SANITIZER_LOG_DIR:-}" ] && compgen -G "$SANITIZER_LOG_DIR/*" >/dev/null; then
  echo "e2e: sanitizer reports:"
  head -n 60 "$SANITIZER_LOG_DIR"/* | sed 's/^/   /'
  FAILED=$((FAILED + 1))
fi
[ "$FAILED" -eq 0 ] && rm -rf "$E2E_ROOT" || echo "failed cases: ${FAILED_NAMES[*]} (logs in $E2E_ROOT)"
echo "e2e: $PASSED passed, $FAILED failed"
[ "$FAILED" -eq 0 ]
