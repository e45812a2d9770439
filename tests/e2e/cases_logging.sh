# End-to-end cases of the agent's own log and its check commands. Sourced by scripts/e2e.sh
# after cases.sh, whose helpers they use.

E2E_CASES="$E2E_CASES hostile_file_name_stays_one_log_line check_commands"

# A file name with a newline and an escape sequence in it, written into a protected container,
# reaches the log (its audit event is logged at debug) as one line with the bytes escaped.
case_hostile_file_name_stays_one_log_line() {
  write_policy "$WORK/policy.d" tarnwick/busybox true /etc/passwd
  agent_start "$WORK"
  local c=e2e-logname-$$ cid
  cid=$(start_container "$c")
  wait_for 20 audit_rule_present "$cid" || fail "no audit rule for $c"
  # The forged part looks like a record of its own, and would turn a terminal red.
  docker exec -d "$c" sh -c \
    'cp /bin/busybox "/tmp/e2e-x$(printf "\n2026-01-01 00:00:00.000 [Error] forged\033[31m")"; sleep 60'
  expect_alarm "ELF with a hostile name" \
    '.event_classid == "dockerfile_002" and (.file_info[0].file_path | test("forged"))' 30
  local log=$WORK/agent.log
  # Debug and information records reach the file in batches, at most 50 ms after they are made.
  wait_for 5 grep -qF '/tmp/e2e-x\n2026-01-01 00:00:00.000 [Error] forged\x1b[31m' "$log" ||
    fail "the file name is not in the log with its escapes"
  [ "$(grep -c '^2026-01-01 00:00:00.000 \[Error\] forged' "$log")" -eq 0 ] ||
    fail "the file name started a log line of its own"
  [ "$(grep -c $'\x1b' "$log")" -eq 0 ] || fail "an escape byte reached the log"
  [ "$(grep -c $'\r' "$log")" -eq 0 ] || fail "a carriage return reached the log"
}

# The installed agent checks the installed settings and policies without starting anything.
case_check_commands() {
  local agent=$TARNWICK_PREFIX/bin/tarnwick-agent rc
  "$agent" --check-config > "$WORK/check-config.out" || fail "installed settings: $(cat "$WORK/check-config.out")"
  "$agent" --check-policy "$TARNWICK_PREFIX/etc/policy.d/10001.json" > "$WORK/check-policy.out" ||
    fail "installed policy: $(cat "$WORK/check-policy.out")"
  grep -q "rule 1 by image" "$WORK/check-policy.out" || fail "no rule shown: $(cat "$WORK/check-policy.out")"
  mkdir -p "$WORK/p"
  echo '{"content":{"rules":{"image_name":"x","protect_files":["/a"]}}}' > "$WORK/p/10001.json"
  rc=0; "$agent" --check-policy "$WORK/p/10001.json" > "$WORK/nothing.out" || rc=$?
  [ "$rc" -eq 1 ] || fail "a policy that protects nothing: exit $rc"
  grep -q "protects nothing: content.rules is an object" "$WORK/nothing.out" || fail "no reason given"
  # Nothing was started: no audit rule, no agent process.
  [ "$(audit_cid_rules)" -eq 0 ] || fail "a check added audit rules"
}
