# Helpers shared by the demo and the end-to-end tests: run the installed agent against a
# scratch policy directory and alarm file, wait on conditions with deadlines.
# Source this file; it sets no shell options of its own.

TARNWICK_PREFIX=${TARNWICK_PREFIX:-/usr/local/tarnwick}
BUSYBOX_IMAGE=${BUSYBOX_IMAGE:-tarnwick/busybox:latest}

# wait_for SECONDS CMD...: runs CMD until it succeeds or SECONDS pass; 1 on time-out.
wait_for() {
  local deadline=$((SECONDS + $1)); shift
  until "$@" >/dev/null 2>&1; do
    [ "$SECONDS" -ge "$deadline" ] && return 1
    sleep 0.2
  done
}

# agent_start WORKDIR [extra options]: starts the installed agent in the background with
# WORKDIR/policy.d, WORKDIR/alarms.jsonl (AGENT_ALARMS overrides), WORKDIR/spool and
# WORKDIR/agent.log, settings from AGENT_CONFIG (default: the installed ones); sets AGENT_PID.
agent_start() {
  local work=$1; shift
  local alarms=${AGENT_ALARMS:-$work/alarms.jsonl}
  mkdir -p "$work/policy.d"
  : > "$alarms"
  "$TARNWICK_PREFIX/bin/tarnwick-agent" \
    --config "${AGENT_CONFIG:-$TARNWICK_PREFIX/etc/agent.properties}" \
    --policy-dir "$work/policy.d" --alarms "$alarms" --spool-dir "$work/spool" \
    --log "$work/agent.log" --log-level "${AGENT_LOG_LEVEL:-debug}" "$@" \
    > "$work/agent.stdout" 2>&1 &
  AGENT_PID=$!
  if ! wait_for 20 grep -q "Agent started" "$work/agent.log"; then
    echo "agent did not start; its log:" >&2
    tail -n 30 "$work/agent.log" "$work/agent.stdout" >&2 2>/dev/null
    return 1
  fi
}

# agent_stop: SIGTERM and wait for the agent to exit (deadline 30 s, then SIGKILL).
agent_stop() {
  [ -n "${AGENT_PID:-}" ] || return 0
  kill -TERM "$AGENT_PID" 2>/dev/null || true
  local deadline=$((SECONDS + 30))
  while kill -0 "$AGENT_PID" 2>/dev/null; do
    if [ "$SECONDS" -ge "$deadline" ]; then
      echo "agent did not stop within 30 s; killing it" >&2
      kill -KILL "$AGENT_PID" 2>/dev/null || true
      break
    fi
    sleep 0.2
  done
  wait "$AGENT_PID" 2>/dev/null
  AGENT_RC=$?
  AGENT_PID=
}

# audit_rule_present CID: the agent's audit watch for that container is in the kernel.
# auditctl lists a watch as "-w PATH -p wa -k KEY" (a syscall rule would show "key=KEY").
audit_rule_present() { auditctl -l 2>/dev/null | grep -Eq "(-k |key=)cid:$1( |$)"; }
audit_cid_rules() { auditctl -l 2>/dev/null | grep -Ec "(-k |key=)cid:" || true; }

# alarms_matching FILE JQ-FILTER: number of alarm lines for which the filter is true.
alarms_matching() { jq -c "select($2)" "$1" 2>/dev/null | wc -l; }
has_alarm() { [ "$(alarms_matching "$1" "$2")" -ge 1 ]; }

# One readable line per alarm.
alarm_summary() {
  jq -r '
    if .event_classid == "dockerfile_001" then
      "\(.event_classid) \(.type): container \(.container_name) (\(.image_name)) file \(.file_info[0].file_path) operation \(.file_info[0].file_operation)"
    else
      "\(.event_classid) \(.type): container \(.container_name) (\(.image_name)) executable \(.file_info[0].file_path) sha256 \(.file_info[0].file_sha256) mode \(.file_info[0].file_attr) by \(.process_info[0].process_name) pid \(.process_info[0].process_pid)"
    end' "$1"
}

# write_policy DIR IMAGE-FRAGMENT ELF-FORBIDDEN FILE...: a policy 10001 protecting FILEs of
# images whose name contains IMAGE-FRAGMENT.
write_policy() {
  local dir=$1 image=$2 elf=$3; shift 3
  local files
  mkdir -p "$dir"
  files=$(printf '%s\n' "$@" | jq -R . | jq -s -c .)
  cat > "$dir/10001.json.tmp" <<JSON
{"feature_name":"dockerfile_feature","policy_id":"e2e","hash":"$RANDOM","enabled":true,
 "content":{"rules":[{"image_name":"$image","fuzzy_match":true,"elf_forbidden":$elf,
 "protect_files":$files}]}}
JSON
  mv "$dir/10001.json.tmp" "$dir/10001.json"
}
