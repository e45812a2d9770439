#!/usr/bin/env bash
# Podman's Docker-compatible API for tests (root only), beside a dockerd without disturbing it.
#   podman.sh start   starts `podman system service` on PODMAN_SOCKET unless something already
#                     answers there; waits until the API answers (deadline).
#   podman.sh stop    stops the service that `start` started, and nothing else.
#   podman.sh image   imports tarnwick/busybox:latest into podman from Debian's busybox-static.
#   podman.sh status  exit 0 when the API answers on PODMAN_SOCKET.
# Settings: PODMAN_SOCKET (/run/podman/podman.sock), PODMAN_LOG (/var/log/tarnwick-podman.log),
# PODMAN_STATE (/run/tarnwick-podman.pid: present only while a service we started runs),
# PODMAN_TIMEOUT (seconds to wait for the API, 60), PODMAN_ARGS (podman's global options for
# every command, e.g. a private --root/--runroot/--storage-driver for a second service),
# BUSYBOX_IMAGE.
# Containers for tests run with `--network none`: podman's bridge networking would edit the
# same iptables chains as dockerd's.
set -euo pipefail

PODMAN_SOCKET=${PODMAN_SOCKET:-/run/podman/podman.sock}
PODMAN_LOG=${PODMAN_LOG:-/var/log/tarnwick-podman.log}
PODMAN_STATE=${PODMAN_STATE:-/run/tarnwick-podman.pid}
PODMAN_TIMEOUT=${PODMAN_TIMEOUT:-60}
PODMAN_LOCK=${PODMAN_LOCK:-/run/tarnwick-podman.lock}
PODMAN_ARGS=${PODMAN_ARGS:-}
BUSYBOX_IMAGE=${BUSYBOX_IMAGE:-tarnwick/busybox:latest}

# shellcheck source-path=SCRIPTDIR source=lib/busybox-root.sh
source "$(dirname "$0")/lib/busybox-root.sh"

die() { echo "podman.sh: $*" >&2; exit 1; }

pm() {
  # shellcheck disable=SC2086
  podman $PODMAN_ARGS "$@"
}

# The Docker-compatible ping; the same request the agent's client makes, over the same socket.
api_answers() {
  [ -S "$PODMAN_SOCKET" ] &&
    curl -fsS --max-time 2 --unix-socket "$PODMAN_SOCKET" http://localhost/_ping >/dev/null 2>&1
}

# wait_until SECONDS CMD...: 0 as soon as CMD succeeds, 1 when the deadline passes first.
wait_until() {
  local deadline=$((SECONDS + $1)); shift
  until "$@"; do
    [ "$SECONDS" -ge "$deadline" ] && return 1
    sleep 0.2
  done
}

our_pid() {
  [ -f "$PODMAN_STATE" ] || return 1
  local pid
  pid=$(cat "$PODMAN_STATE")
  [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null && echo "$pid"
}

start() {
  if api_answers; then
    echo "podman.sh: an API already answers on $PODMAN_SOCKET"
    return 0
  fi
  if pid=$(our_pid); then
    echo "podman.sh: podman service $pid (ours) is starting; waiting for it"
  else
    command -v podman >/dev/null || die "podman not found (apt-get install podman)"
    mkdir -p "$(dirname "$PODMAN_LOG")" "$(dirname "$PODMAN_SOCKET")"
    rm -f "$PODMAN_SOCKET"
    # --time=0: the service never exits on its own while idle. Like dockerd.sh, the service
    # must not inherit a caller's lock descriptor.
    # shellcheck disable=SC2086
    setsid bash -c 'for fd in /proc/self/fd/*; do n=${fd##*/}; [ "$n" -gt 2 ] && eval "exec $n>&-"; done
                    exec "$@"' podman podman $PODMAN_ARGS system service --time=0 "unix://$PODMAN_SOCKET" \
      >>"$PODMAN_LOG" 2>&1 < /dev/null &
    pid=$!
    echo "$pid" > "$PODMAN_STATE"
    echo "podman.sh: started podman service $pid (log $PODMAN_LOG)"
  fi
  if ! wait_until "$PODMAN_TIMEOUT" api_answers; then
    echo "podman.sh: podman did not answer within ${PODMAN_TIMEOUT}s; log tail:" >&2
    tail -n 30 "$PODMAN_LOG" >&2 || true
    return 1
  fi
  local driver
  driver=$(pm info --format '{{.Store.GraphDriverName}}' 2>/dev/null || true)
  echo "podman.sh: storage driver $driver"
}

stop() {
  local pid
  if ! pid=$(our_pid); then
    rm -f "$PODMAN_STATE"
    echo "podman.sh: no podman service of ours runs; nothing stopped"
    return 0
  fi
  kill -TERM "$pid"
  if ! wait_until 30 bash -c "! kill -0 $pid 2>/dev/null"; then
    echo "podman.sh: podman service $pid did not stop within 30 s; killing it" >&2
    kill -KILL "$pid" 2>/dev/null || true
  fi
  rm -f "$PODMAN_STATE" "$PODMAN_SOCKET"
  echo "podman.sh: stopped podman service $pid"
}

image() {
  command -v podman >/dev/null || die "podman not found (apt-get install podman)"
  if pm image exists "$BUSYBOX_IMAGE"; then
    echo "podman.sh: image $BUSYBOX_IMAGE present"
    return 0
  fi
  local root
  root=$(mktemp -d /tmp/tarnwick-busybox.XXXXXX)
  # shellcheck disable=SC2064
  trap "rm -rf '$root'" RETURN
  busybox_root "$root" || die "cannot lay out the busybox image"
  tar -C "$root" -c . | pm import --quiet --change 'CMD ["/bin/sh"]' - "$BUSYBOX_IMAGE" >/dev/null
  echo "podman.sh: imported $BUSYBOX_IMAGE"
}

[ "$(id -u)" -eq 0 ] || die "needs root"
cmd=${1:-}
case "$cmd" in
  start|stop|image)
    exec 9>"$PODMAN_LOCK"
    flock -w 120 9 || die "another podman.sh holds $PODMAN_LOCK"
    "$cmd"
    ;;
  status) api_answers ;;
  *) echo "usage: $0 start|stop|image|status" >&2; exit 2 ;;
esac
