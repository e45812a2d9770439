#!/usr/bin/env bash
# The Docker engine for tests and the demo (root only).
#   dockerd.sh start   starts Debian's dockerd in the background unless an engine already
#                      answers on the socket; waits until `docker info` answers (deadline).
#   dockerd.sh stop    stops the dockerd that `start` started, and nothing else.
#   dockerd.sh image   imports tarnwick/busybox:latest from Debian's busybox-static if missing.
#   dockerd.sh status  exit 0 when an engine answers.
# Settings: DOCKER_SOCKET (/var/run/docker.sock), DOCKERD_LOG (/var/log/tarnwick-dockerd.log),
# DOCKERD_STATE (/run/tarnwick-dockerd.pid: present only while a dockerd we started runs),
# DOCKERD_TIMEOUT (seconds to wait for the engine, 60), DOCKERD_ARGS (more dockerd options,
# e.g. a private --data-root/--exec-root/--pidfile for a second engine), BUSYBOX_IMAGE.
set -euo pipefail

DOCKER_SOCKET=${DOCKER_SOCKET:-/var/run/docker.sock}
DOCKERD_LOG=${DOCKERD_LOG:-/var/log/tarnwick-dockerd.log}
DOCKERD_STATE=${DOCKERD_STATE:-/run/tarnwick-dockerd.pid}
DOCKERD_TIMEOUT=${DOCKERD_TIMEOUT:-60}
DOCKERD_LOCK=${DOCKERD_LOCK:-/run/tarnwick-dockerd.lock}
DOCKERD_ARGS=${DOCKERD_ARGS:-}
BUSYBOX_IMAGE=${BUSYBOX_IMAGE:-tarnwick/busybox:latest}
export DOCKER_HOST=unix://$DOCKER_SOCKET

# shellcheck source-path=SCRIPTDIR source=lib/busybox-root.sh
source "$(dirname "$0")/lib/busybox-root.sh"

die() { echo "dockerd.sh: $*" >&2; exit 1; }

engine_answers() { docker info >/dev/null 2>&1; }

# wait_until SECONDS CMD...: 0 as soon as CMD succeeds, 1 when the deadline passes first.
wait_until() {
  local deadline=$((SECONDS + $1)); shift
  until "$@"; do
    [ "$SECONDS" -ge "$deadline" ] && return 1
    sleep 0.2
  done
}

our_pid() {
  [ -f "$DOCKERD_STATE" ] || return 1
  local pid
  pid=$(cat "$DOCKERD_STATE")
  [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null && echo "$pid"
}

start() {
  if engine_answers; then
    echo "dockerd.sh: an engine already answers on $DOCKER_SOCKET"
    return 0
  fi
  if pid=$(our_pid); then
    echo "dockerd.sh: dockerd $pid (ours) is starting; waiting for it"
  else
    command -v dockerd >/dev/null || die "dockerd not found (apt-get install docker.io)"
    mkdir -p "$(dirname "$DOCKERD_LOG")"
    # overlay2: the container's merged directory is its root filesystem as seen from the host.
    # The engine must not inherit any descriptor beyond the standard three: a lock held by
    # whoever called us (ours is fd 9, a caller's flock may be any) would stay held for the
    # engine's whole life.
    # shellcheck disable=SC2086
    setsid bash -c 'for fd in /proc/self/fd/*; do n=${fd##*/}; [ "$n" -gt 2 ] && eval "exec $n>&-"; done
                    exec "$@"' dockerd dockerd --host "unix://$DOCKER_SOCKET" \
      --storage-driver overlay2 $DOCKERD_ARGS >>"$DOCKERD_LOG" 2>&1 < /dev/null &
    pid=$!
    echo "$pid" > "$DOCKERD_STATE"
    echo "dockerd.sh: started dockerd $pid (log $DOCKERD_LOG)"
  fi
  if ! wait_until "$DOCKERD_TIMEOUT" engine_answers; then
    echo "dockerd.sh: dockerd did not answer within ${DOCKERD_TIMEOUT}s; log tail:" >&2
    tail -n 30 "$DOCKERD_LOG" >&2 || true
    return 1
  fi
  local driver
  driver=$(docker info --format '{{.Driver}}' 2>/dev/null || true)
  [ "$driver" = overlay2 ] || echo "dockerd.sh: warning: storage driver is '$driver', not overlay2" >&2
}

stop() {
  local pid
  if ! pid=$(our_pid); then
    rm -f "$DOCKERD_STATE"
    echo "dockerd.sh: no dockerd of ours runs; nothing stopped"
    return 0
  fi
  kill -TERM "$pid"
  if ! wait_until 30 bash -c "! kill -0 $pid 2>/dev/null"; then
    echo "dockerd.sh: dockerd $pid did not stop within 30 s; killing it" >&2
    kill -KILL "$pid" 2>/dev/null || true
  fi
  rm -f "$DOCKERD_STATE"
  echo "dockerd.sh: stopped dockerd $pid"
}

image() {
  engine_answers || die "no engine answers on $DOCKER_SOCKET (run: $0 start)"
  if docker image inspect "$BUSYBOX_IMAGE" >/dev/null 2>&1; then
    echo "dockerd.sh: image $BUSYBOX_IMAGE present"
    return 0
  fi
  local root
  root=$(mktemp -d /tmp/tarnwick-busybox.XXXXXX)
  # shellcheck disable=SC2064
  trap "rm -rf '$root'" RETURN
  busybox_root "$root" || die "cannot lay out the busybox image"
  tar -C "$root" -c . | docker import --change 'CMD ["/bin/sh"]' - "$BUSYBOX_IMAGE" >/dev/null
  echo "dockerd.sh: imported $BUSYBOX_IMAGE"
}

[ "$(id -u)" -eq 0 ] || die "needs root"
cmd=${1:-}
case "$cmd" in
  start|stop|image)
    # One caller at a time: parallel test runs must not start two engines.
    exec 9>"$DOCKERD_LOCK"
    flock -w 120 9 || die "another dockerd.sh holds $DOCKERD_LOCK"
    "$cmd"
    ;;
  status) engine_answers ;;
  *) echo "usage: $0 start|stop|image|status" >&2; exit 2 ;;
esac
