# End-to-end cases, sourced by scripts/e2e.sh. Each case_X runs with its own agent in $WORK;
# helpers come from scripts/lib/agent-run.sh. A case fails by returning non-zero (set -e).

E2E_CASES="$E2E_CASES user_file_operations replaced_by_rename elf_dropped unprotected_image
           started_before_agent policy_change exit_withdraws sigterm_cleanup engine_restart"

ALARMS() { echo "${AGENT_ALARMS:-$WORK/alarms.jsonl}"; }

fail() { echo "   $*" >&2; return 1; }

# alarms_above FILTER N: more than N alarms match FILTER.
alarms_above() { [ "$(alarms_matching "$(ALARMS)" "$1")" -gt "$2" ]; }
# watches_at_most PID N: the agent holds at most N inotify watches.
watches_at_most() { [ "$(inotify_watches "$1")" -le "$2" ]; }

# start_container NAME [IMAGE]: runs a long-sleeping container; prints its full id.
start_container() {
  local name=$1 image=${2:-$BUSYBOX_IMAGE}
  echo "$name" >> "$WORK/containers"
  docker run -d --name "$name" "$image" sleep 600
}

cexec() { docker exec "$1" sh -c "$2"; }

# expect_alarm DESCRIPTION JQ-FILTER [SECONDS]
expect_alarm() {
  wait_for "${3:-20}" has_alarm "$(ALARMS)" "$2" || fail "no alarm: $1 ($2)"
}

# expect_none DESCRIPTION JQ-FILTER: call after a later alarm proved the agent got that far.
expect_none() {
  local n
  n=$(alarms_matching "$(ALARMS)" "$2")
  [ "$n" -eq 0 ] || fail "unexpected alarm: $1 ($n x $2)"
}

user_alarm() {  # user_alarm CONTAINER PATH OP
  echo ".event_classid == \"dockerfile_001\" and .container_name == \"$1\" and .file_info[0].file_path == \"$2\" and .file_info[0].file_operation == $3"
}

# arm_probe CONTAINER [FILE]: appends to FILE (/etc/passwd) until its modify alarm arrives,
# which proves the watches requested before it (or FILE's own, once it was created) are in place.
arm_probe() {
  local c=$1 file=${2:-/etc/passwd} deadline=$((SECONDS + 30))
  while ! has_alarm "$(ALARMS)" "$(user_alarm "$c" "$file" 2)"; do
    [ "$SECONDS" -lt "$deadline" ] || { fail "watches of $c never armed"; return 1; }
    cexec "$c" "echo 'probe:x:1:1::/:/bin/false' >> $file"
    wait_for 2 has_alarm "$(ALARMS)" "$(user_alarm "$c" "$file" 2)" || true
  done
}

inotify_watches() {  # number of inotify watches the agent process holds
  local pid=$1 total=0 fd
  for fd in /proc/"$pid"/fd/*; do
    [ "$(readlink "$fd" 2>/dev/null)" = "anon_inode:inotify" ] || continue
    local n
    n=$(grep -c '^inotify' /proc/"$pid"/fdinfo/"${fd##*/}" 2>/dev/null) || true  # 1 on none
    total=$((total + ${n:-0}))
  done
  echo "$total"
}

case_user_file_operations() {
  write_policy "$WORK/policy.d" tarnwick/busybox false \
    /etc/e2e-new /etc/e2e-gone /etc/e2e-moved /etc/group /etc/passwd
  agent_start "$WORK"
  local c=e2e-ops-$$
  start_container "$c" >/dev/null
  arm_probe "$c"
  cexec "$c" 'touch /etc/e2e-new'
  expect_alarm "create" "$(user_alarm "$c" /etc/e2e-new 0)"
  cexec "$c" 'chmod 600 /etc/group'
  expect_alarm "attribute change" "$(user_alarm "$c" /etc/group 1)"
  cexec "$c" 'touch /etc/e2e-gone'
  expect_alarm "create before delete" "$(user_alarm "$c" /etc/e2e-gone 0)"
  cexec "$c" 'rm /etc/e2e-gone'
  expect_alarm "delete" "$(user_alarm "$c" /etc/e2e-gone 3)"
  cexec "$c" 'touch /etc/e2e-moved'
  expect_alarm "create before move" "$(user_alarm "$c" /etc/e2e-moved 0)"
  cexec "$c" 'mv /etc/e2e-moved /etc/e2e-moved.bak'
  expect_alarm "move" "$(user_alarm "$c" /etc/e2e-moved 4)"
  # Every alarm names the image and carries the fixed envelope.
  [ "$(jq -c 'select(.event_classid=="dockerfile_001" and (.image_name != "'"$BUSYBOX_IMAGE"'" or .serverity != 2 or .event_type != 3021 or (.occur_time|type) != "number"))' "$(ALARMS)" | wc -l)" -eq 0 ] \
    || fail "dockerfile_001 envelope wrong"
}

case_replaced_by_rename() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/passwd
  agent_start "$WORK"
  local c=e2e-rename-$$ before after
  start_container "$c" >/dev/null
  arm_probe "$c"
  before=$(alarms_matching "$(ALARMS)" ".file_info[0].file_path == \"/etc/passwd\"")
  cexec "$c" "sed -i 's/^root:/ROOT:/' /etc/passwd"
  wait_for 20 alarms_above ".file_info[0].file_path == \"/etc/passwd\"" "$before" \
    || fail "no alarm for the replacement by rename"
  after=$(alarms_matching "$(ALARMS)" "$(user_alarm "$c" /etc/passwd 2)")
  cexec "$c" 'echo "late:x:2:2::/:/bin/false" >> /etc/passwd'
  wait_for 20 alarms_above "$(user_alarm "$c" /etc/passwd 2)" "$after" \
    || fail "no alarm for an append after the replacement"
}

case_elf_dropped() {
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK"
  local c=e2e-elf-$$ cid
  cid=$(start_container "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  # The copying shell keeps running, so the exited cp is attributed through its parent.
  docker exec -d "$c" sh -c 'cp /bin/busybox /usr/bin/e2e-tool; sleep 60'
  local f='.event_classid == "dockerfile_002" and .file_info[0].file_path == "/usr/bin/e2e-tool"'
  expect_alarm "ELF copied in" "$f" 30
  local want
  want=$(cexec "$c" 'sha256sum /usr/bin/e2e-tool' | cut -d' ' -f1)
  local got
  got=$(jq -c "select($f)" "$(ALARMS)" | head -1)
  [ "$(jq -r '.file_info[0].file_sha256' <<<"$got")" = "$want" ] || fail "sha256 is not that of the complete file: $got"
  [ "$(jq -r '.file_info[0].file_attr' <<<"$got")" = "33261" ] || fail "mode: $got"
  [ "$(jq -r '.file_info[0].file_type' <<<"$got")" = "elf" ] || fail "type: $got"
  [ "$(jq -r '.process_info[0].process_name' <<<"$got")" = "cp" ] || fail "process name: $got"
  [ "$(jq -r '.process_info[0].process_pid' <<<"$got")" -gt 0 ] || fail "pid: $got"
  [ "$(jq -r '.process_info[0].process_container_id' <<<"$got")" = "$cid" ] || fail "process container id: $got"
  [ "$(jq -r '.resource_info.container_id' <<<"$got")" = "$cid" ] || fail "container id: $got"
  # Not executables: a script, a data file, an ELF without the execute bit. A later ELF proves
  # that the agent has seen past them.
  cexec "$c" 'printf "#!/bin/sh\necho hi\n" > /usr/bin/e2e-script; chmod 755 /usr/bin/e2e-script'
  cexec "$c" 'echo data > /usr/bin/e2e-data'
  cexec "$c" 'cat /bin/busybox > /usr/bin/e2e-lib'
  cexec "$c" 'cp /bin/busybox /usr/bin/e2e-sentinel'
  expect_alarm "sentinel ELF" '.file_info[0].file_path == "/usr/bin/e2e-sentinel"' 30
  expect_none "script" '.file_info[0].file_path == "/usr/bin/e2e-script"'
  expect_none "data file" '.file_info[0].file_path == "/usr/bin/e2e-data"'
  expect_none "non-executable ELF" '.file_info[0].file_path == "/usr/bin/e2e-lib"'
}

case_unprotected_image() {
  docker tag "$BUSYBOX_IMAGE" tarnwick/plain:latest
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK"
  local plain=e2e-plain-$$ guarded=e2e-guarded-$$ pid
  pid=$(start_container "$plain" tarnwick/plain:latest)
  start_container "$guarded" >/dev/null
  cexec "$plain" 'echo x >> /etc/passwd; cp /bin/busybox /usr/bin/e2e-tool'
  arm_probe "$guarded"
  cexec "$guarded" 'cp /bin/busybox /usr/bin/e2e-sentinel'
  expect_alarm "sentinel in the protected container" ".container_name == \"$guarded\" and .event_classid == \"dockerfile_002\"" 30
  expect_none "unprotected image" ".container_name == \"$plain\""
  ! audit_rule_present "$pid" || fail "audit rule for an unprotected container"
}

case_started_before_agent() {
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  local c=e2e-early-$$ cid
  cid=$(start_container "$c")
  agent_start "$WORK"
  wait_for 20 audit_rule_present "$cid" || fail "container started before the agent is not protected"
  arm_probe "$c"
}

case_policy_change() {
  write_policy "$WORK/policy.d" tarnwick/busybox false /etc/group
  agent_start "$WORK"
  local a=e2e-pol-a-$$ b=e2e-pol-b-$$ bid
  start_container "$a" >/dev/null
  cexec "$a" 'chmod 600 /etc/group'
  expect_alarm "old policy applies to a" "$(user_alarm "$a" /etc/group 1)"
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  wait_for 20 grep -q 'protect_files":\["/etc/passwd"\]' "$WORK/agent.log" || fail "new policy not delivered"
  bid=$(start_container "$b")
  wait_for 20 audit_rule_present "$bid" || fail "new policy does not apply to b"
  arm_probe "$b"
  # a keeps the rule it started with: its /etc/passwd is not protected, its /etc/group is.
  cexec "$a" 'echo x >> /etc/passwd; chmod 644 /etc/group'
  wait_for 20 alarms_above "$(user_alarm "$a" /etc/group 1)" 1 || fail "a lost its rule"
  expect_none "new policy applied to a running container" ".container_name == \"$a\" and .file_info[0].file_path == \"/etc/passwd\""
}

case_exit_withdraws() {
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd /etc/group
  agent_start "$WORK"
  local c=e2e-exit-$$ cid baseline
  baseline=$(inotify_watches "$AGENT_PID")
  cid=$(start_container "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule"
  arm_probe "$c"
  [ "$(inotify_watches "$AGENT_PID")" -gt "$baseline" ] || fail "no inotify watch for the container"
  docker rm -f "$c" >/dev/null
  wait_for 20 bash -c "! auditctl -l | grep -q 'cid:$cid'" || fail "audit rule not withdrawn at exit"
  wait_for 20 watches_at_most "$AGENT_PID" "$baseline" || fail "inotify watches left: $(inotify_watches "$AGENT_PID") > $baseline"
}

# engine_restart [DOCKERD-ARGS]: restarts the engine scripts/dockerd.sh started (the one every
# run of this suite starts when none answers) with those options.
engine_restart() {
  [ -f "${DOCKERD_STATE:-/run/tarnwick-dockerd.pid}" ] \
    || fail "the engine was not started by scripts/dockerd.sh, and this case restarts it"
  bash scripts/dockerd.sh stop >/dev/null && DOCKERD_ARGS=${1:-} bash scripts/dockerd.sh start >/dev/null
}

# The engine goes away (live restore keeps its containers running), one container dies unseen,
# the engine comes back: the agent withdraws the dead one, keeps protecting the other and follows
# containers started afterwards.
case_engine_restart() {
  trap "case_cleanup; engine_restart" EXIT
  engine_restart --live-restore || fail "could not restart the engine with live restore"
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK"
  local doomed survivor=e2e-survivor-$$ cid pid before
  doomed=$(start_container e2e-doomed-$$)
  cid=$(start_container "$survivor")
  wait_for 20 audit_rule_present "$doomed" && wait_for 20 audit_rule_present "$cid" \
    || fail "no audit rules"
  arm_probe "$survivor"
  pid=$(docker inspect -f '{{.State.Pid}}' "$doomed")
  bash scripts/dockerd.sh stop >/dev/null
  kill -KILL "$pid"
  wait_for 10 bash -c "! kill -0 $pid 2>/dev/null" || fail "the container's process outlived SIGKILL"
  DOCKERD_ARGS=--live-restore bash scripts/dockerd.sh start >/dev/null || fail "the engine did not come back"
  wait_for 40 bash -c "! auditctl -l | grep -q 'cid:$doomed'" \
    || fail "the container that died while the engine was away kept its audit rule"
  audit_rule_present "$cid" || fail "the surviving container lost its audit rule"
  before=$(alarms_matching "$(ALARMS)" "$(user_alarm "$survivor" /etc/passwd 2)")
  cexec "$survivor" "echo 'back:x:1:1::/:/bin/false' >> /etc/passwd"
  wait_for 10 alarms_above "$(user_alarm "$survivor" /etc/passwd 2)" "$before" \
    || fail "the surviving container is no longer protected"
  cid=$(start_container e2e-later-$$)
  wait_for 20 audit_rule_present "$cid" || fail "a container started after the engine came back is not followed"
}

case_sigterm_cleanup() {
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK"
  local c=e2e-term-$$ cid
  cid=$(start_container "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule"
  agent_stop
  [ "$AGENT_RC" -eq 0 ] || fail "agent exit code $AGENT_RC"
  [ "$(audit_cid_rules)" -eq 0 ] || fail "cid: audit rules left after SIGTERM"
}
