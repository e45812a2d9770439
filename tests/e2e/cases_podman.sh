# End-to-end cases against Podman's Docker-compatible API, sourced by scripts/e2e.sh. Each case
# starts the podman service (scripts/podman.sh) and an agent whose --docker-socket is podman's;
# the service and the case's containers go when the case ends.

E2E_CASES="$E2E_CASES podman_alarms podman_vfs_refused"
E2E_CLEANUPS="${E2E_CLEANUPS:-} podman_case_cleanup"

PODMAN_SOCKET=${PODMAN_SOCKET:-/run/podman/podman.sock}
# Podman raises the open-files and process limits of a container to its own defaults, which a
# host without CAP_SYS_RESOURCE (a container running these tests) refuses; fixed ones it lowers.
# No network: podman's bridge would edit the iptables chains dockerd owns.
PODMAN_RUN_OPTS=(--network none --ulimit nofile=4096:4096 --ulimit nproc=4096:4096)

# Podman's storage options for a case (a case runs in a subshell: it may export its own, and its
# cleanup sees them); scripts/podman.sh reads the same variables.
export PODMAN_ARGS=${PODMAN_ARGS:-}
pm() {
  # shellcheck disable=SC2086
  podman $PODMAN_ARGS "$@"
}

# podman_up: starts the podman service for this case and imports the busybox image into it.
podman_up() {
  touch "$WORK/podman-service"
  bash scripts/podman.sh start >/dev/null || fail "podman service did not start"
  bash scripts/podman.sh image >/dev/null || fail "no busybox image in podman"
}

# podman_container NAME: a long-sleeping busybox container; prints its id.
podman_container() {
  echo "$1" >> "$WORK/podman-containers"
  pm run -d "${PODMAN_RUN_OPTS[@]}" --name "$1" "$BUSYBOX_IMAGE" sleep 600
}

pexec() { pm exec "$1" sh -c "$2"; }

# Everything a podman case started, whatever happened to the case.
podman_case_cleanup() {
  local name
  if [ -f "$WORK/podman-containers" ]; then
    while read -r name; do pm rm -f -t 0 "$name" >/dev/null 2>&1 || true; done \
      < "$WORK/podman-containers"
    rm -f "$WORK/podman-containers"
  fi
  if [ -f "$WORK/podman-service" ]; then
    bash scripts/podman.sh stop >/dev/null 2>&1 || true
    rm -f "$WORK/podman-service"
  fi
}

# podman_probe CONTAINER: appends to /etc/passwd until its modify alarm arrives.
podman_probe() {
  local c=$1 deadline=$((SECONDS + 30))
  while ! has_alarm "$(ALARMS)" "$(user_alarm "$c" /etc/passwd 2)"; do
    [ "$SECONDS" -lt "$deadline" ] || { fail "watches of $c never armed"; return 1; }
    pexec "$c" 'echo "probe:x:1:1::/:/bin/false" >> /etc/passwd'
    wait_for 2 has_alarm "$(ALARMS)" "$(user_alarm "$c" /etc/passwd 2)" || true
  done
}

case_podman_alarms() {
  podman_up
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  # One container the agent learns of from podman's container list, one from its events.
  local early=e2e-podman-early-$$ eid
  eid=$(podman_container "$early")
  agent_start "$WORK" --docker-socket "$PODMAN_SOCKET"
  wait_for 20 audit_rule_present "$eid" || fail "podman container started before the agent: no audit rule"
  pm rm -f -t 0 "$early" >/dev/null
  wait_for 20 bash -c "! auditctl -l | grep -q 'cid:$eid'" || fail "audit rule of $early not withdrawn"
  local c=e2e-podman-$$ cid baseline got want
  baseline=$(inotify_watches "$AGENT_PID")
  cid=$(podman_container "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for podman container $c"
  # The image as Docker would name it, not podman's localhost/tarnwick/busybox:latest.
  local image=tarnwick/busybox:latest
  podman_probe "$c"
  got=$(jq -c "select($(user_alarm "$c" /etc/passwd 2))" "$(ALARMS)" | head -1)
  [ "$(jq -r .image_name <<<"$got")" = "$image" ] || fail "image name: $got"
  [ "$(jq -r .resource_info.container_id <<<"$got")" = "$cid" ] || fail "container id: $got"
  pm exec -d "$c" sh -c 'cp /bin/busybox /usr/bin/e2e-tool; sleep 60' >/dev/null
  local f='.event_classid == "dockerfile_002" and .file_info[0].file_path == "/usr/bin/e2e-tool"'
  expect_alarm "ELF copied into a podman container" "$f" 30
  got=$(jq -c "select($f)" "$(ALARMS)" | head -1)
  want=$(pexec "$c" 'sha256sum /usr/bin/e2e-tool' | cut -d' ' -f1)
  [ "$(jq -r .container_name <<<"$got")" = "$c" ] || fail "container name: $got"
  [ "$(jq -r .image_name <<<"$got")" = "$image" ] || fail "image name: $got"
  [ "$(jq -r '.file_info[0].file_sha256' <<<"$got")" = "$want" ] || fail "sha256: $got"
  [ "$(jq -r '.process_info[0].process_name' <<<"$got")" = "cp" ] || fail "process name: $got"
  [ "$(jq -r '.process_info[0].process_container_id' <<<"$got")" = "$cid" ] ||
    fail "process container id (podman's cgroup): $got"
  # Podman's overlay root is a mount of its own: writers' closes are seen, not waited out.
  ! grep -q "writers' closes not visible" "$WORK/agent.log" ||
    fail "close-write marks refused on podman's root: $(grep "closes not visible" "$WORK/agent.log")"
  pm rm -f -t 0 "$c" >/dev/null
  wait_for 20 bash -c "! auditctl -l | grep -q 'cid:$cid'" || fail "audit rule not withdrawn at exit"
  wait_for 20 watches_at_most "$AGENT_PID" "$baseline" ||
    fail "inotify watches left: $(inotify_watches "$AGENT_PID") > $baseline"
}

# Podman's vfs storage names no root filesystem in its documents: the container is refused
# with a reason, and none of the host's own files is watched or audited on its behalf.
case_podman_vfs_refused() {
  export PODMAN_SOCKET=/run/tarnwick-podman-vfs.sock PODMAN_STATE=/run/tarnwick-podman-vfs.pid
  export PODMAN_LOCK=/run/tarnwick-podman-vfs.lock PODMAN_LOG=/var/log/tarnwick-podman-vfs.log
  export PODMAN_ARGS="--storage-driver vfs --root /var/lib/tarnwick-podman-vfs --runroot /run/tarnwick-podman-vfs"
  podman_up
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK" --docker-socket "$PODMAN_SOCKET"
  local c=e2e-podman-vfs-$$ cid baseline
  baseline=$(inotify_watches "$AGENT_PID")
  cid=$(podman_container "$c")
  wait_for 20 grep -q "dropped container $cid: .*storage driver 'vfs'" "$WORK/agent.log" ||
    fail "vfs container not refused with its reason"
  ! audit_rule_present "$cid" || fail "audit rule for a container without a root"
  [ "$(inotify_watches "$AGENT_PID")" -le "$baseline" ] || fail "watches for a refused container"
  expect_none "refused container" ".container_name == \"$c\""
}
