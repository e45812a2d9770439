# End-to-end case of one container's write storm beside a quiet neighbour: the neighbour's
# alarms keep arriving promptly and none of its executables is missed, and the storm's own
# events are either reported or counted. Sourced by scripts/e2e.sh.

E2E_CASES="$E2E_CASES storm_and_neighbour"

# stamp_alarms FILE OUT CONTAINER: stamps every alarm of CONTAINER as it lands in FILE
# (bash's clock, no fork between landing and stamp); runs until killed.
stamp_alarms() {
  tail -n0 -F "$1" 2>/dev/null | grep --line-buffered -F "\"container_name\":\"$3\"" |
    while IFS= read -r line; do echo "$EPOCHREALTIME $line"; done > "$2"
}

case_storm_and_neighbour() {
  write_policy "$WORK/policy.d" tarnwick/debian12 true /etc/passwd /etc/storm /etc/probe
  # The default level: a debug line per event would measure the log, not the agent.
  AGENT_LOG_LEVEL=information agent_start "$WORK"
  local a=e2e-storm-$$ b=e2e-calm-$$ bid i lat over=0 missed=0
  start_debian "$a" >/dev/null
  bid=$(start_debian "$b")
  wait_for 20 audit_rule_present "$bid" || fail "no audit rule for $b"
  arm_probe "$a"
  arm_probe "$b"
  # The probe file exists, and is watched itself, before the measured writes, so each of them
  # raises exactly one modify alarm (the creating write raises a create alarm, and the file's
  # own watch may come after its first bytes).
  arm_probe "$b" /etc/probe
  stamp_alarms "$(ALARMS)" "$WORK/stamps" "$b" &
  echo $! > "$WORK/stamper"
  # As fast as a shell can: 512-byte writes of the protected file, rewritten over and over.
  docker exec -d "$a" sh -c 'while [ ! -e /tmp/stop ]; do dd if=/dev/zero of=/etc/storm bs=512 count=20000 2>/dev/null; done'
  wait_for 20 alarms_above ".container_name == \"$a\" and .file_info[0].file_path == \"/etc/storm\"" 1000 ||
    fail "the storm does not reach the agent"
  for i in $(seq 1 20); do
    docker exec "$b" bash -c "echo $i >> /etc/probe; echo \"\$EPOCHREALTIME\"" > "$WORK/sent.$i"
    docker exec "$b" cp /usr/bin/true "/usr/local/bin/drop$i"
    wait_for 10 grep -q "/usr/local/bin/drop$i\"" "$WORK/stamps" || missed=$((missed + 1))
  done
  docker exec "$a" touch /tmp/stop
  pkill -f "tail -n0 -F $(ALARMS)" 2>/dev/null || true
  # Each probe write raises one modify alarm of /etc/probe, in order. The alarm may land before
  # the container's shell has even taken its stamp: that counts as no delay.
  grep -F '"file_operation":2,"file_path":"/etc/probe"' "$WORK/stamps" | cut -d' ' -f1 > "$WORK/landed"
  for i in $(seq 1 20); do cat "$WORK/sent.$i"; done |
    paste - "$WORK/landed" | awk 'NF == 2 { d = ($2 - $1) * 1000; printf "%.1f\n", d < 0 ? 0 : d }' \
    > "$WORK/latencies"
  missed=$((missed + 20 - $(wc -l < "$WORK/latencies")))
  sort -n "$WORK/latencies" -o "$WORK/latencies"
  local n p50 max
  n=$(wc -l < "$WORK/latencies")
  p50=$(sed -n "$(( (n + 1) / 2 ))p" "$WORK/latencies")
  max=$(tail -n 1 "$WORK/latencies")
  over=$(awk '$1 > 20' "$WORK/latencies" | wc -l)
  echo "   neighbour during the storm: $n of 20 modify alarms, p50 ${p50} ms, max ${max} ms, $over over 20 ms; executables missed: $missed"
  agent_stop
  echo "   storm: $(alarms_matching "$(ALARMS)" ".container_name == \"$a\"") alarms; $(grep -ho 'Status: .*' "$WORK"/agent.log* | tail -n 1)"
  [ "$missed" -eq 0 ] || fail "neighbour's alarms missed"
  # STORM_MAX_MS: a sanitizer build is several times slower; it runs this case for memory
  # safety under load, not for speed.
  [ "$(awk -v max="${STORM_MAX_MS:-100}" '$1 > max' "$WORK/latencies" | wc -l)" -eq 0 ] ||
    fail "neighbour's alarms delayed past ${STORM_MAX_MS:-100} ms"
}
